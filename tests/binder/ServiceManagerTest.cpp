// The service manager daemon and its client, with real processes: each test
// runs its own daemon in a context of its own and kills it at the end.
#include <android/log.h>
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "TestSupport.h"
#include "wire/SocketDirectory.h"

using android::defaultServiceManager;
using android::IBinder;
using android::IServiceManager;
using android::NO_ERROR;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::String8;
using android::tvbinder::SocketDirectory;
using namespace std::chrono_literals;

namespace {

constexpr char kContextVariable[] = "TAVRIN_BINDER_CONTEXT";
constexpr char kDaemonVariable[] = "TAVRIN_SERVICEMANAGER";

// Sets (or, with null, removes) a variable for one test's children and puts
// the old value back: the children of later tests must meet the test registry.
class ScopedVariable {
  public:
    ScopedVariable(const char* name, const char* value) : mName(name) {
        const char* old = getenv(name);
        if (old != nullptr) mOld = old;
        mHad = old != nullptr;
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedVariable() {
        if (mHad) {
            setenv(mName, mOld.c_str(), 1);
        } else {
            unsetenv(mName);
        }
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    const char* mName;
    std::string mOld;
    bool mHad = false;
};

std::string daemonPath() {
    return tvproc::besideThisProgram("tavrin-servicemanager");
}

std::string processNameOf(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

// Runs the daemon's --list tool: its exit status, its output in *out.
int runListTool(const std::string& context, std::string* out = nullptr) {
    const std::string command = daemonPath() + " --list --context " + context + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) {
        if (out != nullptr) out->append(buffer);
    }
    const int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Replaces the child with the daemon in the foreground; the child's death
// signal (set by the role runner) survives the exec, so the daemon dies with
// the test even when the test itself crashes.
TVTEST_CHILD_ROLE(sm_daemon) {
    const std::string path = daemonPath();
    const char* argv[] = {path.c_str(), "--foreground", "--context", args.at(0).c_str(), nullptr};
    execv(argv[0], const_cast<char**>(argv));
    return 127;
}

// A daemon in the foreground, serving `context` until destroyed.
class ForegroundDaemon {
  public:
    explicit ForegroundDaemon(const std::string& context) : mProcess("sm_daemon", {context}) {
        mServing = tvtest::waitUntil([&] { return runListTool(context) == 0; }, 10s);
    }
    bool serving() const { return mServing; }
    pid_t pid() const { return mProcess.pid(); }
    void kill() {
        mProcess.kill(SIGKILL);
        mProcess.wait();
    }

  private:
    tvtest::ChildProcess mProcess;
    bool mServing = false;
};

// Answers TAG with the tag it was made with, so tests can tell registrations apart.
class TaggedService : public android::BBinder {
  public:
    enum { TAG = FIRST_CALL_TRANSACTION };
    explicit TaggedService(const std::string& tag) : mTag(tag.c_str()) {}

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != TAG) return BBinder::onTransact(code, data, reply, flags);
        return reply->writeString16(mTag);
    }

  private:
    const String16 mTag;
};

std::string describe(const sp<IBinder>& binder) {
    if (binder == nullptr) return "null";
    Parcel request, reply;
    if (binder->transact(TaggedService::TAG, request, &reply) != NO_ERROR) return "dead";
    return "tag " + std::string(String8(reply.readString16()).string());
}

std::string joinRegistrations() {
    std::string text;
    for (const IServiceManager::Registration& entry :
         defaultServiceManager()->listRegistrations()) {
        text += String8(entry.name).string() + std::string(":") + std::to_string(entry.pid) + ":" +
                entry.processName.string() + " ";
    }
    return text;
}

// Runs one command of the agent role; the answer line.
std::string runAgentCommand(const std::string& verb, const std::string& name,
                            const std::string& argument) {
    sp<IServiceManager> manager = defaultServiceManager();
    if (verb == "add" || verb == "add-without-pool") {
        if (verb == "add") android::ProcessState::self()->startThreadPool();
        return "status " + std::to_string(manager->addService(String16(name.c_str()),
                                                              new TaggedService(argument)));
    }
    if (verb == "fill") {
        // Registers the object found under `argument` as NAME0, NAME1, ... until refused.
        sp<IBinder> object = manager->checkService(String16(argument.c_str()));
        status_t status = android::NAME_NOT_FOUND;
        int count = 0;
        while (object != nullptr && count <= 10000) {
            status = manager->addService(String16((name + std::to_string(count)).c_str()), object);
            if (status != NO_ERROR) break;
            ++count;
        }
        return std::to_string(count) + " status " + std::to_string(status);
    }
    if (verb == "check") return describe(manager->checkService(String16(name.c_str())));
    if (verb == "get") return describe(manager->getService(String16(name.c_str())));
    if (verb == "timeout") {
        manager->setGetServiceTimeout(std::chrono::milliseconds(std::stoll(name)));
        return "ok";
    }
    if (verb == "registrations") return joinRegistrations();
    if (verb == "threads") return std::to_string(tvtest::countPoolThreads(getpid()));
    return "unknown command";
}

// A process that uses the service manager as the test tells it, one line per
// command: "add NAME TAG", "add-without-pool NAME TAG", "fill PREFIX NAME",
// "check NAME", "get NAME", "timeout MS", "registrations", "threads" (its
// pool threads).
TVTEST_CHILD_ROLE(sm_agent) {
    (void)args;
    for (;;) {
        const std::string line = tvtest::ParentChannel::receive(120s);
        if (line.empty()) return 0;
        std::istringstream words(line);
        std::string verb, name, argument;
        words >> verb >> name >> argument;
        tvtest::ParentChannel::send(runAgentCommand(verb, name, argument));
    }
}

std::string ask(tvtest::ChildProcess& agent, const std::string& command,
                std::chrono::milliseconds timeout = 20s) {
    agent.writeLine(command);
    return agent.readLine(timeout);
}

std::string statusLine(status_t status) {
    return "status " + std::to_string(status);
}

class ServiceManagerTest : public testing::Test {
  protected:
    void SetUp() override {
        mContext = tvtest::uniqueName("smtest");
        mContextVariable = std::make_unique<ScopedVariable>(kContextVariable, mContext.c_str());
        // Children must use this test's daemon, never start one of their own.
        mDaemonVariable =
            std::make_unique<ScopedVariable>(kDaemonVariable, "/nonexistent/tavrin-servicemanager");
        mDaemon = std::make_unique<ForegroundDaemon>(mContext);
        ASSERT_TRUE(mDaemon->serving());
    }
    void TearDown() override { mDaemon.reset(); }

