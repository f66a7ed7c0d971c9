#pragma once

#include <optional>

#include "BenchOptions.h"

// The tavrin API over its Binder coupler: services published with
// Announcer::self().publish and bound with Discoverer::self().bindTo. Every
// client, service and sub-service runs in a process of its own, forked by the
// driver before it touches the library. Results are empty when a process
// failed.
namespace coupler {

// Median IClient::ipcCall round trip of a one-int32 value.
std::optional<double> callMicros(bool pinned, int iterations);
// Median ipcCall whose service answers with what the client answers to its
// sendNotifyEx (two round trips in all).
std::optional<double> notifyExCallMicros(bool pinned, int iterations);
// sendNotify notifications per second from a service to one client; the
// service waits for the client after every batch.
std::optional<double> notificationsPerSecond(bool pinned, int notifications);
// ipcCalls per second of `clients` processes calling one service.
std::optional<double> parallelCallsPerSecond(bool pinned, int clients, int callsEach);
// Median ipcCall round trip of a client to a sub-service in its own process.
std::optional<double> subServiceCallMicros(bool pinned, int iterations);
// Median time, in fresh client processes, from bindTo of a registered
// sub-service to the result of the first call.
std::optional<double> subServiceFirstCallMillis(int rounds);

}  // namespace coupler
