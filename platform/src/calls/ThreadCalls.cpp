#include "calls/ThreadCalls.h"

#include "base/Locks.h"
#include "base/Token.h"
#include "peers/Peer.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

ThreadCalls& ThreadCalls::self() {
    thread_local ThreadCalls state;
    return state;
}

int64_t ThreadCalls::clearCallingIdentity() {
    const int64_t token =
        (int64_t{static_cast<int32_t>(mCallingUid)} << 32) | static_cast<uint32_t>(mCallingPid);
    mCallingPid = 0;
    mCallingUid = 0;
    return token;
}

void ThreadCalls::restoreCallingIdentity(int64_t token) {
    mCallingUid = static_cast<uid_t>(static_cast<uint64_t>(token) >> 32);
    mCallingPid = static_cast<pid_t>(static_cast<uint32_t>(token));
}

int ThreadCalls::dupCallingPidfd() const {
    // The innermost session served is the caller's only when the call being
    // executed is that synchronous one, not a one-way within it.
    if (mServing.empty() || mCallingPid == 0) return -1;
    const Served& served = mServing.back();
    if (served.connection->peerPid() != mCallingPid) return -1;
    return served.peer->dupPidfd();
}

uint64_t ThreadCalls::chain() {
    if (mChain != 0) return mChain;
    if (mOwnChain == 0) mOwnChain = Token::random().hi | 1;
    return mOwnChain;
}

Connection* ThreadCalls::servingConnectionFor(const Peer& peer) const {
    for (auto it = mServing.rbegin(); it != mServing.rend(); ++it) {
        if (it->peer == &peer && !it->connection->broken()) return it->connection;
    }
    return nullptr;
}

void ThreadCalls::announceChainExtension() {
    if (mServing.empty() || mServing.back().chainAnnounced) return;
    // Sent before the call that extends the chain: the waiting caller reads
    // it before any call of the chain can come back to its process. Not
    // sent, the caller is gone or will be told by the hang-up.
    mServing.back().chainAnnounced = true;
    (void)mServing.back().connection->send(OutgoingFrame::make(FrameKind::kChainExtended),
                                           Connection::kAnswerWaitMs);
}

ChainMailbox& ThreadCalls::mailbox() {
    if (mMailbox == nullptr || !mMailbox->current()) mMailbox = std::make_unique<ChainMailbox>();
    return *mMailbox;
}

ThreadCalls::Serving::Serving(ThreadCalls& thread, const Session& session, uint64_t chain,
                              bool synchronous)
    : mThread(thread),
      mSavedPid(thread.mCallingPid),
      mSavedUid(thread.mCallingUid),
      mSavedChain(thread.mChain),
      mSynchronous(synchronous) {
    thread.mCallingPid = session.connection.peerPid();
    thread.mCallingUid = session.connection.peerUid();
    // A one-way caller waits for nothing: calls made from it start a chain
    // of their own and go the normal way.
    thread.mChain = synchronous ? chain : 0;
    if (synchronous) thread.mServing.push_back(Served{&session.connection, &session.peer, false});
}

ThreadCalls::Serving::~Serving() {
    if (mSynchronous) mThread.mServing.pop_back();
    mThread.mChain = mSavedChain;
    mThread.mCallingPid = mSavedPid;
    mThread.mCallingUid = mSavedUid;
}

status_t ThreadCalls::execute(const Session& session, BBinder& target, uint32_t code,
                              const Parcel& data, Parcel* reply, uint32_t flags, uint64_t chain) {
    HeldLocks::expectNone("BBinder::transact");
    Serving serving(self(), session, chain, (flags & kFlagOneWay) == 0);
    return target.transact(code, data, reply, flags);
}

}  // namespace tvbinder
}  // namespace android
