#include "IPCDouble.h"

namespace tavrin {

void IPCDouble::serialization(Serialization& out) {
    out.writeDouble(mValue);
}

void IPCDouble::deserialization(Deserialization& in) {
    mValue = in.readDouble();
}

}  // namespace tavrin
