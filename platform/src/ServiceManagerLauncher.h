#pragma once

#include <string>

namespace android {
namespace tvbinder {

// The service manager daemon to start: $TAVRIN_SERVICEMANAGER when set, else
// bin/tavrin-servicemanager beside the lib/ directory that holds this library
// (true in the build tree and once installed). Empty when neither exists.
std::string serviceManagerPath();

// Starts the daemon of this process's context and waits until it serves or
// has found another one serving. Bounded: the daemon's launching parent gives
// up after a few seconds. False when it could not be started.
bool launchServiceManager();

}  // namespace tvbinder
}  // namespace android
