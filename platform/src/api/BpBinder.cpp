#define LOG_TAG "tvbinder"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <log/log.h>

#include "base/Locks.h"
#include "peers/Peer.h"
#include "references/ProxyTable.h"
#include "runtime/Runtime.h"

namespace android {

BpBinder::BpBinder(const sp<tvbinder::Peer>& owner, uint64_t tokenHi, uint64_t tokenLo)
    : mOwner(owner), mTokenHi(tokenHi), mTokenLo(tokenLo) {
    // Held only weakly it may still have death notices to deliver: the
    // proxy table keeps it until then, and a new reference revives it.
    extendObjectLifetime(OBJECT_LIFETIME_WEAK);
}

BpBinder::~BpBinder() = default;

const String16& BpBinder::getInterfaceDescriptor() const {
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mDescriptorFetched) return mDescriptor;
    }
    Parcel data;
    Parcel reply;
    String16 descriptor;
    status_t status = const_cast<BpBinder*>(this)->transact(INTERFACE_TRANSACTION, data, &reply);
    if (status == NO_ERROR) status = reply.readString16(&descriptor);
    std::lock_guard<std::mutex> guard(mLock);
    // Set once and never changed after: references handed out stay valid.
    if (status == NO_ERROR && !mDescriptorFetched) {
        mDescriptor = descriptor;
        mDescriptorFetched = true;
    }
    if (mDescriptorFetched) return mDescriptor;
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

bool BpBinder::isBinderAlive() const {
    return !mDead.load(std::memory_order_acquire) && !mOwner->isDead();
}

status_t BpBinder::pingBinder() {
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::dump(int fd, const Vector<String16>& args) {
    Parcel data;
    Parcel reply;
    status_t status = data.writeFileDescriptor(fd);
    if (status == NO_ERROR) status = data.writeInt32(static_cast<int32_t>(args.size()));
    for (size_t i = 0; status == NO_ERROR && i < args.size(); ++i) {
        status = data.writeString16(args[i]);
    }
    return status == NO_ERROR ? transact(DUMP_TRANSACTION, data, &reply) : status;
}

status_t BpBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    if (!isBinderAlive()) {
        if (reply != nullptr) reply->freeData();
        return DEAD_OBJECT;
    }
    // A live owner of this process's making: its runtime is the current one.
    status_t status = mOwner->ofThisProcess() ? tvbinder::Runtime::current()->caller().transact(
                                                    *this, code, data, reply, flags)
                                              : DEAD_OBJECT;
    if (status == DEAD_OBJECT && mOwner->isDead()) mDead.store(true, std::memory_order_release);
    if (status != NO_ERROR && reply != nullptr && (flags & FLAG_ONEWAY) == 0) reply->freeData();
    return status;
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient>& recipient, void* cookie, uint32_t flags) {
    LOG_ALWAYS_FATAL_IF(recipient == nullptr, "linkToDeath needs a recipient");
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mObituariesSent) return DEAD_OBJECT;
        mObituaries.push_back(Obituary{recipient, cookie, flags});
    }
    status_t status = mOwner->ensureWatched();
    if (status == NO_ERROR && !mOwner->isDead()) return NO_ERROR;
    if (status == DEAD_OBJECT || mOwner->isDead()) {
        // A proxy of an owner that is already gone gets its notice at once.
        if (mOwner->ofThisProcess()) tvbinder::Runtime::current()->obituaries().deliverLater(this);
        return NO_ERROR;
    }
    unlinkToDeath(recipient, cookie, flags);
    return status;
}

status_t BpBinder::unlinkToDeath(const wp<DeathRecipient>& recipient, void* cookie, uint32_t flags,
                                 wp<DeathRecipient>* outRecipient) {
    std::lock_guard<std::mutex> guard(mLock);
    if (mObituariesSent) return DEAD_OBJECT;
    for (auto it = mObituaries.begin(); it != mObituaries.end(); ++it) {
        const bool sameRecipient =
            recipient != nullptr ? it->recipient == recipient : it->cookie == cookie;
        if (sameRecipient && it->cookie == cookie && it->flags == flags) {
            if (outRecipient != nullptr) *outRecipient = it->recipient;
            mObituaries.erase(it);
            return NO_ERROR;
        }
    }
    return NAME_NOT_FOUND;
}

BpBinder* BpBinder::remoteBinder() {
    return this;
}

void BpBinder::addGrantedReference() {
    mGrantedReferences.fetch_add(1, std::memory_order_relaxed);
}

uint32_t BpBinder::takeGrantedReferences() {
    return mGrantedReferences.exchange(0, std::memory_order_relaxed);
}

void BpBinder::sendObituary() {
    std::vector<Obituary> obituaries;
    {
        std::lock_guard<std::mutex> guard(mLock);
        mDead.store(true, std::memory_order_release);
        if (mObituariesSent) return;
        mObituariesSent = true;
        obituaries.swap(mObituaries);
    }
    const wp<IBinder> who(this);
    for (const Obituary& obituary : obituaries) {
        sp<DeathRecipient> recipient = obituary.recipient.promote();
        if (recipient == nullptr) continue;
        tvbinder::HeldLocks::expectNone("binderDied");
        recipient->binderDied(who);
    }
}

bool BpBinder::onIncStrongAttempted(uint32_t /*flags*/, const void* /*id*/) {
    return tvbinder::ProxyTable::revivingOnThisThread();
}

void BpBinder::onLastStrongRef(const void* /*id*/) {
    // A forked child does not speak for its parent.
    if (!mOwner->ofThisProcess()) return;
    bool awaitsDeath;
    {
        std::lock_guard<std::mutex> guard(mLock);
        awaitsDeath = !mObituariesSent && !mObituaries.empty();
    }
    const std::optional<uint32_t> granted =
        tvbinder::Runtime::current()->proxies().retire(this, awaitsDeath);
    if (granted.value_or(0) > 0 && !mOwner->isDead()) {
        mOwner->link().sendRelease(tvbinder::Token{mTokenHi, mTokenLo}, *granted);
    }
}

}  // namespace android
