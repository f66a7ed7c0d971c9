// tavrin-servicemanager: the registry of named binder objects of one context.
//
//   tavrin-servicemanager [--context NAME] [--foreground]   serve the context
//   tavrin-servicemanager [--context NAME] --list           print its registrations
//   tavrin-servicemanager --help
//
// Without --foreground the daemon detaches (double fork, new session, stdio on
// /dev/null, its log to syslog or a file); the launching process exits once
// the daemon serves, or once it has found another service manager serving the
// context, so that whoever started it can connect right away.
#define LOG_TAG "servicemanager"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <fcntl.h>
#include <log/log.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "DaemonLog.h"
#include "ServiceManager.h"
#include "wire/SocketDirectory.h"

namespace {

using android::IServiceManager;
using android::sp;

constexpr int kReadinessTimeoutMs = 5000;
constexpr char kServing = 'S';
constexpr char kAlreadyServed = 'A';
constexpr char kFailed = 'F';

struct Options {
    bool foreground = false;
    bool list = false;
    bool help = false;
    const char* context = nullptr;
};

void printUsage(FILE* out) {
    fprintf(out,
            "usage: tavrin-servicemanager [--context NAME] [--foreground]\n"
            "       tavrin-servicemanager [--context NAME] --list\n"
            "       tavrin-servicemanager --help\n"
            "Serves the registry of named binder objects of one context.\n"
            "  --context NAME  the context (default: $TAVRIN_BINDER_CONTEXT, else \"default\")\n"
            "  --foreground    serve without detaching, logging to stderr\n"
            "  --list          print the context's registrations; never starts a daemon\n"
            "A detached daemon logs to syslog, else to servicemanager-CONTEXT.log in the\n"
            "user's socket directory. See tavrin-servicemanager(8).\n");
}

bool parseOptions(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--foreground") {
            options->foreground = true;
        } else if (arg == "--list") {
            options->list = true;
        } else if (arg == "--help") {
            options->help = true;
        } else if (arg == "--context" && i + 1 < argc && argv[i + 1][0] != '\0') {
            options->context = argv[++i];
        } else {
            return false;
        }
    }
    return true;
}

const char* contextName() {
    const char* name = getenv("TAVRIN_BINDER_CONTEXT");
    return name != nullptr && name[0] != '\0' ? name : "default";
}

// The service manager serving the context, if one answers; never starts one.
sp<android::IBinder> answeringManager() {
    sp<android::IBinder> context = android::ProcessState::self()->getContextObject(nullptr);
    if (context == nullptr || context->pingBinder() != android::NO_ERROR) return nullptr;
    return context;
}

int listRegistrations() {
    sp<android::IBinder> context = answeringManager();
    if (context == nullptr) {
        fprintf(stderr, "no service manager serves context %s\n", contextName());
        return 1;
    }
    sp<IServiceManager> manager = android::interface_cast<IServiceManager>(context);
    printf("%-40s %8s  %s\n", "NAME", "PID", "PROCESS");
    for (const IServiceManager::Registration& entry : manager->listRegistrations()) {
        printf("%-40s %8d  %s\n", android::String8(entry.name).string(), entry.pid,
               entry.processName.string());
    }
    return 0;
}

// In the launching process: waits for the daemon's word and reaps the
// intermediate child. Exits 0 when the context is served.
[[noreturn]] void reportReadiness(int readEnd, pid_t child) {
    struct pollfd ready = {readEnd, POLLIN, 0};
    char word = 0;
    int polled;
    do {
        polled = poll(&ready, 1, kReadinessTimeoutMs);
    } while (polled < 0 && errno == EINTR);
    const bool served =
        polled == 1 && read(readEnd, &word, 1) == 1 && (word == kServing || word == kAlreadyServed);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    _exit(served ? 0 : 1);
}

void redirectStdioToNull() {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return;
    for (int stdio = 0; stdio <= 2; ++stdio) dup2(null, stdio);
    if (null > 2) close(null);
}

// Detaches from the launching process; returns the descriptor on which the
// daemon tells the launcher that it serves.
int daemonise() {
    // Whatever the launching application left open is not ours to keep.
    close_range(3, ~0U, 0);
    int readiness[2];
    if (pipe2(readiness, O_CLOEXEC) != 0) {
        perror("tavrin-servicemanager: pipe");
        exit(1);
    }
    const pid_t child = fork();
    if (child < 0) {
        perror("tavrin-servicemanager: fork");
        exit(1);
    }
    if (child > 0) {
        close(readiness[1]);
        reportReadiness(readiness[0], child);
    }
    close(readiness[0]);
    setsid();
    const pid_t daemon = fork();
    if (daemon < 0) _exit(1);
    if (daemon > 0) _exit(0);
    if (chdir("/") != 0) _exit(1);
    redirectStdioToNull();
    android::logToSyslogOrFile(android::tvbinder::SocketDirectory::path(), contextName());
    return readiness[1];
}

void tellLauncher(int* readiness, char word) {
    if (*readiness < 0) return;
    if (write(*readiness, &word, 1) != 1) ALOGW("launcher gone: %s", strerror(errno));
    close(*readiness);
    *readiness = -1;
}

// Every registrant costs the daemon a pidfd, and every process it talks to a
// link and a pidfd: it takes all the descriptors it is allowed, before the
// transport sizes its caps from the limit.
void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) ALOGW("cannot raise the descriptor limit");
}

int serve(const Options& options) {
    int readiness = options.foreground ? -1 : daemonise();
    signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    sp<android::ProcessState> process = android::ProcessState::self();
    process->setProcessName("servicemanager");
    // Set before claiming the context, so that no client finds it without an object.
    android::IPCThreadState::self()->setTheContextObject(new android::ServiceManager());
    if (!process->becomeContextManager()) {
        const bool served = answeringManager() != nullptr;
        tellLauncher(&readiness, served ? kAlreadyServed : kFailed);
        // Losing a start-up race is no error: the context is served.
        if (served && !options.foreground) return 0;
        fprintf(stderr,
                served ? "another service manager already serves context %s\n"
                       : "cannot serve context %s\n",
                contextName());
        return 1;
    }
    ALOGI("serving context %s", contextName());
    tellLauncher(&readiness, kServing);
    process->startThreadPool();
    android::IPCThreadState::self()->joinThreadPool(true);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parseOptions(argc, argv, &options)) {
        printUsage(stderr);
        return 2;
    }
    if (options.help) {
        printUsage(stdout);
        return 0;
    }
    if (options.context != nullptr) setenv("TAVRIN_BINDER_CONTEXT", options.context, 1);
    return options.list ? listRegistrations() : serve(options);
}
