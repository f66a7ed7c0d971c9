#pragma once

#include <binder/IBinder.h>

namespace android {

// An object that lives in this process. Other processes reach it through
// proxies once it has been written into a Parcel that left the process.
class BBinder : public IBinder {
  public:
    BBinder();

    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;

    // Rewinds `data`, answers PING itself, hands everything else to
    // onTransact and rewinds `reply` afterwards.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // Death notices exist only for remote objects: INVALID_OPERATION.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    BBinder* localBinder() override;

  protected:
    ~BBinder() override;

    // Answers INTERFACE, DUMP and SHELL_COMMAND; UNKNOWN_TRANSACTION otherwise.
    virtual status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply,
                                uint32_t flags = 0);
};

}  // namespace android