    std::string mContext;
    std::unique_ptr<ScopedVariable> mContextVariable;
    std::unique_ptr<ScopedVariable> mDaemonVariable;
    std::unique_ptr<ForegroundDaemon> mDaemon;
};

TEST_F(ServiceManagerTest, RegistersFindsAndListsServices) {
    tvtest::ChildProcess owner("sm_agent");
    tvtest::ChildProcess client("sm_agent");
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.alpha one"));

    EXPECT_EQ("tag one", ask(client, "check sm.alpha"));
    EXPECT_EQ("tag one", ask(client, "get sm.alpha"));
    EXPECT_EQ("null", ask(client, "check sm.absent"));

    const std::string registrations = ask(client, "registrations");
    const std::string ownerEntry =
        "sm.alpha:" + std::to_string(owner.pid()) + ":" + processNameOf(owner.pid());
    EXPECT_NE(std::string::npos, registrations.find(ownerEntry)) << registrations;
    const std::string managerEntry =
        "manager:" + std::to_string(mDaemon->pid()) + ":servicemanager";
    EXPECT_NE(std::string::npos, registrations.find(managerEntry)) << registrations;

    std::string listing;
    ASSERT_EQ(0, runListTool(mContext, &listing));
    EXPECT_NE(std::string::npos, listing.find("sm.alpha")) << listing;
    EXPECT_NE(std::string::npos, listing.find(std::to_string(owner.pid()))) << listing;
}

TEST_F(ServiceManagerTest, ANameBelongsToItsRegistrantAndEndsWithItOrWithItsObject) {
    tvtest::ChildProcess successor("sm_agent");
    {
        tvtest::ChildProcess owner("sm_agent");
        ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.held one"));
        EXPECT_EQ(statusLine(android::ALREADY_EXISTS), ask(successor, "add sm.held two"));
        EXPECT_EQ(statusLine(android::ALREADY_EXISTS), ask(successor, "add manager two"));
        // The holder itself may replace its registration.
        EXPECT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.held three"));
        ASSERT_EQ("tag three", ask(successor, "check sm.held"));
        {
            // Another process registers the owner's object under names of its
            // own, up to its own limit, which leaves the owner's untouched...
            tvtest::ChildProcess relay("sm_agent");
            EXPECT_EQ("512 " + statusLine(android::NO_MEMORY),
                      ask(relay, "fill sm.relay. sm.held"));
            EXPECT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.more five"));
            EXPECT_EQ("tag three", ask(successor, "check sm.relay.511"));
            relay.kill(SIGKILL);
            ASSERT_NE(-1, relay.wait());
        }
        // ...and holds them no longer than it lives, though the object does.
        EXPECT_TRUE(tvtest::waitUntil(
            [&] {
                return ask(successor, "check sm.relay.0") == "null" &&
                       ask(successor, "check sm.relay.511") == "null";
            },
            10s));
        EXPECT_EQ("tag three", ask(successor, "check sm.held"));
        owner.kill(SIGKILL);
        ASSERT_NE(-1, owner.wait());
    }
    EXPECT_TRUE(tvtest::waitUntil([&] { return ask(successor, "check sm.held") == "null"; }, 10s));
    EXPECT_EQ(statusLine(NO_ERROR), ask(successor, "add sm.held four"));
    EXPECT_EQ("tag four", ask(successor, "check sm.held"));
}

TEST_F(ServiceManagerTest, GetServiceIsWokenByALaterRegistration) {
    constexpr int kWaiters = 3;
    std::vector<std::unique_ptr<tvtest::ChildProcess>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<tvtest::ChildProcess>("sm_agent"));
        // Far beyond the test's own patience: only the registration can end the wait.
        ASSERT_EQ("ok", ask(*waiters.back(), "timeout 60000"));
        waiters.back()->writeLine("get sm.late");
    }
    tvtest::ChildProcess owner("sm_agent");
    std::this_thread::sleep_for(300ms);
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.late one"));
    for (auto& waiter : waiters) {
        EXPECT_EQ("tag one", waiter->readLine(30s));
        // Waiting took no thread pool.
        EXPECT_EQ("0", ask(*waiter, "threads"));
    }
}

