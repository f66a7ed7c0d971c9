#define LOG_TAG "tvbinder"

#include "runtime/ContextManager.h"

#include <log/log.h>

#include "peers/Peer.h"
#include "peers/PeerTable.h"
#include "references/ExportTable.h"
#include "references/ProxyTable.h"
#include "runtime/Acceptor.h"
#include "wire/Connection.h"
#include "wire/SocketDirectory.h"

namespace android {
namespace tvbinder {

namespace {

constexpr int kHelloAnswerTimeoutMs = 5000;

}  // namespace

sp<IBinder> ContextManager::object() {
    bool serving;
    {
        LockGuard guard(mLock);
        serving = mClaim == Claim::kServing;
        if (!serving && mProxy != nullptr && mProxy->isBinderAlive()) return mProxy;
    }
    if (serving) {
        sp<BBinder> local = mExports.contextObject();
        if (local != nullptr) return local;
        LockGuard guard(mLock);
        if (mProxy != nullptr && mProxy->isBinderAlive()) return mProxy;
    }
    sp<BpBinder> proxy = connect();
    LockGuard guard(mLock);
    if (proxy != nullptr) mProxy = proxy;
    return proxy;
}

sp<BpBinder> ContextManager::connect() {
    Connection::Connected made = Connection::connectTo(contextAddress(mContext));
    if (made.connection == nullptr) return nullptr;
    Connection& connection = *made.connection;
    if (!connection.peerIsTrustedUser()) {
        ALOGW("the context manager of \"%s\" runs as another user (uid %u): not trusted",
              mContext.c_str(), connection.peerUid());
        return nullptr;
    }
    OutgoingFrame hello = OutgoingFrame::make(FrameKind::kHello);
    hello.header.argument = mOwnEndpoint;
    if (connection.send(hello) != NO_ERROR) return nullptr;
    if (!connection.waitReadable(kHelloAnswerTimeoutMs)) {
        ALOGW("context manager of \"%s\" does not answer", mContext.c_str());
        return nullptr;
    }
    Frame answer;
    if (connection.receive(&answer, false) != NO_ERROR || answer.validate() != NO_ERROR ||
        answer.kind() != FrameKind::kHelloAnswer || answer.header.argument == 0 ||
        answer.header.argument == mOwnEndpoint) {
        return nullptr;
    }
    sp<Peer> manager = mPeers.obtain(answer.header.argument);
    if (manager->calls().adopt(made.connection) != NO_ERROR) return nullptr;
    return mProxies.obtain(manager, kContextToken);
}

bool ContextManager::claim() {
    {
        LockGuard guard(mLock);
        while (mClaim == Claim::kClaiming) mClaimed.wait(mLock);
        if (mClaim == Claim::kServing) return true;
        mClaim = Claim::kClaiming;
    }
    // Listening takes the socket directory's lock, which other processes
    // hold too: never under ours.
    auto listener = std::make_unique<Listener>(true);
    const status_t status = listener->listenOn(contextAddress(mContext));
    if (status != NO_ERROR) ALOGW("cannot serve context \"%s\": %d", mContext.c_str(), status);
    Listener* serving = nullptr;
    {
        LockGuard guard(mLock);
        if (status == NO_ERROR) {
            serving = listener.get();
            mListener = std::move(listener);
        }
        mClaim = status == NO_ERROR ? Claim::kServing : Claim::kNone;
    }
    mClaimed.notify_all();
    if (serving != nullptr) mAcceptor.watch(*serving);
    return serving != nullptr;
}

void ContextManager::setObject(const sp<BBinder>& object) {
    mExports.setContextObject(object);
}

void ContextManager::removeSocketFile() {
    LockGuard guard(mLock);
    if (mListener != nullptr) mListener->removeSocketFile();
}

}  // namespace tvbinder
}  // namespace android
