#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/RefBase.h>

#include <atomic>
#include <unordered_map>

#include "base/Locks.h"

namespace android {
namespace tvbinder {

class PeerAccount;

// The accounts of the processes connected to this one, and the caps on
// accepted connections: derived from the descriptor limit, with a reserve
// left to the application. Owned by the Runtime; used from every thread.
// (Per-process shares are the wire's: bodies are charged while they are read.)
class PeerAccounts {
  public:
    static constexpr uint32_t kMaxLinksPerProcess = 4;
    static constexpr uint64_t kBodyBudgetPerProcess = 32 * 1024 * 1024;

    // Derives the caps from the descriptor limit (RLIMIT_NOFILE).
    void init();
    // Derives the caps from a limit of `descriptors`.
    void setDescriptorLimit(size_t descriptors);
    struct Admission {
        sp<PeerAccount> account;  // null: refused
        // Set when all connections are taken: the process holding the most,
        // more than the newcomer would, gives one up for it.
        sp<PeerAccount> evictFrom;
    };
    // One more connection from `pid`: refused beyond the process's share,
    // and, when all are taken, unless another process holds more.
    Admission admitConnection(pid_t pid);
    // One connection of the account's process is gone (or was never made).
    void closeConnection(PeerAccount& account);
    // How many processes may be watched at once (a pidfd and a link each).
    size_t maxWatchedProcesses() const { return mMaxWatched; }

  private:
    struct Entry {
        sp<PeerAccount> account;
        size_t connections = 0;
    };
    const Entry* largestLocked() const TV_REQUIRES(mLock);

    // Set once, before any connection is admitted.
    size_t mMaxConnections = 0;
    size_t mMaxPerProcess = 0;
    size_t mMaxWatched = 0;
    Mutex mLock{LockRank::kAccounts};
    size_t mConnections TV_GUARDED_BY(mLock) = 0;
    // The processes with connections here.
    std::unordered_map<pid_t, Entry> mAccounts TV_GUARDED_BY(mLock);
};

// What one peer process holds in this process: the connections it opened
// here, how many of them are one-way links, and the bytes of large frame
// bodies of its that are being decoded or run. Each process gets its own
// share, so that a hostile one exhausts only that. Listed by PeerAccounts
// while the process has connections here; frames it charged keep it alive
// beyond that. Used from every thread.
class PeerAccount : public RefBase {
  public:
    pid_t pid() const { return mPid; }

    // Charges a body of `bytes` before it is copied: false when the
    // process's share is spent.
    [[nodiscard]] bool takeBody(size_t bytes);
    void returnBody(size_t bytes);
    // Makes an accepted connection one of the process's links: false beyond
    // its share (a process has one link per endpoint it serves; an exec'd
    // one briefly two).
    [[nodiscard]] bool takeLink();
    // An accepted connection of the process is gone (destroyed: one-ways
    // queued from a link keep it, and its share, until they ran).
    void connectionGone(bool wasLink);

  private:
    friend class PeerAccounts;
    PeerAccount(PeerAccounts& accounts, pid_t pid) : mAccounts(accounts), mPid(pid) {}

    PeerAccounts& mAccounts;
    const pid_t mPid;
    std::atomic<uint64_t> mBodyBytes{0};
    std::atomic<uint32_t> mLinks{0};
};

// The bytes of a large body charged to a peer; given back when it goes.
class BodyCharge {
  public:
    BodyCharge() = default;
    BodyCharge(const sp<PeerAccount>& account, size_t bytes) : mAccount(account), mBytes(bytes) {}
    BodyCharge(BodyCharge&& other) noexcept { *this = std::move(other); }
    BodyCharge& operator=(BodyCharge&& other) noexcept;
    ~BodyCharge();

  private:
    sp<PeerAccount> mAccount;
    size_t mBytes = 0;
};

}  // namespace tvbinder
}  // namespace android