TEST_F(ServiceManagerTest, GetServiceGivesUpOnAMissingName) {
    // Both ways of shortening the wait; the default of 5 s would outlast
    // the 4 s that the test waits for an answer.
    tvtest::ChildProcess byCall("sm_agent");
    ASSERT_EQ("ok", ask(byCall, "timeout 100"));
    setenv("TAVRIN_GETSERVICE_TIMEOUT_MS", "100", 1);
    tvtest::ChildProcess byEnvironment("sm_agent");
    unsetenv("TAVRIN_GETSERVICE_TIMEOUT_MS");

    EXPECT_EQ("null", ask(byCall, "get sm.never", 4s));
    EXPECT_EQ("null", ask(byEnvironment, "get sm.never", 4s));
    EXPECT_EQ("0", ask(byCall, "threads"));
    // Having given up leaves nothing behind that gets in the way of the name.
    ASSERT_EQ(statusLine(NO_ERROR), ask(byEnvironment, "add sm.never one"));
    EXPECT_EQ("tag one", ask(byCall, "get sm.never"));
}

// One request to the context object, written by `write`; the status that the
// transport returned, else the one the service manager answered.
template <typename Write>
status_t sendRequest(uint32_t code, Write write, uint32_t flags = 0) {
    sp<IBinder> manager = android::ProcessState::self()->getContextObject(nullptr);
    if (manager == nullptr) return android::NO_INIT;
    Parcel request, reply;
    write(request);
    const status_t sent = manager->transact(code, request, &reply, flags);
    if (sent != NO_ERROR || (flags & IBinder::FLAG_ONEWAY) != 0) return sent;
    return reply.readInt32();
}

void writeHeader(Parcel& request, const char* name) {
    request.writeInterfaceToken(IServiceManager::descriptor);
    request.writeString16(String16(name));
}

// Reports a case whose answer was not the expected one: "<case> <status>".
void expectStatus(const std::string& what, status_t expected, status_t status) {
    if (status != expected) tvtest::ParentChannel::send(what + " " + std::to_string(status));
}

