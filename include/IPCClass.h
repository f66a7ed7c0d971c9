#pragma once

#include <string>

#include "IPCBasicClass.h"

namespace tavrin {

// A value that travels with its class name, so that the receiver can create
// it through the creator its Protocol registers under that name. Call
// arguments and results, notifications and configurations are IPCClasses.
class IPCClass : public IPCBasicClass {
  public:
    ~IPCClass() override;
    virtual std::string getClassName() = 0;
};

}  // namespace tavrin
