// The service manager daemon and its client, with real processes: each test
// runs its own daemon in a context of its own and kills it at the end.
#include <android/log.h>
#include <binder/Binder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
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
#include <vector>

#include "ChildProcess.h"
#include "ServiceManagerDaemon.h"
#include "TestSupport.h"
#include "wire/SocketDirectory.h"

using namespace android;
using android::tvbinder::SocketDirectory;
using namespace std::chrono_literals;

namespace {

using tvproc::processNameOf;

// The environment of children in `context`; with `daemon` null they start a
// daemon themselves when none serves.
std::vector<std::string> environmentFor(const std::string& context, const char* daemon) {
    return {"TAVRIN_BINDER_CONTEXT=" + context, daemon != nullptr
                                                    ? std::string("TAVRIN_SERVICEMANAGER=") + daemon
                                                    : std::string("TAVRIN_SERVICEMANAGER")};
}

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
    void SetUp() override { ASSERT_TRUE(mDaemon.serving()); }
    // A child in the test's context.
    tvtest::ChildProcess child() { return tvtest::ChildProcess("sm_agent", {}, mEnvironment); }

    const std::string mContext = tvtest::uniqueName("smtest");
    ServiceManagerDaemon mDaemon{mContext};
    // Children must use this test's daemon, never start one of their own.
    std::vector<std::string> mEnvironment =
        environmentFor(mContext, "/nonexistent/tavrin-servicemanager");
};

TEST_F(ServiceManagerTest,
       RefusesMalformedRequestsKeepsANameForItsRegistrantWhileItLivesAndServesAFork) {
    // Requests that no well-behaved client sends (see sendHostileRequests):
    // each answer that was not the expected one is a line; the daemon serves on.
    tvtest::ChildProcess hostile = child();
    hostile.writeLine("hostile");
    std::string line;
    while (!(line = hostile.readLine(60s)).empty() && line != "done") ADD_FAILURE() << line;
    EXPECT_EQ("done", line);

    tvtest::ChildProcess owner = child();
    tvtest::ChildProcess client = child();
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.alpha one"));

    EXPECT_EQ("tag one", ask(client, "check sm.alpha"));
    EXPECT_EQ("tag one", ask(client, "get sm.alpha"));
    EXPECT_EQ("null", ask(client, "check sm.absent"));

    const std::string registrations = ask(client, "registrations");
    const std::string ownerEntry =
        "sm.alpha:" + std::to_string(owner.pid()) + ":" + processNameOf(owner.pid());
    EXPECT_NE(std::string::npos, registrations.find(ownerEntry)) << registrations;
    const std::string managerEntry = "manager:" + std::to_string(mDaemon.pid()) + ":servicemanager";
    EXPECT_NE(std::string::npos, registrations.find(managerEntry)) << registrations;

    std::string listing;
    ASSERT_EQ(0, ServiceManagerDaemon::list(mContext, &listing));
    EXPECT_NE(std::string::npos, listing.find("sm.alpha")) << listing;
    EXPECT_NE(std::string::npos, listing.find(std::to_string(owner.pid()))) << listing;

    // A name belongs to its registrant and ends with it or with its object.
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.held one"));
    EXPECT_EQ(statusLine(android::ALREADY_EXISTS), ask(client, "add sm.held two"));
    EXPECT_EQ(statusLine(android::ALREADY_EXISTS), ask(client, "add manager two"));
    // The holder itself may replace its registration.
    EXPECT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.held three"));
    ASSERT_EQ("tag three", ask(client, "check sm.held"));
    // Another process registers the owner's object under names of its
    // own, up to its own limit, which leaves the owner's untouched...
    tvtest::ChildProcess relay = child();
    EXPECT_EQ("512 " + statusLine(android::NO_MEMORY), ask(relay, "fill sm.relay. sm.held"));
    EXPECT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.more five"));
    EXPECT_EQ("tag three", ask(client, "check sm.relay.511"));
    relay.kill(SIGKILL);
    ASSERT_NE(-1, relay.wait());
    // ...and holds them no longer than it lives, though the object does.
    EXPECT_TRUE(tvtest::waitUntil(
        [&] {
            return ask(client, "check sm.relay.0") == "null" &&
                   ask(client, "check sm.relay.511") == "null";
        },
        10s));
    EXPECT_EQ("tag three", ask(client, "check sm.held"));
    // A child forked without exec uses it too.
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.base base"));
    tvtest::ChildProcess forker = child();
    EXPECT_EQ("0 tag forked", ask(forker, "fork", 60s));
    owner.kill(SIGKILL);
    ASSERT_NE(-1, owner.wait());
    EXPECT_TRUE(tvtest::waitUntil([&] { return ask(client, "check sm.held") == "null"; }, 10s));
    EXPECT_EQ(statusLine(NO_ERROR), ask(client, "add sm.held four"));
    EXPECT_EQ("tag four", ask(client, "check sm.held"));
}

