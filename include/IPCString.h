#pragma once

#include <string>

#include "IPCBasicClass.h"

namespace tavrin {

// A string, written as a NUL-terminated C string (so it ends at its first NUL).
class IPCString : public IPCBasicClass {
  public:
    IPCString() = default;
    explicit IPCString(std::string value) : mValue(std::move(value)) {}

    const std::string& get() const { return mValue; }
    void set(std::string value) { mValue = std::move(value); }

    void serialization(Serialization& out) override;
    // A message without a string leaves the value unchanged.
    void deserialization(Deserialization& in) override;

  private:
    std::string mValue;
};

}  // namespace tavrin
