#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "Connection.h"

namespace android {
namespace tvbinder {

// A one-way transaction received and resolved, waiting for its object.
struct PendingOneWay {
    sp<BBinder> target;  // kept alive while the call is in flight
    sp<Connection> from;
    uint32_t code = 0;
    uint32_t flags = 0;
    Parcel data;
    size_t bytes = 0;  // what it counts against its connection's backlog
};

}  // namespace tvbinder
}  // namespace android