// Has `agent` wait for `name` far beyond the test's own patience; returns
// once the daemon `daemon` holds the socket by which it will wake the agent.
void beginWaiting(tvtest::ChildProcess& agent, const std::string& name, pid_t daemon) {
    ASSERT_EQ("ok", ask(agent, "timeout 60000"));
    ASSERT_EQ("null", ask(agent, "check " + name));  // connects the agent to the daemon
    const size_t descriptors = tvproc::countOpenFds(daemon);
    agent.writeLine("get " + name);
    ASSERT_TRUE(tvtest::waitUntil([&] { return tvproc::countOpenFds(daemon) > descriptors; }));
}

TEST_F(ServiceManagerTest, GetServiceIsWokenByALaterRegistrationOrGivesUpWithoutAPool) {
    constexpr int kWaiters = 3;
    std::vector<std::unique_ptr<tvtest::ChildProcess>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(std::make_unique<tvtest::ChildProcess>(
            "sm_agent", std::vector<std::string>{}, mEnvironment));
        beginWaiting(*waiters.back(), "sm.late", mDaemon.pid());
    }
    // Both ways of shortening the wait; the default of 5 s would outlast
    // the 4 s that the test waits for an answer.
    tvtest::ChildProcess byCall = child();
    ASSERT_EQ("ok", ask(byCall, "timeout 100"));
    mEnvironment.push_back("TAVRIN_GETSERVICE_TIMEOUT_MS=100");
    tvtest::ChildProcess byEnvironment = child();
    EXPECT_EQ("null", ask(byCall, "get sm.never", 4s));
    EXPECT_EQ("null", ask(byEnvironment, "get sm.never", 4s));
    EXPECT_EQ("0", ask(byCall, "threads"));

    ASSERT_EQ(statusLine(NO_ERROR), ask(byEnvironment, "add sm.late one"));
    for (auto& waiter : waiters) {
        EXPECT_EQ("tag one", waiter->readLine(30s));
        // Waiting took no thread pool.
        EXPECT_EQ("0", ask(*waiter, "threads"));
    }
    // Having given up leaves nothing behind that gets in the way of the name.
    ASSERT_EQ(statusLine(NO_ERROR), ask(byEnvironment, "add sm.never two"));
    EXPECT_EQ("tag two", ask(byCall, "get sm.never"));
}

// One item of a request.
using Item = std::function<void(Parcel&)>;
Item token(const String16& descriptor = IServiceManager::descriptor) {
    return [=](Parcel& p) { p.writeInterfaceToken(descriptor); };
}
Item name(const std::string& text) {
    return [=](Parcel& p) { p.writeString16(String16(text.c_str())); };
}
Item number(int32_t value) {
    return [=](Parcel& p) { p.writeInt32(value); };
}
Item object(const sp<IBinder>& binder) {
    return [=](Parcel& p) { p.writeStrongBinder(binder); };
}
Item descriptor(int fd) {
    return [=](Parcel& p) { p.writeDupFileDescriptor(fd); };
}

// One request to the context object; the status that the transport
// returned, else the one the service manager answered.
status_t sendRequest(uint32_t code, const std::vector<Item>& items, uint32_t flags = 0) {
    sp<IBinder> manager = ProcessState::self()->getContextObject(nullptr);
    if (manager == nullptr) return NO_INIT;
    Parcel request, reply;
    for (const Item& item : items) item(request);
    const status_t sent = manager->transact(code, request, &reply, flags);
    if (sent != NO_ERROR || (flags & IBinder::FLAG_ONEWAY) != 0) return sent;
    return reply.readInt32();
}

// Reports a case whose answer was not the expected one: "<case> <status>".
void expectStatus(const std::string& what, status_t expected, status_t status) {
    if (status != expected) tvtest::ParentChannel::send(what + " " + std::to_string(status));
}

