#include "peers/CallConnections.h"

#include "peers/Peer.h"

namespace android {
namespace tvbinder {

namespace {

// Idle call connections kept per peer; more are closed when given back.
constexpr size_t kMaxIdleConnections = 16;

}  // namespace

CallConnections::Taken CallConnections::take() {
    {
        LockGuard guard(mLock);
        if (!mIdle.empty()) {
            sp<Connection> connection = std::move(mIdle.back());
            mIdle.pop_back();
            return {std::move(connection), NO_ERROR, true};
        }
    }
    Peer::Connected made = mPeer.connect(false);
    return {std::move(made.connection), made.status, false};
}

void CallConnections::giveBack(const sp<Connection>& connection) {
    if (connection->broken() || mPeer.isDead()) return;
    LockGuard guard(mLock);
    if (mIdle.size() < kMaxIdleConnections) mIdle.push_back(connection);
}

status_t CallConnections::adopt(const sp<Connection>& connection) {
    status_t status = mPeer.attach(connection->peerPid());
    if (status != NO_ERROR) return status;
    giveBack(connection);
    return NO_ERROR;
}

void CallConnections::clear() {
    std::vector<sp<Connection>> idle;  // closed after the lock
    LockGuard guard(mLock);
    idle.swap(mIdle);
}

}  // namespace tvbinder
}  // namespace android
