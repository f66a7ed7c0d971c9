#include "DaemonLog.h"

#include <android/log.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <string>

namespace android {
namespace {

constexpr off_t kLogFileLimit = 1 << 20;
int gLogFile = -1;  // set once, before any other thread logs

bool syslogAcceptsDatagrams() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", "/dev/log");
    const bool accepted =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

int syslogPriority(int priority) {
    if (priority >= ANDROID_LOG_FATAL) return LOG_CRIT;
    if (priority >= ANDROID_LOG_ERROR) return LOG_ERR;
    if (priority >= ANDROID_LOG_WARN) return LOG_WARNING;
    if (priority >= ANDROID_LOG_INFO) return LOG_INFO;
    return LOG_DEBUG;
}

char priorityLetter(int priority) {
    static const char kLetters[] = "??VDIWEF";
    return priority >= 0 && priority < 8 ? kLetters[priority] : '?';
}

void toSyslog(const __android_logger_data* data, const char* message) {
    syslog(syslogPriority(data->priority), "%s: %s", data->tag != nullptr ? data->tag : "",
           message);
}

// One write per line, so that lines of different threads never interleave.
void toFile(const __android_logger_data* data, const char* message) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char line[1024];
    const int length = snprintf(line, sizeof line, "%s.%03ld %d %c %s: %s\n", stamp,
                                now.tv_nsec / 1000000, getpid(), priorityLetter(data->priority),
                                data->tag != nullptr ? data->tag : "", message);
    if (length <= 0) return;
    const size_t size = static_cast<size_t>(length) < sizeof line ? length : sizeof line - 1;
    if (size == sizeof line - 1) line[size - 1] = '\n';
    if (write(gLogFile, line, size) < 0) return;  // nowhere left to tell
}

int openLogFile(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) == 0 && status.st_size > kLogFileLimit) {
        rename(path.c_str(), (path + ".old").c_str());
    }
    return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
}

}  // namespace

void logToSyslogOrFile(const std::string& directory, const std::string& context) {
    if (syslogAcceptsDatagrams()) {
        openlog("tavrin-servicemanager", LOG_PID | LOG_NDELAY, LOG_USER);
        __android_log_set_logger(toSyslog);
        return;
    }
    if (directory.empty()) return;
    gLogFile = openLogFile(directory + "/servicemanager-" + context + ".log");
    if (gLogFile >= 0) __android_log_set_logger(toFile);
}

}  // namespace android