void sendMalformedRequests() {
    const uint32_t check = IServiceManager::CHECK_SERVICE_TRANSACTION;
    const uint32_t add = IServiceManager::ADD_SERVICE_TRANSACTION;
    const std::string longest(IServiceManager::kMaxNameLength, 'n');
    const sp<IBinder> service = new TaggedService("hostile");
    const sp<IBinder> manager = ProcessState::self()->getContextObject(nullptr);
    const uint32_t waitFor = IServiceManager::WAIT_FOR_SERVICE_TRANSACTION;
    const Item x = name("sm.x");
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return;
    const struct {
        const char* what;
        uint32_t code;
        status_t expected;
        std::vector<Item> items;
        uint32_t flags = 0;
    } requests[] = {
        {"longest-name", check, NAME_NOT_FOUND, {token(), name(longest)}},
        {"too-long-name", check, BAD_VALUE, {token(), name(longest + "n")}},
        {"empty-name", check, BAD_VALUE, {token(), name("")}},
        {"control-character", check, BAD_VALUE, {token(), name("bad\nname")}},
        {"non-ascii", check, BAD_VALUE, {token(), name("caf\u00e9")}},
        {"null-string", check, BAD_VALUE, {token(), number(-1)}},
        {"no-token", check, BAD_VALUE, {x}},
        {"wrong-token", check, BAD_VALUE, {token(String16("evil.IThing")), x}},
        {"trailing-bytes", check, BAD_VALUE, {token(), x, number(0)}},
        {"null-binder", add, BAD_VALUE, {token(), x, object(nullptr), number(0)}},
        {"descriptor-for-binder",
         add,
         BAD_VALUE,
         {token(), x, descriptor(STDIN_FILENO), number(0)}},
        {"missing-flag", add, BAD_VALUE, {token(), x, object(service)}},
        {"bad-flag", add, BAD_VALUE, {token(), x, object(service), number(7)}},
        {"manager-itself", add, BAD_VALUE, {token(), x, object(manager), number(0)}},
        {"pipe-for-socket", waitFor, BAD_VALUE, {token(), x, descriptor(pipeEnds[1])}},
        {"unknown-code", 0x00abcdef, UNKNOWN_TRANSACTION, {token(), x}},
        {"one-way-add",
         add,
         NO_ERROR,
         {token(), name("sm.oneway"), object(service), number(0)},
         IBinder::FLAG_ONEWAY},
        {"one-way-add-ignored", check, NAME_NOT_FOUND, {token(), name("sm.oneway")}},
    };
    for (const auto& request : requests) {
        expectStatus(request.what, request.expected,
                     sendRequest(request.code, request.items, request.flags));
    }
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

// Asks to be woken when `name` appears; in *socket the end that hangs up
// when the service manager drops the waiter.
status_t sendWaiterRequest(const std::string& waited, int* socket) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
    *socket = ends[0];
    const status_t status = sendRequest(IServiceManager::WAIT_FOR_SERVICE_TRANSACTION,
                                        {token(), name(waited), descriptor(ends[1])});
    close(ends[1]);
    return status;
}

status_t sendCancelRequest(const std::string& waited) {
    return sendRequest(IServiceManager::CANCEL_WAIT_TRANSACTION, {token(), name(waited)});
}

// Fills this process's waiter slots, overflows them and frees one.
void exhaustWaiters() {
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
}

