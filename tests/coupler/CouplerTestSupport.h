#pragma once

#include <sys/types.h>

#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "IClient.h"
#include "IClientNotifier.h"
#include "IPCString.h"
#include "ProcSupport.h"
#include "Protocol.h"

// What the coupler tests and their child processes share: one value class,
// the services the children run, and ways to follow what the children do.
namespace coupler_test {

using namespace std::chrono_literals;
using tvproc::processNameOf;

// The one value the tests exchange: a text, class name "Msg".
class Msg : public tavrin::IPCClass {
  public:
    explicit Msg(std::string text = "") : mText(std::move(text)) {}
    std::string getClassName() override { return "Msg"; }
    void serialization(tavrin::Serialization& out) override { mText.serialization(out); }
    void deserialization(tavrin::Deserialization& in) override { mText.deserialization(in); }
    const std::string& text() const { return mText.get(); }

  private:
    tavrin::IPCString mText;
};

// A value whose class no test Protocol knows.
class Stranger : public Msg {
  public:
    std::string getClassName() override { return "Stranger"; }
};

tavrin::Protocol msgProtocol();

// A client's notifier: keeps what reaches it ("note TEXT", "question TEXT")
// and answers questions with "from NAME". Binder threads and the test.
class RecordingNotifier : public tavrin::IClientNotifier {
  public:
    explicit RecordingNotifier(std::string name) : mName(std::move(name)) {}
    void onNotify(tavrin::IPCClass& value) override {
        std::lock_guard<std::mutex> hold(mLock);
        mReceived.insert("note " + static_cast<Msg&>(value).text());
    }
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::IPCClass& value) override {
        std::lock_guard<std::mutex> hold(mLock);
        mReceived.insert("question " + static_cast<Msg&>(value).text());
        mAnsweringThread = std::this_thread::get_id();
        return tavrin::tv_sp<tavrin::IPCClass>(new Msg("from " + mName));
    }
    std::multiset<std::string> received() {
        std::lock_guard<std::mutex> hold(mLock);
        return mReceived;
    }
    std::thread::id answeringThread() {
        std::lock_guard<std::mutex> hold(mLock);
        return mAnsweringThread;
    }

  private:
    const std::string mName;
    std::mutex mLock;
    std::multiset<std::string> mReceived;
    std::thread::id mAnsweringThread;
};

using tvproc::uniqueName;
tavrin::tv_sp<tavrin::IClient> bindService(const std::string& name, int tag);
tavrin::tv_sp<tavrin::IClient> bindSubService(const std::string& name, const std::string& master,
                                              int timeoutMs, int tag);

// The text of a result, "null" when it holds no value.
std::string textOf(const tavrin::tv_sp<tavrin::IPCClass>& value);
std::string call(tavrin::tv_sp<tavrin::IClient>& client, const std::string& text);
// The ClientInfo a service saw for this process's handle: "<pid> <tag> <objID>".
std::string clientInfoText(int tag, int objID);

// Reads the child's lines until one equals `expected`; false after `timeout`.
bool awaitLine(tvtest::ChildProcess& child, const std::string& expected,
               std::chrono::milliseconds timeout = 20s);
// The child's lines until `last`, which is not among them.
std::vector<std::string> linesUntil(tvtest::ChildProcess& child, const std::string& last);
// The binds that wait in the service `name` for a sub-service, as it tells.
int waitingIn(const std::string& name);
// Kills `child` and returns once the process `watcher` has seen it die.
void killSeenBy(tvtest::ChildProcess& child, pid_t watcher);

// Children (the roles "service", "subservice" and "client", whose arguments
// are told where they are defined) report on their channel: "died PID",
// "registered NAME", "removed NAME RESULT", "released", "config TEXT",
// "published RC", "second RC", "bound"/"unbound", and "log TEXT" for the
// library's warnings and errors. Sub-services named "holdconf-", "holdreg-"
// and "holdbye-" hold the master's callbacks ("configuring NAME",
// "registering NAME", "removing NAME") until the test's next line; so does
// a child at its first log line containing $TVTEST_STALL_ON ("stalled").

}  // namespace coupler_test
