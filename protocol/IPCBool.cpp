#include "IPCBool.h"

namespace tavrin {

void IPCBool::serialization(Serialization& out) {
    out.writeInt32(mValue ? 1 : 0);
}

void IPCBool::deserialization(Deserialization& in) {
    mValue = in.readInt32() != 0;
}

}  // namespace tavrin
