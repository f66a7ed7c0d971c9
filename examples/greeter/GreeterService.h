#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "ClientInfo.h"
#include "GreeterProtocol.h"
#include "IService.h"
#include "TranslatorSlot.h"

// The greeter service: greets its clients and counts the greetings; on a
// client's "ping-me" sends that client a one-way notice and a question whose
// answer it waits for; hosts the translator sub-service, which it
// configures, calls once registered, and answers.
//
// Owned through tv_sp by main and by the library, for the life of the
// process. Called on binder threads, several at once; the call to a newly
// registered translator runs on a thread of its own.
class GreeterService : public tavrin::IService {
  public:
    GreeterService();

    tavrin::tv_sp<tavrin::IPCClass> onAction(tavrin::IPCClass* action,
                                             tavrin::ClientInfo& client) override;
    void setNotifier(tavrin::INotifier* notifier) override;
    void onClientDied(int pid) override;
    bool acceptSubService(std::string& name) override;
    void onSubServiceRemoved(std::string& name) override;
    void onSubServiceRegistered(std::string& name, tavrin::ISubServiceClient* subService) override;
    tavrin::Protocol* getSubServiceProtocol(std::string& name) override;
    tavrin::tv_sp<tavrin::IPCClass> getSubServiceConfig(std::string& name) override;
    tavrin::tv_sp<tavrin::IPCClass> onSubServiceAction(tavrin::IPCClass* action,
                                                       std::string& name) override;

  private:
    tavrin::tv_sp<tavrin::IPCClass> greet(const greeter::Request& request,
                                          const tavrin::ClientInfo& client);
    tavrin::tv_sp<tavrin::IPCClass> ping(const greeter::Request& request,
                                         tavrin::ClientInfo& client);
    void askTranslatorStatus();
    // True the first time `client` is seen, so that each handle is told once.
    bool firstGreeting(const tavrin::ClientInfo& client);

    tavrin::INotifier* mNotifier = nullptr;  // set before the first call
    std::atomic<int> mGreetings{0};
    std::mutex mLock;  // guards mGreeted
    std::set<tavrin::ClientInfo> mGreeted;
    tavrin::Protocol mTranslatorProtocol;  // read only; the library copies it
    TranslatorSlot mTranslator;
};
