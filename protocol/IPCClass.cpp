#include "IPCClass.h"

namespace tavrin {

IPCClass::~IPCClass() = default;

}  // namespace tavrin
