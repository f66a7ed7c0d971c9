#pragma once

namespace android {
namespace tvbinder {

// What an epoll registration of the thread pool points at.
struct EventSource {
    enum class Type { kListener, kConnection, kPeerWatch, kWake, kTimer };
    explicit EventSource(Type t) : type(t) {}
    const Type type;
};

}  // namespace tvbinder
}  // namespace android
