#pragma once

#include <string>

namespace tavrin {

// Names a sub-service, the master service it registers with, and the coupler.
struct SubServiceInfo {
    SubServiceInfo() = default;
    SubServiceInfo(std::string subServiceName, std::string serviceName, std::string ipc)
        : subServiceName(std::move(subServiceName)),
          serviceName(std::move(serviceName)),
          ipc(std::move(ipc)) {}

    std::string subServiceName;
    std::string serviceName;  // the master service
    std::string ipc;          // key of the coupler registry, e.g. "Binder"
};

}  // namespace tavrin
