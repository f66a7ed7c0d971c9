// The greeter service program: publishes the greeter and serves it until
// killed.
#include "Announcer.h"
#include "GreeterProtocol.h"
#include "GreeterService.h"
#include "Story.h"

int main() {
    story::setSpeaker("greeter");
    tavrin::tv_sp<tavrin::IService> service(new GreeterService());
    tavrin::Protocol protocol = greeter::requestProtocol();
    tavrin::ServiceInfo info(greeter::kServiceName, greeter::kIpc);
    story::say("publishing %s", greeter::kServiceName);
    // A successful first publish keeps this thread serving for good.
    tavrin::Announcer::self().publish(info, protocol, service);
    story::say("could not publish %s", greeter::kServiceName);
    return 1;
}
