// hello_service: answers "hello, NAME" to each Hello and, first, notifies the
// caller one-way. Serves until killed.
#include <stdio.h>
#include <tavrin/Announcer.h>
#include <tavrin/IService.h>
#include <tavrin/ServiceInfo.h>

#include "Hello.h"

class HelloService : public tavrin::IService {
  public:
    tavrin::tv_sp<tavrin::IPCClass> onAction(tavrin::IPCClass* action,
                                             tavrin::ClientInfo& client) override {
        const std::string name = static_cast<Hello*>(action)->text();
        Hello notice("a notice for " + name);
        mNotifier->sendNotify(notice, client);
        return tavrin::tv_sp<tavrin::IPCClass>(new Hello("hello, " + name));
    }
    void setNotifier(tavrin::INotifier* notifier) override { mNotifier = notifier; }
    void onClientDied(int) override {}
    bool acceptSubService(std::string&) override { return false; }
    void onSubServiceRemoved(std::string&) override {}
    void onSubServiceRegistered(std::string&, tavrin::ISubServiceClient*) override {}
    tavrin::Protocol* getSubServiceProtocol(std::string&) override { return nullptr; }
    tavrin::tv_sp<tavrin::IPCClass> getSubServiceConfig(std::string&) override {
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }
    tavrin::tv_sp<tavrin::IPCClass> onSubServiceAction(tavrin::IPCClass*, std::string&) override {
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }

  private:
    tavrin::INotifier* mNotifier = nullptr;
};

int main() {
    tavrin::ServiceInfo info(kHelloService, "Binder");
    tavrin::Protocol protocol = helloProtocol();
    tavrin::tv_sp<tavrin::IService> service(new HelloService());
    printf("publishing %s\n", kHelloService);
    fflush(stdout);
    return tavrin::Announcer::self().publish(info, protocol, service);  // serves from here on
}