void sendMalformedRequests() {
    using namespace android;
    const uint32_t check = IServiceManager::CHECK_SERVICE_TRANSACTION;
    const uint32_t add = IServiceManager::ADD_SERVICE_TRANSACTION;
    const std::string longest(IServiceManager::kMaxNameLength, 'n');
    const std::string tooLong = longest + "n";
    const sp<IBinder> service = new TaggedService("hostile");
    struct Request {
        const char* what;
        uint32_t code;
        status_t expected;
        std::function<void(Parcel&)> write;
        uint32_t flags = 0;
    };
    const Request requests[] = {
        {"longest-name", check, NAME_NOT_FOUND,
         [&](Parcel& p) { writeHeader(p, longest.c_str()); }},
        {"too-long-name", check, BAD_VALUE, [&](Parcel& p) { writeHeader(p, tooLong.c_str()); }},
        {"empty-name", check, BAD_VALUE, [](Parcel& p) { writeHeader(p, ""); }},
        {"control-character", check, BAD_VALUE, [](Parcel& p) { writeHeader(p, "bad\nname"); }},
        {"non-ascii", check, BAD_VALUE,
         [](Parcel& p) {
             p.writeInterfaceToken(IServiceManager::descriptor);
             p.writeString16(String16(u"caf\u00e9"));
         }},
        {"null-string", check, BAD_VALUE,
         [](Parcel& p) {
             p.writeInterfaceToken(IServiceManager::descriptor);
             p.writeInt32(-1);
         }},
        {"huge-length", check, BAD_VALUE,
         [](Parcel& p) {
             p.writeInterfaceToken(IServiceManager::descriptor);
             p.writeInt32(0x7fffffff);
             p.writeInt32(0x00410041);
         }},
        {"no-token", check, BAD_VALUE, [](Parcel& p) { p.writeString16(String16("sm.x")); }},
        {"wrong-token", check, BAD_VALUE,
         [](Parcel& p) {
             p.writeInterfaceToken(String16("evil.IThing"));
             p.writeString16(String16("sm.x"));
         }},
        {"trailing-bytes", check, BAD_VALUE,
         [](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeInt32(0);
         }},
        {"null-binder", add, BAD_VALUE,
         [](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeStrongBinder(nullptr);
             p.writeInt32(0);
         }},
        {"descriptor-for-binder", add, BAD_VALUE,
         [](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeDupFileDescriptor(STDIN_FILENO);
             p.writeInt32(0);
         }},
        {"missing-flag", add, BAD_VALUE,
         [&](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeStrongBinder(service);
         }},
        {"bad-flag", add, BAD_VALUE,
         [&](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeStrongBinder(service);
             p.writeInt32(7);
         }},
        {"manager-itself", add, BAD_VALUE,
         [](Parcel& p) {
             writeHeader(p, "sm.x");
             p.writeStrongBinder(ProcessState::self()->getContextObject(nullptr));
             p.writeInt32(0);
         }},
        {"pipe-for-socket", IServiceManager::WAIT_FOR_SERVICE_TRANSACTION, BAD_VALUE,
         [](Parcel& p) {
             int ends[2];
             if (pipe2(ends, O_CLOEXEC) != 0) return;
             writeHeader(p, "sm.x");
             p.writeDupFileDescriptor(ends[1]);
             close(ends[0]);
             close(ends[1]);
         }},
        {"unknown-code", 0x00abcdef, UNKNOWN_TRANSACTION,
         [](Parcel& p) { writeHeader(p, "sm.x"); }},
        {"one-way-add", add, NO_ERROR,
         [&](Parcel& p) {
             writeHeader(p, "sm.oneway");
             p.writeStrongBinder(service);
             p.writeInt32(0);
         },
         IBinder::FLAG_ONEWAY},
        {"one-way-add-ignored", check, NAME_NOT_FOUND,
         [](Parcel& p) { writeHeader(p, "sm.oneway"); }},
    };
    for (const Request& request : requests) {
        expectStatus(request.what, request.expected,
                     sendRequest(request.code, request.write, request.flags));
    }
}

// Asks to be woken when `name` appears; in *socket the end that hangs up
// when the service manager drops the waiter.
status_t sendWaiterRequest(const std::string& name, int* socket) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
    *socket = ends[0];
    const status_t status =
        sendRequest(IServiceManager::WAIT_FOR_SERVICE_TRANSACTION, [&](Parcel& p) {
            writeHeader(p, name.c_str());
            p.writeFileDescriptor(ends[1]);
        });
    close(ends[1]);
    return status;
}

