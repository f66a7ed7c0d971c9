#include "IPCFileDescriptor.h"

#include <unistd.h>

namespace tavrin {

void IPCFileDescriptor::serialization(Serialization& out) {
    out.writeDupFileDescriptor(mFd);
}

// The message's descriptor dies with the message; keep a duplicate of our own.
void IPCFileDescriptor::deserialization(Deserialization& in) {
    mFd = dup(in.readFileDescriptor());
}

}  // namespace tavrin
