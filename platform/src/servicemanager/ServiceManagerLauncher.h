#pragma once

#include <string>

namespace android {
namespace tvbinder {

// The service manager daemon to start: $TAVRIN_SERVICEMANAGER when set, else
// the first that exists of: the installed bindir seen from this library's
// directory (a relocated install), bin/ beside the build tree's lib/, and the
// absolute path it was installed to. Empty when none exists.
std::string serviceManagerPath();

// Starts the daemon of this process's context and waits until it serves or
// has found another one serving. Bounded: the daemon's launching parent gives
// up after a few seconds. False when it could not be started.
bool launchServiceManager();

}  // namespace tvbinder
}  // namespace android