status_t sendCancelRequest(const std::string& name) {
    return sendRequest(IServiceManager::CANCEL_WAIT_TRANSACTION,
                       [&](Parcel& p) { writeHeader(p, name.c_str()); });
}

// Fills this process's waiter slots, overflows them and frees one; then does
// the same with registrations.
void exhaustLimits() {
    std::vector<int> sockets;
    status_t status = NO_ERROR;
    for (int i = 0; status == NO_ERROR && i < 1000; ++i) {
        sockets.push_back(-1);
        status = sendWaiterRequest("sm.wait." + std::to_string(i), &sockets.back());
    }
    expectStatus("waiters-accepted", 64, static_cast<status_t>(sockets.size() - 1));
    expectStatus("waiter-overflow", android::NO_MEMORY, status);
    // Only a waiter whose socket was closed is cancelled.
    expectStatus("cancel-open-waiter", android::NAME_NOT_FOUND, sendCancelRequest("sm.wait.0"));
    close(sockets[0]);
    expectStatus("cancel-waiter", NO_ERROR, sendCancelRequest("sm.wait.0"));
    expectStatus("cancel-unknown-waiter", android::NAME_NOT_FOUND, sendCancelRequest("sm.wait.0"));
    expectStatus("waiter-after-cancel", NO_ERROR, sendWaiterRequest("sm.wait.again", &sockets[0]));
    for (int socket : sockets) close(socket);

    sp<IBinder> service = new TaggedService("many");
    int accepted = 0;
    for (status = NO_ERROR; status == NO_ERROR && accepted <= 10000; ++accepted) {
        status = defaultServiceManager()->addService(
            String16(("sm.many." + std::to_string(accepted)).c_str()), service);
    }
    expectStatus("registrations-accepted", 512, accepted - 1);
    expectStatus("registration-overflow", android::NO_MEMORY, status);
}

// Sends the service manager requests that no well-behaved client sends and
// reports every answer that was not the expected one.
TVTEST_CHILD_ROLE(sm_hostile) {
    (void)args;
    android::ProcessState::self()->startThreadPool();
    sendMalformedRequests();
    exhaustLimits();
    tvtest::ParentChannel::send("done");
    return tvtest::ParentChannel::receive(60s).empty() ? 0 : 1;
}

TEST_F(ServiceManagerTest, RejectsMalformedAndExcessiveRequests) {
    tvtest::ChildProcess hostile("sm_hostile");
    std::string line;
    while (!(line = hostile.readLine(60s)).empty() && line != "done") ADD_FAILURE() << line;
    EXPECT_EQ("done", line);

    // The daemon survived all of it and still serves others.
    tvtest::ChildProcess agent("sm_agent");
    EXPECT_EQ(statusLine(NO_ERROR), ask(agent, "add sm.after one"));
    EXPECT_EQ("tag one", ask(agent, "check sm.after"));
}

// What a child made by fork() without exec does: finds and calls the
// service that its parent found, and registers one of its own. 0 on success.
int useServiceManagerAfterFork() {
    sp<IServiceManager> manager = defaultServiceManager();
    if (describe(manager->checkService(String16("sm.base"))) != "tag base") return 2;
    android::ProcessState::self()->startThreadPool();
    if (manager->addService(String16("sm.forked"), new TaggedService("forked")) != NO_ERROR) {
        return 3;
    }
    return 0;
}

// Uses the service manager, then forks (with no pool thread running, so that
// the child may start threads under every sanitizer). The child reports its
// outcome by its exit status, and lives until the parent has looked for its
// registration. Tells the test "<exit status> <what the parent found>".
TVTEST_CHILD_ROLE(sm_forker) {
    (void)args;
    if (describe(defaultServiceManager()->checkService(String16("sm.base"))) != "tag base") {
        tvtest::ParentChannel::send("the parent did not find sm.base");
        return 1;
    }
    int registered[2];
    int release[2];
    if (pipe2(registered, O_CLOEXEC) != 0 || pipe2(release, O_CLOEXEC) != 0) return 1;
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        close(registered[0]);
        close(release[1]);
        const char result = static_cast<char>(useServiceManagerAfterFork());
        tvproc::writeFully(registered[1], &result, 1);
        char ignored;
        tvproc::readFullyWithin(release[0], &ignored, 1, 30s);  // ends when the parent closes it
        _exit(result);
    }
    close(registered[1]);
    close(release[0]);
    char result = -1;
    std::string found = "nothing";
    if (child > 0 && tvproc::readFullyWithin(registered[0], &result, 1, 20s) && result == 0) {
        tvtest::waitUntil(
            [&] {
                found = describe(defaultServiceManager()->checkService(String16("sm.forked")));
                return found == "tag forked";
            },
            10s);
    }
    close(release[1]);
    close(registered[0]);
    int status = child > 0 ? tvproc::waitForExit(child, 20s) : -1;
    if (status == -1 && child > 0) tvproc::killAndReap(child);
    const int exitCode = status != -1 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    tvtest::ParentChannel::send(std::to_string(exitCode) + " " + found);
    return 0;
}

