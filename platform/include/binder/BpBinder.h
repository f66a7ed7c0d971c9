#pragma once

#include <binder/IBinder.h>
#include <stdint.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace android {

namespace tvbinder {
class Peer;
class ProxyTable;
}  // namespace tvbinder

// The proxy of an object owned by another process. A process has at most one
// proxy per remote object; proxies are made by the transport only.
class BpBinder : public IBinder {
  public:
    // Asks the owner for its descriptor once and keeps it.
    const String16& getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t dump(int fd, const Vector<String16>& args) override;

    // Once the owner is known dead, DEAD_OBJECT without trying again.
    status_t transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags = 0) final;

    // The recipient is held weakly. DEAD_OBJECT when the owner already died.
    status_t linkToDeath(const sp<DeathRecipient>& recipient, void* cookie = nullptr,
                         uint32_t flags = 0) override;
    // NAME_NOT_FOUND when nothing matches, DEAD_OBJECT once notices were sent.
    status_t unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie = nullptr,
                           uint32_t flags = 0, wp<DeathRecipient>* outRecipient = nullptr) override;

    BpBinder* remoteBinder() override;

    // ---- For the transport only ----
    const sp<tvbinder::Peer>& owner() const { return mOwner; }
    uint64_t tokenHi() const { return mTokenHi; }
    uint64_t tokenLo() const { return mTokenLo; }
    // Counts one more reference that the owner granted to this process.
    void addGrantedReference();
    uint32_t takeGrantedReferences();
    // Marks the proxy dead and calls every linked recipient once.
    void sendObituary();

  private:
    friend class tvbinder::ProxyTable;

    struct Obituary {
        wp<DeathRecipient> recipient;
        void* cookie;
        uint32_t flags;
    };

    BpBinder(const sp<tvbinder::Peer>& owner, uint64_t tokenHi, uint64_t tokenLo);
    ~BpBinder() override;
    void onLastStrongRef(const void* id) override;
    bool onIncStrongAttempted(uint32_t flags, const void* id) override;

    const sp<tvbinder::Peer> mOwner;
    const uint64_t mTokenHi;
    const uint64_t mTokenLo;
    std::atomic<uint32_t> mGrantedReferences{0};
    std::atomic<bool> mDead{false};

    mutable std::mutex mLock;  // guards everything below
    bool mObituariesSent = false;
    std::vector<Obituary> mObituaries;
    mutable bool mDescriptorFetched = false;
    mutable String16 mDescriptor;
};

}  // namespace android