// Sends the service manager requests that no well-behaved client sends and
// reports every answer that was not the expected one, then "done".
std::string sendHostileRequests() {
    android::ProcessState::self()->startThreadPool();
    sendMalformedRequests();
    exhaustWaiters();
    return "done";
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
// the child may start threads under every sanitizer). The child lives until
// the parent has looked for its registration. "<the child's exit code> <what
// the parent found>".
std::string forkAndUse() {
    if (describe(defaultServiceManager()->checkService(String16("sm.base"))) != "tag base") {
        return "the parent did not find sm.base";
    }
    tvtest::ChildProcess child([](tvtest::Channel& parent) {
        const int result = useServiceManagerAfterFork();
        parent.sendValue(result);
        parent.receive(30s);  // ends when the parent closes the channel
        return result;
    });
    std::string found = "nothing";
    if (child.channel().receiveValue(20s) == 0) {
        tvtest::waitUntil(
            [&] {
                found = describe(defaultServiceManager()->checkService(String16("sm.forked")));
                return found == "tag forked";
            },
            10s);
    }
    return std::to_string(child.finish()) + " " + found;
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
    if (verb == "registrations") {
        std::string text;
        for (const IServiceManager::Registration& entry : manager->listRegistrations()) {
            text += String8(entry.name).string() + std::string(":") + std::to_string(entry.pid) +
                    ":" + entry.processName.string() + " ";
        }
        return text;
    }
    if (verb == "threads") return std::to_string(tvtest::countPoolThreads(getpid()));
    if (verb == "hostile") return sendHostileRequests();
    if (verb == "fork") return forkAndUse();
    return "unknown command";
}

// A process that uses the service manager as the test tells it, one line per
// command: "add NAME TAG", "add-without-pool NAME TAG", "fill PREFIX NAME",
// "check NAME", "get NAME", "timeout MS", "registrations", "threads" (its
// pool threads), "hostile" and "fork" (below).
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

// The children of `parent`; with `servingDaemons`, only daemons serving or
// starting (those that exited wait to be reaped).
std::vector<pid_t> childrenOf(pid_t parent, bool servingDaemons = false) {
    std::vector<pid_t> children;
    tvproc::countEntries("/proc", [&](int, const char* entry) {
        std::ifstream stat(std::string("/proc/") + entry + "/stat");
        pid_t pid = 0, ppid = 0;
        std::string name, state;
        if (stat >> pid >> name >> state >> ppid && ppid == parent &&
            (!servingDaemons || (name == "(servicemanager)" && state != "Z"))) {
            children.push_back(pid);
        }
        return false;
    });
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

TEST(ServiceManagerDaemonTest, HelpListAutostartByRacingNewcomersAndTheLogLevelAtLoad) {
    tvtest::ChildProcess help(tvtest::Program{{ServiceManagerDaemon::path(), "--help"}});
    EXPECT_NE(std::string::npos, help.channel().receiveAll().find("usage: tavrin-servicemanager"));
    EXPECT_EQ(0, help.finish());
    const std::string context = tvtest::uniqueName("smauto");
    ASSERT_EQ(1, ServiceManagerDaemon::list(context)) << "--list must not start a daemon";

    AdoptedDaemons daemons;
    // The daemon is found beside the library.
    tvtest::ChildProcess first("sm_agent", {}, environmentFor(context, nullptr));
    tvtest::ChildProcess second("sm_agent", {}, environmentFor(context, nullptr));
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

    // TAVRIN_LOG, read when the binder library is loaded, sets the least priority.
    const auto levelWith = [](const std::string& variable) {
        return tvtest::ChildProcess("log_level", {}, {variable}).readLine();
    };
    EXPECT_EQ(std::to_string(ANDROID_LOG_VERBOSE), levelWith("TAVRIN_LOG=verbose"));
    EXPECT_EQ(std::to_string(ANDROID_LOG_ERROR), levelWith("TAVRIN_LOG=ERROR"));
    EXPECT_EQ(levelWith("TAVRIN_LOG"), levelWith("TAVRIN_LOG=loud"));
}

// TAVRIN_LOG, read when the binder library is loaded: the child's least priority.
TVTEST_CHILD_ROLE(log_level) {
    (void)args;
    tvtest::ParentChannel::send(std::to_string(__android_log_get_minimum_priority()));
    return 0;
}

// The lines of `--list` other than the service manager's own.
std::string registrationsListed(const std::string& context) {
    std::string listing;
    if (ServiceManagerDaemon::list(context, &listing) != 0) return "no service manager";
    std::istringstream lines(listing);
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("manager ", 0) != 0) kept += line + "\n";
    }
    return kept;
}

TEST_F(ServiceManagerTest, RegistrationsOutliveTheirDaemon) {
    // The successor is started on demand, as outside tests.
    mEnvironment = environmentFor(mContext, nullptr);
    AdoptedDaemons successors;
    tvtest::ChildProcess owner = child();
    tvtest::ChildProcess poolless = child();
    tvtest::ChildProcess waiter = child();
    tvtest::ChildProcess rival = child();
    ASSERT_EQ(statusLine(NO_ERROR), ask(owner, "add sm.kept one"));
    ASSERT_EQ(statusLine(NO_ERROR), ask(poolless, "add-without-pool sm.poolless two"));
    const std::string before = registrationsListed(mContext);
    beginWaiting(waiter, "sm.late", mDaemon.pid());

    mDaemon.kill();
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
    EXPECT_TRUE(tvtest::waitUntil([] { return childrenOf(getpid(), true).size() == 1; }, 10s));
}

}  // namespace
