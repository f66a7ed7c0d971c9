#define LOG_TAG "tvbinder"

#include "wire/PeerAccounts.h"

#include <log/log.h>
#include <sys/resource.h>

#include <algorithm>
#include <utility>

namespace android {
namespace tvbinder {

namespace {

// Accepted connections never take more than this many in all, whatever the
// descriptor limit.
constexpr size_t kMaxConnectionsCeiling = 4096;
// Descriptors left to the application and to the transport's own use
// (outgoing connections, pidfds, descriptors in frames): at least this many,
// and a quarter of the limit.
constexpr size_t kMinReserve = 32;
// The least share of one process: a client calls from as many threads at
// once as it has connections here.
constexpr size_t kMinPerProcess = 128;
// Processes watched at once, however low the limit.
constexpr size_t kMinWatched = 64;
// Connections admitted beyond the cap while those evicted for them still
// hold their descriptors.
constexpr size_t kMaxEvictionsInFlight = 8;

// Adds `amount` to `value` unless that would take it past `limit`.
template <typename T>
bool addWithin(std::atomic<T>& value, T amount, T limit) {
    T held = value.load(std::memory_order_relaxed);
    do {
        if (held + amount > limit) return false;
    } while (!value.compare_exchange_weak(held, held + amount));
    return true;
}

}  // namespace

bool PeerAccount::takeBody(size_t bytes) {
    return addWithin<uint64_t>(mBodyBytes, bytes, PeerAccounts::kBodyBudgetPerProcess);
}

void PeerAccount::returnBody(size_t bytes) {
    mBodyBytes.fetch_sub(bytes);
}

bool PeerAccount::takeLink() {
    return addWithin<uint32_t>(mLinks, 1, PeerAccounts::kMaxLinksPerProcess);
}

void PeerAccount::connectionGone(bool wasLink) {
    if (wasLink) mLinks.fetch_sub(1);
    mAccounts.closeConnection(*this);
}

BodyCharge& BodyCharge::operator=(BodyCharge&& other) noexcept {
    if (mAccount != nullptr) mAccount->returnBody(mBytes);
    mAccount = std::move(other.mAccount);
    mBytes = std::exchange(other.mBytes, 0);
    return *this;
}

BodyCharge::~BodyCharge() {
    if (mAccount != nullptr) mAccount->returnBody(mBytes);
}

void PeerAccounts::init() {
    rlimit limit{};
    size_t descriptors = 1024;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY) {
        descriptors = static_cast<size_t>(limit.rlim_cur);
    }
    setDescriptorLimit(descriptors);
}

void PeerAccounts::setDescriptorLimit(size_t descriptors) {
    const size_t reserve = std::max(kMinReserve, descriptors / 4);
    const size_t usable = descriptors > reserve ? descriptors - reserve : 0;
    mMaxConnections = std::min(kMaxConnectionsCeiling, usable / 2);
    mMaxPerProcess = std::min(mMaxConnections, std::max(kMinPerProcess, mMaxConnections / 16));
    mMaxWatched = std::max(kMinWatched, usable / 2);
}

PeerAccounts::Admission PeerAccounts::admitConnection(pid_t pid) {
    LockGuard guard(mLock);
    Entry& entry = mAccounts[pid];
    if (entry.account == nullptr) entry.account = new PeerAccount(*this, pid);
    Admission admission;
    if (entry.connections < mMaxPerProcess) {
        if (mConnections < mMaxConnections) {
            admission.account = entry.account;
        } else if (const Entry* largest = largestLocked();
                   largest->connections > entry.connections + 1 &&
                   mConnections < mMaxConnections + kMaxEvictionsInFlight) {
            // Processes that flood take turns with newcomers, never all. An
            // evicted connection keeps its descriptor (and its count) until
            // the thread that holds it drops it: newcomers wait for those in
            // flight, so that a flood cannot take every descriptor.
            admission.account = entry.account;
            admission.evictFrom = largest->account;
        }
    }
    if (admission.account == nullptr) {
        if (entry.connections == 0) mAccounts.erase(pid);
        return admission;
    }
    ++entry.connections;
    ++mConnections;
    return admission;
}

const PeerAccounts::Entry* PeerAccounts::largestLocked() const {
    const Entry* largest = nullptr;
    for (const auto& [pid, entry] : mAccounts) {
        if (largest == nullptr || entry.connections > largest->connections) largest = &entry;
    }
    return largest;
}

void PeerAccounts::closeConnection(PeerAccount& account) {
    sp<PeerAccount> unlisted;  // let go after the lock
    LockGuard guard(mLock);
    auto listed = mAccounts.find(account.pid());
    // Only a listed account has connections.
    if (listed == mAccounts.end() || listed->second.account.get() != &account) return;
    --mConnections;
    if (--listed->second.connections > 0) return;
    unlisted = std::move(listed->second.account);
    mAccounts.erase(listed);
}

}  // namespace tvbinder
}  // namespace android
