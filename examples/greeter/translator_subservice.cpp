// The translator program: registers the translator with the greeter, greets
// the greeter, and then lives on binder threads until the greeter dies (the
// library then ends the process with status 1).
#include <unistd.h>

#include "Announcer.h"
#include "GreeterProtocol.h"
#include "Story.h"
#include "Translator.h"

int main() {
    story::setSpeaker("translator");
    auto* translator = new Translator();
    tavrin::tv_sp<tavrin::ISubService> subService(translator);
    tavrin::Protocol fromClients = greeter::requestProtocol();
    tavrin::Protocol fromMaster = greeter::fromMasterProtocol();
    tavrin::SubServiceInfo info(greeter::kTranslatorName, greeter::kServiceName, greeter::kIpc);
    // Returns 0 either way; a registration shows as the configuration
    // having arrived, which happens before publish returns.
    tavrin::Announcer::self().publish(info, fromClients, fromMaster, subService);
    if (!translator->configured()) {
        story::say("could not register with %s", greeter::kServiceName);
        return 1;
    }
    const std::string reply = translator->helloMaster();
    story::say("the greeter answered '%s'", reply.empty() ? "nothing" : reply.c_str());
    for (;;) pause();
}
