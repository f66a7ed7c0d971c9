#pragma once

#include "Deserialization.h"
#include "Serialization.h"

namespace tavrin {

// A value that can cross a process boundary: it writes itself to a
// Serialization and reads itself back, in the same order, from a
// Deserialization. The encoding carries no type tags or field names.
class IPCBasicClass {
  public:
    virtual ~IPCBasicClass() = default;
    virtual void serialization(Serialization& out) = 0;
    virtual void deserialization(Deserialization& in) = 0;
};

}  // namespace tavrin
