#pragma once

#include <binder/IBinder.h>

// What the echo service and its clients agree on.
namespace echo {

constexpr const char* kServiceName = "tavrin.example.echo";

enum : uint32_t {
    // data: C string; reply: the same string, then the caller's pid as the service saw it.
    ECHO = android::IBinder::FIRST_CALL_TRANSACTION,
    // data: a listener binder; the service calls it back one-way with NOTIFY.
    SUBSCRIBE,
};

enum : uint32_t {
    // To a listener, one-way: C string.
    NOTIFY = android::IBinder::FIRST_CALL_TRANSACTION,
};

}  // namespace echo
