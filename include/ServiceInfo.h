#pragma once

#include <string>

namespace tavrin {

// Names a service and the coupler (IPC back-end) that reaches it.
struct ServiceInfo {
    ServiceInfo() = default;
    ServiceInfo(std::string serviceName, std::string ipc)
        : serviceName(std::move(serviceName)), ipc(std::move(ipc)) {}

    std::string serviceName;
    std::string ipc;  // key of the coupler registry, e.g. "Binder"
};

}  // namespace tavrin
