#include "Translator.h"

#include <unistd.h>

#include "Story.h"

using greeter::Answer;
using greeter::answerFromHere;
using greeter::Request;

void Translator::onConfig(tavrin::IPCClass* config) {
    auto* settings = dynamic_cast<greeter::TranslatorConfig*>(config);
    if (settings == nullptr) {
        story::say("cannot read the greeter's configuration");
        return;
    }
    story::say("configured by the greeter (pid %d): greet in %s with '%s'", settings->masterPid(),
               settings->language().c_str(), settings->hello().c_str());
    std::lock_guard<std::mutex> hold(mLock);
    mConfigured = true;
    mLanguage = settings->language();
    mHello = settings->hello();
}

bool Translator::configured() {
    std::lock_guard<std::mutex> hold(mLock);
    return mConfigured;
}

tavrin::tv_sp<tavrin::IPCClass> Translator::onMasterAction(tavrin::IPCClass* action) {
    auto* request = dynamic_cast<Request*>(action);
    if (request == nullptr || request->what() != "status") return answerFromHere("?");
    story::say("the greeter asks for my status");
    std::lock_guard<std::mutex> hold(mLock);
    return answerFromHere("translating into " + mLanguage + ", " +
                          std::to_string(mTranslations.load()) + " translations so far");
}

tavrin::tv_sp<tavrin::IPCClass> Translator::onAction(tavrin::IPCClass* action,
                                                     tavrin::ClientInfo& client) {
    auto* request = dynamic_cast<Request*>(action);
    if (request == nullptr || request->what() != "translate") return answerFromHere("?");
    return translate(*request, client);
}

tavrin::tv_sp<tavrin::IPCClass> Translator::translate(const Request& request,
                                                      tavrin::ClientInfo& client) {
    welcomeOnce(request.text(), client);
    ++mTranslations;
    // Called back from inside a client's call: the greeter is reachable
    // while its client waits for us.
    const std::string count = askMaster("count", "");
    return answerFromHere(helloWord() + " " + request.text() +
                          " (greetings counted by the greeter: " + count + ")");
}

void Translator::welcomeOnce(const std::string& name, tavrin::ClientInfo& client) {
    {
        std::lock_guard<std::mutex> hold(mLock);
        if (!mWelcomed.insert(client).second) return;
    }
    story::say("first translation for %s (pid %d, tag %d, handle %d)", name.c_str(), client.pid,
               client.tag, client.objID);
    greeter::Notice welcome("welcome to the translator, " + name);
    mNotifier->sendNotify(welcome, client);
}

std::string Translator::helloWord() {
    std::lock_guard<std::mutex> hold(mLock);
    return mHello;
}

std::string Translator::helloMaster() {
    return askMaster("hello-master", "translator here, pid " + std::to_string(getpid()));
}

std::string Translator::askMaster(const std::string& what, const std::string& text) {
    Request request(what, text);
    tavrin::tv_sp<tavrin::IPCClass> reply = mMaster->ipcCall(request);
    auto* said = dynamic_cast<Answer*>(reply.get());
    return said != nullptr ? said->text() : std::string();
}

void Translator::setMasterServiceProxy(tavrin::IMasterServiceProxy* master) {
    mMaster = master;
}

void Translator::setNotifier(tavrin::INotifier* notifier) {
    mNotifier = notifier;
}
