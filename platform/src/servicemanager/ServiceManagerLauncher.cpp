#define LOG_TAG "ServiceManager"

#include "servicemanager/ServiceManagerLauncher.h"

#include <dlfcn.h>
#include <errno.h>
#include <log/log.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

extern char** environ;

namespace android {
namespace tvbinder {
namespace {

constexpr const char* kPathVariable = "TAVRIN_SERVICEMANAGER";
constexpr const char* kDaemonName = "tavrin-servicemanager";
// Where the daemon is from the library's directory once installed (the
// relative path from the install's libdir to its bindir: true wherever the
// tree was moved to), in the build tree, and where it was installed to.
constexpr const char* kInstalledBesideLibrary = TVBINDER_LIB_TO_BIN;
constexpr const char* kBuildTreeBesideLibrary = "../bin";
constexpr const char* kInstalledPath = TVBINDER_INSTALLED_SERVICEMANAGER;

std::string directoryOfThisLibrary() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&serviceManagerPath), &info) == 0 ||
        info.dli_fname == nullptr) {
        return std::string();
    }
    const std::string library(info.dli_fname);
    const size_t slash = library.rfind('/');
    return slash == std::string::npos ? std::string(".") : library.substr(0, slash);
}

// The daemon must not inherit the caller's blocked or handled signals.
void resetSignals(posix_spawnattr_t* attributes) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal : {SIGHUP, SIGINT, SIGPIPE, SIGTERM, SIGCHLD, SIGUSR1, SIGUSR2}) {
        sigaddset(&defaults, signal);
    }
    posix_spawnattr_setsigdefault(attributes, &defaults);
    posix_spawnattr_setflags(attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
}

// The launched process daemonises and exits once the daemon serves; its
// status says whether that went well. A caller that reaps its children
// itself (or ignores SIGCHLD) takes that answer away: then trust the retries.
bool awaitLaunchingParent(pid_t pid) {
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(pid, &status, 0);
    } while (waited < 0 && errno == EINTR);
    if (waited < 0) return errno == ECHILD;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

std::string serviceManagerPath() {
    const char* configured = getenv(kPathVariable);
    if (configured != nullptr && configured[0] != '\0') return configured;
    const std::string directory = directoryOfThisLibrary();
    std::vector<std::string> candidates;
    if (!directory.empty()) {
        candidates.push_back(directory + "/" + kInstalledBesideLibrary + "/" + kDaemonName);
        candidates.push_back(directory + "/" + kBuildTreeBesideLibrary + "/" + kDaemonName);
    }
    candidates.push_back(kInstalledPath);
    for (const std::string& path : candidates) {
        if (access(path.c_str(), X_OK) == 0) return path;
    }
    return std::string();
}

bool launchServiceManager() {
    std::string path = serviceManagerPath();
    if (path.empty()) {
        ALOGE("no service manager to start: set %s or install tavrin-servicemanager",
              kPathVariable);
        return false;
    }
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    resetSignals(&attributes);
    char* argv[] = {path.data(), nullptr};
    pid_t pid = -1;
    const int error = posix_spawn(&pid, path.c_str(), nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0) {
        ALOGE("could not start %s: %s", path.c_str(), strerror(error));
        return false;
    }
    ALOGI("started %s", path.c_str());
    return awaitLaunchingParent(pid);
}

}  // namespace tvbinder
}  // namespace android
