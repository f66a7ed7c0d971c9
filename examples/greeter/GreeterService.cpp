#include "GreeterService.h"

#include <unistd.h>

#include <iterator>
#include <thread>

#include "Story.h"

using greeter::Answer;
using greeter::answerFromHere;
using greeter::Notice;
using greeter::Request;

namespace {

tavrin::tv_sp<tavrin::IPCClass> none() {
    return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
}

}  // namespace

GreeterService::GreeterService() : mTranslatorProtocol(greeter::requestProtocol()) {}

tavrin::tv_sp<tavrin::IPCClass> GreeterService::onAction(tavrin::IPCClass* action,
                                                         tavrin::ClientInfo& client) {
    auto* request = dynamic_cast<Request*>(action);
    if (request == nullptr) return none();
    if (request->what() == "greet") return greet(*request, client);
    if (request->what() == "ping-me") return ping(*request, client);
    story::say("unknown request '%s' from pid %d", request->what().c_str(), client.pid);
    return none();
}

tavrin::tv_sp<tavrin::IPCClass> GreeterService::greet(const Request& request,
                                                      const tavrin::ClientInfo& client) {
    const int count = ++mGreetings;
    if (firstGreeting(client)) {
        story::say("greeting %s (pid %d, tag %d, handle %d)", request.text().c_str(), client.pid,
                   client.tag, client.objID);
    }
    return answerFromHere("hello " + request.text() + ", greeting #" + std::to_string(count));
}

// Both notifications go to the handle that asked, while its call still waits.
tavrin::tv_sp<tavrin::IPCClass> GreeterService::ping(const Request& request,
                                                     tavrin::ClientInfo& client) {
    const std::string& name = request.text();
    Notice note("ping for " + name);
    mNotifier->sendNotify(note, client);
    Notice question("are you there, " + name + "?");
    tavrin::tv_sp<tavrin::IPCClass> reply = mNotifier->sendNotifyEx(question, client);
    auto* said = dynamic_cast<Answer*>(reply.get());
    const std::string text = said != nullptr ? said->text() : "nothing";
    story::say("pinged %s, who answered '%s'", name.c_str(), text.c_str());
    return answerFromHere("pinged you, you said: " + text);
}

bool GreeterService::firstGreeting(const tavrin::ClientInfo& client) {
    std::lock_guard<std::mutex> hold(mLock);
    return mGreeted.insert(client).second;
}

void GreeterService::setNotifier(tavrin::INotifier* notifier) {
    mNotifier = notifier;
}

void GreeterService::onClientDied(int pid) {
    story::say("client pid %d died", pid);
    std::lock_guard<std::mutex> hold(mLock);
    for (auto it = mGreeted.begin(); it != mGreeted.end();) {
        it = it->pid == pid ? mGreeted.erase(it) : std::next(it);
    }
}

bool GreeterService::acceptSubService(std::string& name) {
    const bool accepted = name == greeter::kTranslatorName;
    story::say("sub-service %s asks to register: %s", name.c_str(),
               accepted ? "accepted" : "refused");
    return accepted;
}

void GreeterService::onSubServiceRegistered(std::string& name,
                                            tavrin::ISubServiceClient* subService) {
    mTranslator.set(subService);
    story::say("sub-service %s registered", name.c_str());
    // The translator is still waiting for its registration to end, and this
    // binder thread must not be held by a call of our own.
    std::thread([this] { askTranslatorStatus(); }).detach();
}

void GreeterService::askTranslatorStatus() {
    Request status("status", "");
    tavrin::tv_sp<tavrin::IPCClass> reply = mTranslator.call(status);
    auto* said = dynamic_cast<Answer*>(reply.get());
    if (said == nullptr) {
        story::say("translator gave no status");
        return;
    }
    story::say("translator status: '%s' (pid %d)", said->text().c_str(), said->pid());
}

void GreeterService::onSubServiceRemoved(std::string& name) {
    mTranslator.clear();
    story::say("sub-service %s removed", name.c_str());
}

tavrin::Protocol* GreeterService::getSubServiceProtocol(std::string& name) {
    return name == greeter::kTranslatorName ? &mTranslatorProtocol : nullptr;
}

tavrin::tv_sp<tavrin::IPCClass> GreeterService::getSubServiceConfig(std::string& /*name*/) {
    return tavrin::tv_sp<tavrin::IPCClass>(
        new greeter::TranslatorConfig("fr", "bonjour", getpid()));
}

tavrin::tv_sp<tavrin::IPCClass> GreeterService::onSubServiceAction(tavrin::IPCClass* action,
                                                                   std::string& name) {
    auto* request = dynamic_cast<Request*>(action);
    if (request == nullptr) return none();
    if (request->what() == "count") return answerFromHere(std::to_string(mGreetings.load()));
    if (request->what() == "hello-master") {
        story::say("sub-service %s says '%s'", name.c_str(), request->text().c_str());
        return answerFromHere("welcome, " + name);
    }
    return none();
}
