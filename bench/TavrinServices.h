#pragma once

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

#include "IClientNotifier.h"
#include "IPCClass.h"
#include "IPCInt32.h"
#include "IService.h"
#include "ISubService.h"
#include "Protocol.h"

// What the tavrin measurements publish and bind to.
namespace coupler {

// One int32, the small value of every call and notification. Its class name
// says what it asks for, so that one service serves every measurement.
class Number : public tavrin::IPCClass {
  public:
    enum Kind {
        // A call answered with the same value.
        ECHO,
        // A call the service answers with what the caller answers to its
        // sendNotifyEx of the value.
        ASK,
        // A call for `value` one-way notifications to the caller; answered
        // with the count once the caller has confirmed them all.
        STREAM,
        // One of those notifications.
        NOTE,
        // A sendNotifyEx answered once `value` notifications have arrived.
        CHECKPOINT,
    };

    explicit Number(Kind kind = ECHO, int32_t value = 0) : mKind(kind), mValue(value) {}

    std::string getClassName() override;
    void serialization(tavrin::Serialization& out) override { mValue.serialization(out); }
    void deserialization(tavrin::Deserialization& in) override { mValue.deserialization(in); }

    Kind kind() const { return mKind; }
    int32_t value() const { return mValue.get(); }

  private:
    Kind mKind;
    tavrin::IPCInt32 mValue;
};

// Reads every kind of Number: the only values the measurements exchange.
tavrin::Protocol numberProtocol();
// The value of a result that is a Number of `kind`, or -1.
int64_t valueOf(const tavrin::tv_sp<tavrin::IPCClass>& result, Number::Kind kind = Number::ECHO);

// Serves ECHO, ASK and STREAM calls, and accepts any sub-service.
class BenchService : public tavrin::IService {
  public:
    tavrin::tv_sp<tavrin::IPCClass> onAction(tavrin::IPCClass* action,
                                             tavrin::ClientInfo& client) override;
    void setNotifier(tavrin::INotifier* notifier) override;
    void onClientDied(int) override {}
    bool acceptSubService(std::string&) override { return true; }
    void onSubServiceRemoved(std::string&) override {}
    void onSubServiceRegistered(std::string&, tavrin::ISubServiceClient*) override {}
    tavrin::Protocol* getSubServiceProtocol(std::string&) override { return &mProtocol; }
    // A configuration, so that the sub-service learns that it registered.
    tavrin::tv_sp<tavrin::IPCClass> getSubServiceConfig(std::string&) override;
    tavrin::tv_sp<tavrin::IPCClass> onSubServiceAction(tavrin::IPCClass*, std::string&) override;

    // True once publishing has begun: the service manager may then be asked.
    bool publishing() const { return mNotifier.load() != nullptr; }

  private:
    tavrin::tv_sp<tavrin::IPCClass> stream(int32_t count, tavrin::ClientInfo& client);

    std::atomic<tavrin::INotifier*> mNotifier{nullptr};
    tavrin::Protocol mProtocol = numberProtocol();
};

// A sub-service that answers its clients' ECHO calls.
class EchoSubService : public tavrin::ISubService {
  public:
    void onConfig(tavrin::IPCClass* config) override { mConfigured = config != nullptr; }
    tavrin::tv_sp<tavrin::IPCClass> onMasterAction(tavrin::IPCClass*) override;
    tavrin::tv_sp<tavrin::IPCClass> onAction(tavrin::IPCClass* action,
                                             tavrin::ClientInfo& client) override;
    void setMasterServiceProxy(tavrin::IMasterServiceProxy*) override {}
    void setNotifier(tavrin::INotifier*) override {}

    // The master sends its configuration only when it accepted the registration.
    bool registered() const { return mConfigured.load(); }

  private:
    std::atomic<bool> mConfigured{false};
};

// A client's sink: answers a sendNotifyEx of ECHO with the same value, and
// counts NOTE notifications, answering a CHECKPOINT once that many have
// arrived (as the raw receiver acknowledges each batch), or with nothing when
// they do not come.
class NoteCounter : public tavrin::IClientNotifier {
  public:
    void onNotify(tavrin::IPCClass& value) override;
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::IPCClass& value) override;

    // Counts from zero again; no notification may be on its way.
    void restart();
    int64_t received();

  private:
    bool awaitCount(int64_t target);

    std::mutex mLock;
    std::condition_variable mCounted;
    int64_t mReceived = 0;
    // The count a checkpoint waits for: notifications wake it only when it
    // is reached, not once each.
    int64_t mNextTarget = INT64_MAX;
};

}  // namespace coupler
