#include "GreeterClient.h"

#include <unistd.h>

#include "Discoverer.h"
#include "GreeterProtocol.h"
#include "Story.h"

namespace {

// Tags travel with every call of a handle; the services print them.
constexpr int kGreeterTag = 1;
constexpr int kTranslatorTag = 2;
// How long the greeter may wait for its translator to register.
constexpr int kTranslatorTimeoutMs = 3000;
constexpr useconds_t kRoundPauseUs = 100 * 1000;

}  // namespace

GreeterClient::GreeterClient(std::string name) : mName(std::move(name)) {}

bool GreeterClient::bind() {
    tavrin::Protocol protocol = greeter::clientProtocol();
    tavrin::ServiceInfo service(greeter::kServiceName, greeter::kIpc);
    if (!bindTarget(mGreeter, tavrin::Discoverer::self().bindTo(service, protocol, kGreeterTag))) {
        return false;
    }
    tavrin::SubServiceInfo translator(greeter::kTranslatorName, greeter::kServiceName,
                                      greeter::kIpc);
    return bindTarget(mTranslator, tavrin::Discoverer::self().bindTo(
                                       translator, protocol, kTranslatorTimeoutMs, kTranslatorTag));
}

bool GreeterClient::bindTarget(Target& target, tavrin::tv_sp<tavrin::IClient> client) {
    if (client.get() == nullptr) {
        story::say("cannot bind to the %s", target.label);
        return false;
    }
    target.client = client;
    target.notices = new NoticePrinter(mName, target.label);
    target.notifier = tavrin::tv_sp<tavrin::IClientNotifier>(target.notices);
    client->setNotifier(target.notifier);
    story::say("bound to the %s", target.label);
    return true;
}

bool GreeterClient::run(int rounds) {
    bool ok = call(mGreeter, "ping-me", 0);
    for (int round = 1; rounds < 0 || round <= rounds; ++round) {
        ok = call(mGreeter, "greet", round) && ok;
        ok = call(mTranslator, "translate", round) && ok;
        usleep(kRoundPauseUs);
    }
    ok = notified() && ok;
    story::say("%d rounds done, %s", rounds, ok ? "all answered" : "some calls failed");
    return ok;
}

bool GreeterClient::call(Target& target, const char* what, int round) {
    greeter::Request request(what, mName, round);
    tavrin::tv_sp<tavrin::IPCClass> result = target.client->ipcCall(request);
    auto* answer = dynamic_cast<greeter::Answer*>(result.get());
    if (answer == nullptr) {
        tellFailure(target);
        return false;
    }
    tellAnswer(target, answer->text());
    return true;
}

void GreeterClient::tellAnswer(Target& target, const std::string& text) {
    if (!target.answered) {
        story::say("the %s answers '%s'", target.label, text.c_str());
    } else if (target.failing) {
        story::say("the %s answers again: '%s'", target.label, text.c_str());
    }
    target.answered = true;
    target.failing = false;
}

void GreeterClient::tellFailure(Target& target) {
    if (!target.failing) story::say("calls to the %s fail", target.label);
    target.failing = true;
}

bool GreeterClient::notified() {
    for (int i = 0; i < 40; ++i) {
        if (mGreeter.notices->notices() > 0 && mGreeter.notices->questions() > 0 &&
            mTranslator.notices->notices() > 0) {
            return true;
        }
        usleep(50 * 1000);
    }
    story::say("missing notifications");
    return false;
}
