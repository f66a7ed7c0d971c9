#include "CouplerTestSupport.h"

#include <android/log.h>
#include <binder/IServiceManager.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "Announcer.h"
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

// Hands the library's warnings and errors to the test, one line each.
void forwardLibraryWarnings() {
    __android_log_set_logger([](const __android_logger_data* data, const char* message) {
        if (data->priority >= ANDROID_LOG_WARN) ParentChannel::send(std::string("log ") + message);
    });
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
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) override {
        std::istringstream words(textOfValue(action));
        std::string verb, rest;
        words >> verb;
        std::getline(words >> std::ws, rest);
        if (verb == "whoami") {
            return reply(std::to_string(client.pid) + " " + std::to_string(client.tag) + " " +
                         std::to_string(client.objID));
        }
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
    void onSubServiceRemoved(std::string& name) override {
        {
            std::lock_guard<std::mutex> hold(mLock);
            mSubServices.erase(name);
        }
        ParentChannel::send("removed " + name);
    }
    void onSubServiceRegistered(std::string& name, tavrin::ISubServiceClient* client) override {
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
        return name.rfind("noconf", 0) == 0 ? tv_sp<IPCClass>(nullptr)
                                            : reply("config for " + name);
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
        if (entry == mSubServices.end()) return "no sub service";
        Msg action(text);
        return textOf(entry->second->ipcCall(action));
    }

    tavrin::INotifier* mNotifier = nullptr;
    tavrin::Protocol mProtocol = msgProtocol();
    std::mutex mLock;
    std::map<std::string, tavrin::ISubServiceClient*> mSubServices;
};

class TestSubService : public tavrin::ISubService {
  public:
    void onConfig(IPCClass* config) override {
        ParentChannel::send("config " + textOfValue(config));
    }
    tv_sp<IPCClass> onMasterAction(IPCClass* action) override {
        return reply("sub got " + textOfValue(action));
    }
    tv_sp<IPCClass> onAction(IPCClass* action, ClientInfo& client) override {
        const std::string text = textOfValue(action);
        if (text == "whoami") {
            return reply("sub " + std::to_string(client.pid) + " " + std::to_string(client.tag) +
                         " " + std::to_string(client.objID));
        }
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
    tavrin::IMasterServiceProxy* mMaster = nullptr;
    tavrin::INotifier* mNotifier = nullptr;
};

// Publishes a second service once the first has taken the main thread.
void publishSecond(const std::string& name) {
    while (processNameOf(getpid()) != "AnnBdSrv") std::this_thread::sleep_for(2ms);
    tavrin::ServiceInfo info(name, "Binder");
    tavrin::Protocol protocol = msgProtocol();
    tv_sp<tavrin::IService> service(new TestService());
    ParentChannel::send("second " + std::to_string(tavrin_binder::createAnnouncer()->publish(
                                        info, protocol, service)));
}

// Serves until killed; the answer of a failed publish is its result.
TVTEST_CHILD_ROLE(service) {
    forwardLibraryWarnings();
    if (args.size() > 1) std::thread(publishSecond, args[1]).detach();
    tavrin::ServiceInfo info(args.at(0), "Binder");
    tavrin::Protocol protocol = msgProtocol();
    tv_sp<tavrin::IService> service(new TestService());
    const int result = tavrin_binder::createAnnouncer()->publish(info, protocol, service);
    ParentChannel::send("published " + std::to_string(result));
    return 0;
}

int publishSubService(const std::string& name, const std::string& master) {
    tavrin::SubServiceInfo info(name, master, "Binder");
    tavrin::Protocol clientProtocol = msgProtocol();
    tavrin::Protocol masterProtocol = msgProtocol();
    tv_sp<tavrin::ISubService> subService(new TestSubService());
    const int result =
        tavrin_binder::createAnnouncer()->publish(info, clientProtocol, masterProtocol, subService);
    ParentChannel::send("published " + std::to_string(result));
    return result;
}

// "subservice NAME MASTER [SECOND_NAME]": the second publish is made too.
TVTEST_CHILD_ROLE(subservice) {
    forwardLibraryWarnings();
    if (publishSubService(args.at(0), args.at(1)) != 0) return 0;
    if (args.size() > 2) publishSubService(args[2], args[1]);
    ParentChannel::receive(600s);
    return 0;
}

TVTEST_CHILD_ROLE(client) {
    tavrin::ServiceInfo info(args.at(0), "Binder");
    tavrin::Protocol protocol = msgProtocol();
    tv_sp<tavrin::IClient> client = tavrin::Discoverer::self().bindTo(info, protocol, 1);
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

std::string uniqueName(const std::string& base) {
    static std::atomic<int> counter{0};
    return base + "-" + std::to_string(getpid()) + "-" + std::to_string(++counter);
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
    return std::to_string(getpid()) + " " + std::to_string(tag) + " " + std::to_string(objID);
}

bool awaitLine(tvtest::ChildProcess& child, const std::string& expected,
               std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        const std::string line = child.readLine(left);
        if (line == expected) return true;
        if (line.empty()) return false;
    }
}

std::string processNameOf(pid_t pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

tvtest::ChildProcess startService(const std::string& name, const std::vector<std::string>& more) {
    std::vector<std::string> args{name};
    args.insert(args.end(), more.begin(), more.end());
    return tvtest::ChildProcess("service", args);
}

tvtest::ChildProcess startSubService(const std::string& name, const std::string& master,
                                     const std::vector<std::string>& more) {
    std::vector<std::string> args{name, master};
    args.insert(args.end(), more.begin(), more.end());
    return tvtest::ChildProcess("subservice", args);
}

}  // namespace coupler_test
