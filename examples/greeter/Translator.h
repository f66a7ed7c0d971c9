#pragma once

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "ClientInfo.h"
#include "GreeterProtocol.h"
#include "ISubService.h"

// The translator sub-service of the greeter: translates a client's greeting
// into the language the greeter configured, asking the greeter for its
// greeting count on the way; welcomes each client handle with a one-way
// notice on its first call; answers the greeter's status requests.
//
// Owned through tv_sp by main and by the library, for the life of the
// process. The setters and onConfig run on the publishing thread; onAction
// and onMasterAction on binder threads, several at once, possibly before
// onConfig.
class Translator : public tavrin::ISubService {
  public:
    void onConfig(tavrin::IPCClass* config) override;
    tavrin::tv_sp<tavrin::IPCClass> onMasterAction(tavrin::IPCClass* action) override;
    tavrin::tv_sp<tavrin::IPCClass> onAction(tavrin::IPCClass* action,
                                             tavrin::ClientInfo& client) override;
    void setMasterServiceProxy(tavrin::IMasterServiceProxy* master) override;
    void setNotifier(tavrin::INotifier* notifier) override;

    // Whether the greeter accepted the registration and sent a configuration.
    bool configured();
    // Says hello to the greeter; its answer, or empty when it gave none.
    std::string helloMaster();

  private:
    tavrin::tv_sp<tavrin::IPCClass> translate(const greeter::Request& request,
                                              tavrin::ClientInfo& client);
    void welcomeOnce(const std::string& name, tavrin::ClientInfo& client);
    std::string askMaster(const std::string& what, const std::string& text);
    std::string helloWord();

    tavrin::IMasterServiceProxy* mMaster = nullptr;  // set before the first call
    tavrin::INotifier* mNotifier = nullptr;          // set before the first call
    std::atomic<int> mTranslations{0};
    std::mutex mLock;  // guards everything below
    bool mConfigured = false;
    std::string mLanguage = "en";
    std::string mHello = "hello";
    std::set<tavrin::ClientInfo> mWelcomed;
};
