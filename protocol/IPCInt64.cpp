#include "IPCInt64.h"

namespace tavrin {

void IPCInt64::serialization(Serialization& out) {
    out.writeInt64(mValue);
}

void IPCInt64::deserialization(Deserialization& in) {
    mValue = in.readInt64();
}

}  // namespace tavrin
