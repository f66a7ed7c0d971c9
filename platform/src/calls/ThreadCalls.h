#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <vector>

#include "calls/ChainRegistry.h"
#include "peers/Session.h"

namespace android {
namespace tvbinder {

class Connection;
class Peer;

// What the transport keeps for each thread: whose transaction it executes
// (the caller's pid and uid as the kernel gave them; 0 outside a
// transaction), the chain of synchronous calls it works for, the sessions
// whose peers wait for its reply (innermost last), and the mailbox where
// calls of its chain are handed to it while it waits. One per thread; used by
// its thread only (pool threads fill the mailbox through the ChainRegistry).
class ThreadCalls {
  public:
    static ThreadCalls& self();

    pid_t callingPid() const { return mCallingPid; }
    uid_t callingUid() const { return mCallingUid; }
    // Until restoreCallingIdentity(token), the caller reads as this process.
    int64_t clearCallingIdentity();
    void restoreCallingIdentity(int64_t token);
    // A new pidfd of the process whose synchronous call the thread serves, or
    // -1 (outside such a call, after clearCallingIdentity(), once that
    // process exited).
    int dupCallingPidfd() const;

    // The chain the thread's synchronous calls belong to: that of the
    // transaction it executes, else its own (made on first use).
    uint64_t chain();
    // The connection on which the thread serves a call of `peer` (the
    // innermost), or null: the thread calls that peer back over it.
    Connection* servingConnectionFor(const Peer& peer) const;
    // Before the thread serving a call calls a third process: tells the
    // caller, once, that calls of its chain may now reach it from elsewhere.
    void announceChainExtension();
    // Made on first use, and again in a child made by fork().
    ChainMailbox& mailbox();

    // Runs a transaction that arrived on `session` on `target`, as the
    // session's peer: for its length the thread's caller is that peer and,
    // for a synchronous one, its chain is `chain` and the session is served.
    // No transport lock may be held: application code runs.
    [[nodiscard]] static status_t execute(const Session& session, BBinder& target, uint32_t code,
                                          const Parcel& data, Parcel* reply, uint32_t flags,
                                          uint64_t chain);

  private:
    // Sets the thread up to execute one transaction and restores it after.
    class Serving {
      public:
        Serving(ThreadCalls& thread, const Session& session, uint64_t chain, bool synchronous);
        ~Serving();
        Serving(const Serving&) = delete;
        Serving& operator=(const Serving&) = delete;

      private:
        ThreadCalls& mThread;
        const pid_t mSavedPid;
        const uid_t mSavedUid;
        const uint64_t mSavedChain;
        const bool mSynchronous;
    };
    struct Served {
        Connection* connection;
        Peer* peer;
        bool chainAnnounced;  // the peer was told the chain reaches further
    };

    pid_t mCallingPid = 0;
    uid_t mCallingUid = 0;
    uint64_t mChain = 0;
    uint64_t mOwnChain = 0;
    std::vector<Served> mServing;
    std::unique_ptr<ChainMailbox> mMailbox;
};

}  // namespace tvbinder
}  // namespace android
