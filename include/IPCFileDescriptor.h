#pragma once

#include "IPCBasicClass.h"

namespace tavrin {

// A file descriptor. The message carries a duplicate of it; a value read from
// a message holds its own duplicate, valid after the message is gone. The
// value never closes its descriptor: whoever holds the value owns it.
class IPCFileDescriptor : public IPCBasicClass {
  public:
    explicit IPCFileDescriptor(int fd = -1) : mFd(fd) {}

    int get() const { return mFd; }
    void set(int fd) { mFd = fd; }

    void serialization(Serialization& out) override;
    // A message without a descriptor leaves -1.
    void deserialization(Deserialization& in) override;

  private:
    int mFd;
};

}  // namespace tavrin
