#include "CouplerTestSupport.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "Announcer.h"
#include "ContextView.h"
#include "Discoverer.h"
#include "IService.h"
#include "ISubService.h"
#include "coupler/binder/BinderCoupler.h"

using tavrin::ClientInfo;
using tavrin::IPCClass;
using tavrin::tv_sp;

namespace coupler_test {
namespace {

using tvtest::ParentChannel;

tv_sp<IPCClass> reply(const std::string& text) {
    return tv_sp<IPCClass>(new Msg(text));
}

std::string textOfValue(IPCClass* value) {
    return value != nullptr ? static_cast<Msg*>(value)->text() : "null";
}

// "<pid> <tag> <objID>"
std::string describe(const ClientInfo& client) {
    return std::to_string(client.pid) + " " + std::to_string(client.tag) + " " +
           std::to_string(client.objID);
}

// Tells the test `line`, then waits for its next line.
void pause(const std::string& line) {
    ParentChannel::send(line);
    ParentChannel::receive(20s);
}

// Hands the library's warnings and errors to the test, one line each. With
// TVTEST_STALL_ON set, the first thread to log a line that contains it says
// "stalled" and waits there until the test sends a line.
void forwardLibraryWarnings() {
    if (getenv("TVTEST_STALL_ON") != nullptr)
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    __android_log_set_logger([](const __android_logger_data* data, const char* message) {
        static const char* const stallOn = getenv("TVTEST_STALL_ON");
        static std::atomic<bool> stalled{false};
        if (data->priority >= ANDROID_LOG_WARN) ParentChannel::send(std::string("log ") + message);
        if (stallOn != nullptr && strstr(message, stallOn) != nullptr && !stalled.exchange(true)) {
            pause("stalled");
        }
    });
}

// Sub-services named so hold the master's callbacks, to let the test act
// while they run.
bool named(const std::string& name, const char* prefix) {
    return name.rfind(prefix, 0) == 0;
}

// "notify": a one-way note and a question to the caller, from inside its call.
std::string notifyCaller(tavrin::INotifier* notifier, ClientInfo& client) {
    Msg note("note");
    notifier->sendNotify(note, client);
    Msg question("ask");
    return "answer " + textOf(notifier->sendNotifyEx(question, client));
}

class TestService : public tavrin::IService {
  public:
    ~TestService() override { ParentChannel::send("released"); }
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) override {
        std::istringstream words(textOfValue(action));
        std::string verb, rest;
        words >> verb;
        std::getline(words >> std::ws, rest);
        if (verb == "whoami") return reply(describe(client));
        if (verb == "notify") return reply(notifyCaller(mNotifier, client));
        if (verb == "notifyex") {
            ClientInfo other = client;
            std::istringstream(rest) >> other.tag >> other.objID;
            Msg question("ask");
            return reply("answer " + textOf(mNotifier->sendNotifyEx(question, other)));
        }
        if (verb == "stranger") return tv_sp<IPCClass>(new Stranger());
        if (verb == "nothing") return tv_sp<IPCClass>(nullptr);
        if (verb == "sub") return reply(callSubService(rest));
        return reply("echo " + rest);
    }
    void setNotifier(tavrin::INotifier* notifier) override { mNotifier = notifier; }
    void onClientDied(int pid) override { ParentChannel::send("died " + std::to_string(pid)); }
    bool acceptSubService(std::string& name) override { return name.rfind("deny", 0) != 0; }
    // "removed NAME RESULT": the handle still answers, with nothing.
    void onSubServiceRemoved(std::string& name) override {
        if (named(name, "holdbye")) pause("removing " + name);
        std::string result = callSubService(name + " bye");
        {
            std::lock_guard<std::mutex> hold(mLock);
            mSubServices.erase(name);
        }
        ParentChannel::send("removed " + name + " " + result);
    }
    void onSubServiceRegistered(std::string& name, tavrin::ISubServiceClient* client) override {
        if (named(name, "holdreg")) pause("registering " + name);
        {
            std::lock_guard<std::mutex> hold(mLock);
            mSubServices[name] = client;
        }
        ParentChannel::send("registered " + name);
    }
    tavrin::Protocol* getSubServiceProtocol(std::string& name) override {
        return name.rfind("noproto", 0) == 0 ? nullptr : &mProtocol;
    }
    tv_sp<IPCClass> getSubServiceConfig(std::string& name) override {
        if (named(name, "holdconf")) pause("configuring " + name);
        return named(name, "noconf") ? tv_sp<IPCClass>(nullptr) : reply("config for " + name);
    }
    tv_sp<IPCClass> onSubServiceAction(IPCClass* action, std::string& name) override {
        return reply("master got " + textOfValue(action) + " from " + name);
    }

