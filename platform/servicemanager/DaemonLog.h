#pragma once

#include <string>

namespace android {

// Where a detached service manager's log lines go, since its standard streams
// lead nowhere: to syslog when /dev/log accepts datagrams, else appended to
// `directory`/servicemanager-<context>.log (moved aside to .old when it grew
// past 1 MiB, at start). Installed once, by the daemon's main thread, before
// the thread pool starts; liblog calls the installed logger from any thread.
void logToSyslogOrFile(const std::string& directory, const std::string& context);

}  // namespace android
