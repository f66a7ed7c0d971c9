#include "IPCInt32.h"

namespace tavrin {

void IPCInt32::serialization(Serialization& out) {
    out.writeInt32(mValue);
}

void IPCInt32::deserialization(Deserialization& in) {
    mValue = in.readInt32();
}

}  // namespace tavrin