  private:
    // "sub NAME TEXT": the master's own call to a registered sub-service.
    std::string callSubService(const std::string& request) {
        std::istringstream words(request);
        std::string name, text;
        words >> name;
        std::getline(words >> std::ws, text);
        std::lock_guard<std::mutex> hold(mLock);  // the client lives until onSubServiceRemoved
        auto entry = mSubServices.find(name);
        if (entry == mSubServices.end()) return "unregistered";
        Msg action(text);
        return textOf(entry->second->ipcCall(action));
    }

    tavrin::INotifier* mNotifier = nullptr;
    tavrin::Protocol mProtocol = msgProtocol();
    std::mutex mLock;
    std::map<std::string, tavrin::ISubServiceClient*> mSubServices;
};

int publishSubService(const std::string& name, const std::string& master, const std::string& again);

class TestSubService : public tavrin::ISubService {
  public:
    TestSubService(std::string master, std::string again)
        : mMasterName(std::move(master)), mAgain(std::move(again)) {}

    // Publishes `again` from here when asked to.
    void onConfig(IPCClass* config) override {
        ParentChannel::send("config " + textOfValue(config));
        if (!mAgain.empty()) publishSubService(mAgain, mMasterName, "");
    }
    tv_sp<IPCClass> onMasterAction(IPCClass* action) override {
        return reply("sub got " + textOfValue(action));
    }
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) override {
        const std::string text = textOfValue(action);
        if (text == "whoami") return reply("sub " + describe(client));
        if (text == "notify") return reply(notifyCaller(mNotifier, client));
        if (text.rfind("master ", 0) == 0) {
            Msg toMaster(text.substr(7));
            return reply(textOf(mMaster->ipcCall(toMaster)));
        }
        return reply("sub echo " + text);
    }
    void setMasterServiceProxy(tavrin::IMasterServiceProxy* master) override { mMaster = master; }
    void setNotifier(tavrin::INotifier* notifier) override { mNotifier = notifier; }

  private:
    const std::string mMasterName;
    const std::string mAgain;
    tavrin::IMasterServiceProxy* mMaster = nullptr;
    tavrin::INotifier* mNotifier = nullptr;
};

// Says "`what` RC" while it still holds the service, so that a "released"
// line can only follow.
void publish(const std::string& name, const std::string& what) {
    tavrin::ServiceInfo info(name, "Binder");
    tavrin::Protocol protocol = msgProtocol();
    tv_sp<tavrin::IService> service(new TestService());
    const int result = tavrin_binder::createAnnouncer()->publish(info, protocol, service);
    ParentChannel::send(what + " " + std::to_string(result));
}

// Publishes more services once the first has taken the main thread.
void publishMore(std::vector<std::string> names) {
    if (!tvproc::waitUntil([] { return processNameOf(getpid()) == "AnnBdSrv"; }, 20s)) return;
    for (const std::string& name : names) publish(name, "second");
}

// "service NAME [MORE_NAMES...]": serves until killed.
TVTEST_CHILD_ROLE(service) {
    forwardLibraryWarnings();
    if (args.size() > 1) {
        std::thread(publishMore, std::vector<std::string>(args.begin() + 1, args.end())).detach();
    }
    publish(args.at(0), "published");
    // A refused publish starts no threads: without them the service
    // manager's release of the carrier would never be read.
    android::ProcessState::self()->startThreadPool();
    ParentChannel::receive(600s);
    return 0;
}