TEST_F(ServiceManagerTest, AForkedChildUsesItWithoutExec) {
    tvtest::ChildProcess owner("sm_agent");
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.base base"));
    tvtest::ChildProcess forker("sm_forker");
    EXPECT_EQ("0 tag forked", forker.readLine(60s));
}

std::vector<pid_t> childrenOf(pid_t parent) {
    std::vector<pid_t> children;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) return children;
    while (const dirent* entry = readdir(proc)) {
        const pid_t pid = static_cast<pid_t>(atoi(entry->d_name));
        FILE* stat =
            pid > 0 ? fopen(("/proc/" + std::to_string(pid) + "/stat").c_str(), "re") : nullptr;
        if (stat == nullptr) continue;
        pid_t ppid = 0;
        if (fscanf(stat, "%*d (%*[^)]) %*c %d", &ppid) == 1 && ppid == parent) {
            children.push_back(pid);
        }
        fclose(stat);
    }
    closedir(proc);
    return children;
}

// Daemons that defaultServiceManager() started detach from the process that
// started them. The test process becomes a subreaper, so that they (the one
// that serves and any that lost the race to serve) are reparented to it; on
// destruction every such adopted process is killed and reaped, whatever the
// test's outcome. Declared before the test's own children, so destroyed
// after them: by then the only children left are adopted daemons.
class AdoptedDaemons {
  public:
    AdoptedDaemons() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~AdoptedDaemons() {
        // A daemon still being started is adopted only once its launcher is
        // gone: kill and reap until no child is left.
        tvtest::waitUntil([] { return killAndReapChildren(); }, 10s);
        prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

  private:
    // True once this process has no child left.
    static bool killAndReapChildren() {
        for (pid_t child : childrenOf(getpid())) kill(child, SIGKILL);
        pid_t reaped;
        do {
            reaped = waitpid(-1, nullptr, WNOHANG);
        } while (reaped > 0);
        return reaped < 0 && errno == ECHILD;
    }
};

bool syslogAcceptsDatagrams() {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    const bool accepted = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    return accepted;
}

bool fileContains(const std::string& path, const std::string& text) {
    std::ifstream file(path);
    std::stringstream contents;
    contents << file.rdbuf();
    return contents.str().find(text) != std::string::npos;
}

pid_t managerPidIn(const std::string& registrations) {
    const size_t entry = registrations.find("manager:");
    if (entry == std::string::npos) return -1;
    return static_cast<pid_t>(atoi(registrations.c_str() + entry + strlen("manager:")));
}

TEST(ServiceManagerAutostartTest, StartsOneDaemonForRacingNewcomers) {
    const std::string context = tvtest::uniqueName("smauto");
    const ScopedVariable contextVariable(kContextVariable, context.c_str());
    const ScopedVariable daemonVariable(kDaemonVariable, nullptr);  // found beside the library
    ASSERT_EQ(1, runListTool(context)) << "--list must not start a daemon";

    AdoptedDaemons daemons;
    tvtest::ChildProcess first("sm_agent");
    tvtest::ChildProcess second("sm_agent");
    first.writeLine("add sm.first one");
    second.writeLine("add sm.second two");
    EXPECT_EQ(statusLine(NO_ERROR), first.readLine(30s));
    EXPECT_EQ(statusLine(NO_ERROR), second.readLine(30s));

    const std::string seenByFirst = ask(first, "registrations");
    const pid_t manager = managerPidIn(seenByFirst);
    ASSERT_GT(manager, 0) << seenByFirst;
    EXPECT_EQ(manager, managerPidIn(ask(second, "registrations")));
    EXPECT_EQ("servicemanager", processNameOf(manager));
    EXPECT_EQ("tag two", ask(first, "check sm.second"));
    EXPECT_EQ("tag one", ask(second, "check sm.first"));

    // The detached daemon keeps its log: syslog when it takes datagrams, else a file.
    const std::string log = SocketDirectory::path() + "/servicemanager-" + context + ".log";
    if (syslogAcceptsDatagrams()) {
        EXPECT_NE(0, access(log.c_str(), F_OK));
    } else {
        EXPECT_TRUE(tvtest::waitUntil(
            [&] { return fileContains(log, "serving context " + context); }, 10s));
    }
    unlink(log.c_str());
}

TEST(ServiceManagerUsageTest, HelpGoesToStdoutWithSuccess) {
    std::string usage;
    FILE* pipe = popen((daemonPath() + " --help 2>/dev/null").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe) != nullptr) usage.append(buffer);
    const int status = pclose(pipe);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(std::string::npos, usage.find("usage: tavrin-servicemanager")) << usage;
}

