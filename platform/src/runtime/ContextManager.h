#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <stdint.h>

#include <condition_variable>
#include <memory>
#include <string>

#include "base/Locks.h"
#include "wire/Listener.h"

namespace android {
namespace tvbinder {

class Acceptor;
class ExportTable;
class PeerTable;
class ProxyTable;

// The context manager's object as this process sees it: served here once the
// process claimed the context's address (ctx-<context>), else the proxy of
// the process that listens there, reconnected once it died. Clients keep the
// proxy while it lives, so the object keeps one identity. Owned by the
// Runtime; any thread.
class ContextManager {
  public:
    ContextManager(Acceptor& acceptor, ExportTable& exports, PeerTable& peers, ProxyTable& proxies,
                   std::string context, uint64_t ownEndpoint)
        : mAcceptor(acceptor),
          mExports(exports),
          mPeers(peers),
          mProxies(proxies),
          mContext(std::move(context)),
          mOwnEndpoint(ownEndpoint) {}

    const std::string& context() const { return mContext; }
    // The local object when this process serves the context, else the
    // manager's proxy; null while no context manager listens.
    sp<IBinder> object();
    // Listens on the context's address: false when a live process has it.
    [[nodiscard]] bool claim();
    // Serves `object` as the context manager's object.
    void setObject(const sp<BBinder>& object);
    // At a clean exit: the context's socket file goes, if this process made it.
    void removeSocketFile();

  private:
    enum class Claim { kNone, kClaiming, kServing };
    sp<BpBinder> connect();

    Acceptor& mAcceptor;
    ExportTable& mExports;
    PeerTable& mPeers;
    ProxyTable& mProxies;
    const std::string mContext;
    const uint64_t mOwnEndpoint;

    Mutex mLock{LockRank::kContextManager};
    // A claim in progress listens without the lock: others wait for it here.
    std::condition_variable_any mClaimed;
    Claim mClaim TV_GUARDED_BY(mLock) = Claim::kNone;
    std::unique_ptr<Listener> mListener TV_GUARDED_BY(mLock);
    sp<BpBinder> mProxy TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