int publishSubService(const std::string& name, const std::string& master,
                      const std::string& again) {
    tavrin::SubServiceInfo info(name, master, "Binder");
    tavrin::Protocol clientProtocol = msgProtocol();
    tavrin::Protocol masterProtocol = msgProtocol();
    tv_sp<tavrin::ISubService> subService(new TestSubService(master, again));
    const int result =
        tavrin_binder::createAnnouncer()->publish(info, clientProtocol, masterProtocol, subService);
    ParentChannel::send("published " + std::to_string(result));
    return result;
}

// "subservice NAME MASTER [SECOND_NAME]": the second publish is made from
// inside the first one's configuration.
TVTEST_CHILD_ROLE(subservice) {
    forwardLibraryWarnings();
    if (publishSubService(args.at(0), args.at(1), args.size() > 2 ? args[2] : "") != 0) return 0;
    ParentChannel::receive(600s);
    return 0;
}

// "client SERVICE [SUB_SERVICE TIMEOUT_MS]"
TVTEST_CHILD_ROLE(client) {
    tv_sp<tavrin::IClient> client = args.size() > 2
                                        ? bindSubService(args[1], args[0], std::stoi(args[2]), 1)
                                        : bindService(args.at(0), 1);
    ParentChannel::send(client ? "bound" : "unbound");
    ParentChannel::receive(600s);
    return 0;
}

}  // namespace

tavrin::Protocol msgProtocol() {
    tavrin::Protocol protocol;
    protocol.add<Msg>("Msg");
    return protocol;
}

tv_sp<tavrin::IClient> bindService(const std::string& name, int tag) {
    tavrin::ServiceInfo info(name, "Binder");
    tavrin::Protocol protocol = msgProtocol();
    return tavrin::Discoverer::self().bindTo(info, protocol, tag);
}

tv_sp<tavrin::IClient> bindSubService(const std::string& name, const std::string& master,
                                      int timeoutMs, int tag) {
    tavrin::SubServiceInfo info(name, master, "Binder");
    tavrin::Protocol protocol = msgProtocol();
    return tavrin::Discoverer::self().bindTo(info, protocol, timeoutMs, tag);
}

std::string textOf(const tv_sp<IPCClass>& value) {
    return textOfValue(value.get());
}

std::string call(tv_sp<tavrin::IClient>& client, const std::string& text) {
    Msg action(text);
    return textOf(client->ipcCall(action));
}

std::string clientInfoText(int tag, int objID) {
    return describe(ClientInfo{getpid(), tag, objID});
}

std::vector<std::string> linesUntil(tvtest::ChildProcess& child, const std::string& last) {
    std::vector<std::string> lines;
    for (std::string line = child.readLine(); line != last; line = child.readLine()) {
        if (line.empty()) {
            lines.push_back("no " + last);
            break;
        }
        lines.push_back(line);
    }
    return lines;
}

int waitingIn(const std::string& name) {
    tavrin_cli::JsonValue status;
    const bool answered = tavrin_cli::ContextView::carrierStatus(
        android::defaultServiceManager()->checkService(android::String16(name.c_str())), &status);
    return answered ? static_cast<int>(status["waiting"].number()) : -1;
}

// A process closes its descriptors of a peer (its pidfd at least) once it
// has seen the peer die.
void killSeenBy(tvtest::ChildProcess& child, pid_t watcher) {
    const size_t descriptors = tvproc::countOpenFds(watcher);
    child.kill(SIGKILL);
    child.wait();
    EXPECT_TRUE(tvproc::waitUntil([&] { return tvproc::countOpenFds(watcher) < descriptors; }, 20s))
        << "pid " << watcher << " did not see the death of pid " << child.pid();
}

bool awaitLine(tvtest::ChildProcess& child, const std::string& expected,
               std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (std::string line = "-"; !line.empty();) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        line = left.count() > 0 ? child.readLine(left) : "";
        if (line == expected) return true;
    }
    return false;
}

}  // namespace coupler_test