// TAVRIN_LOG, read when the binder library is loaded: the child's least priority.
TVTEST_CHILD_ROLE(log_level) {
    (void)args;
    tvtest::ParentChannel::send(std::to_string(__android_log_get_minimum_priority()));
    return 0;
}

TEST(LogLevelTest, TavrinLogSetsTheLeastPriorityAtLoad) {
    const auto levelWith = [](const char* value) {
        const ScopedVariable level("TAVRIN_LOG", value);
        tvtest::ChildProcess child("log_level");
        return child.readLine();
    };
    EXPECT_EQ(std::to_string(ANDROID_LOG_VERBOSE), levelWith("verbose"));
    EXPECT_EQ(std::to_string(ANDROID_LOG_ERROR), levelWith("ERROR"));
    EXPECT_EQ(levelWith(nullptr), levelWith("loud"));
}

// The lines of `--list` other than the service manager's own.
std::string registrationsListed(const std::string& context) {
    std::string listing;
    if (runListTool(context, &listing) != 0) return "no service manager";
    std::istringstream lines(listing);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("manager ", 0) != 0) kept += line + "\n";
    }
    return kept;
}

// Daemons serving or starting; those that exited wait to be reaped.
size_t adoptedDaemons() {
    size_t count = 0;
    for (pid_t child : childrenOf(getpid())) {
        std::ifstream stat("/proc/" + std::to_string(child) + "/stat");
        std::string pid, name, state;
        stat >> pid >> name >> state;
        count += name == "(servicemanager)" && state != "Z";
    }
    return count;
}

TEST_F(ServiceManagerTest, RegistrationsOutliveTheirDaemon) {
    // The successor is started on demand, as outside tests.
    const ScopedVariable daemonVariable(kDaemonVariable, nullptr);
    AdoptedDaemons successors;
    tvtest::ChildProcess owner("sm_agent");
    tvtest::ChildProcess poolless("sm_agent");
    tvtest::ChildProcess waiter("sm_agent");
    tvtest::ChildProcess rival("sm_agent");
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.kept one"));
    ASSERT_EQ(statusLine(NO_ERROR), ask(poolless, "add-without-pool sm.poolless two"));
    const std::string before = registrationsListed(mContext);
    ASSERT_EQ("ok", ask(waiter, "timeout 60000"));
    waiter.writeLine("get sm.late");
    std::this_thread::sleep_for(300ms);

    mDaemon->kill();
    // The owner registers its name again unasked, and owns it still...
    EXPECT_TRUE(tvtest::waitUntil([&] { return ask(rival, "check sm.kept") == "tag one"; }, 20s));
    EXPECT_EQ(statusLine(android::ALREADY_EXISTS), ask(rival, "add sm.kept three"));
    // ...and so does a process without a pool, when it next uses the service manager.
    EXPECT_EQ("tag one", ask(poolless, "check sm.kept"));
    EXPECT_EQ(before, registrationsListed(mContext));
    // A wait begun with the dead daemon is answered by its successor.
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.late four"));
    EXPECT_EQ("tag four", waiter.readLine(30s));
    // Of the daemons that the survivors started, one serves and the others left.
    EXPECT_TRUE(tvtest::waitUntil([] { return adoptedDaemons() == 1; }, 10s));
}

}  // namespace
