#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "calls/ChainRegistry.h"
#include "calls/Dispatcher.h"
#include "oneways/LinkReader.h"
#include "oneways/LinkStallGuard.h"
#include "oneways/OneWayScheduler.h"
#include "peers/Peer.h"
#include "peers/PeerTable.h"
#include "references/ExportTable.h"
#include "references/ProxyTable.h"
#include "threads/ThreadPool.h"
#include "wire/Connection.h"
#include "wire/Listener.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

// Everything the transport keeps for one process: its endpoint and listener,
// the tables of exported objects, proxies and peers, the accepted connections
// and the thread pool. Made with the first ProcessState; never destroyed,
// because pool threads use it until the process ends (a child made by fork()
// abandons its parent's and makes its own).
class Runtime {
  public:
    // The process's runtime, or null before the first ProcessState.
    static Runtime* current();
    // Makes the runtime of this process (ProcessState does, under its lock).
    static Runtime* create();
    // In a child made by fork(): the parent's runtime is no longer current.
    static void abandonInChild();

    uint64_t endpoint() const { return mEndpoint; }
    const std::string& context() const { return mContext; }
    bool isCurrent() const { return current() == this; }

    ExportTable& exports() { return mExports; }
    ProxyTable& proxies() { return mProxies; }
    PeerTable& peers() { return mPeers; }
    ThreadPool& pool() { return mPool; }
    Dispatcher& dispatcher() { return mDispatcher; }
    OneWayScheduler& oneWays() { return mOneWays; }
    LinkStallGuard& stallGuard() { return mStallGuard; }
    ChainRegistry& chains() { return mChains; }
    // True when another frame arrived on `connection` within a short wait;
    // false at once when no other pool thread is free for other work.
    bool lingerOn(const Connection& connection);

    // The context manager's object: local when this process serves it, else
    // the proxy of the manager that listens on the context's address.
    sp<IBinder> contextObject();
    bool becomeContextManager();
    void setContextObject(const sp<BBinder>& object);

    // At a clean exit: this process's socket files go.
    void removeSocketFiles();

    // Pool thread entry: one event from epoll.
    void onEvent(EventSource* source, uint32_t events);
    // Watches the peer's pidfd; the registration holds a reference to it.
    void watchPeer(Peer* peer, int pidfd);
    // The peer is gone (exited, exec'd, or its endpoint refuses us): the first
    // call marks it dead and has a pool thread drop the references it held
    // and deliver the death notices of its proxies.
    void peerLost(const sp<Peer>& peer);
    // Has a pool thread deliver the death notices of a proxy whose owner died.
    void deliverObituaries(const sp<BpBinder>& proxy);
    // Hands an accepted connection back to epoll, or drops it.
    void rearm(const sp<Connection>& connection);
    void drop(const sp<Connection>& connection);

  private:
    Runtime();
    status_t init();
    void acceptAll(Listener& listener);
    // Out of descriptors: the spare one makes room to accept the waiting
    // connection, if one still waits, and close it at once.
    enum class SpareOutcome { kRefusedOne, kNoneWaiting, kNoDescriptor };
    SpareOutcome refuseWaitingConnection(Listener& listener);
    // Counts the connection against its process and lists it: false when
    // refused.
    bool admit(const sp<Connection>& connection);
    // Closes one connection of `account`'s process to make room: false when
    // it has none to give up.
    bool evictOneLocked(const PeerAccount& account);
    // Re-arms the listener after a pause, on a pool thread.
    void rearmLater(Listener& listener);
    void onPeerExited(Peer* peer);
    void forgetDeadPeer(const sp<Peer>& peer);
    sp<BpBinder> connectToContextManager();

    const uint64_t mEndpoint;
    const std::string mContext;
    ExportTable mExports;
    ProxyTable mProxies;
    PeerTable mPeers;
    ThreadPool mPool;
    Dispatcher mDispatcher;
    LinkReader mLinks;
    OneWayScheduler mOneWays;
    LinkStallGuard mStallGuard;
    ChainRegistry mChains;
    PeerAccounts mAccounts;
    Listener mListener{false};

    std::mutex mLock;  // guards everything below
    std::unique_ptr<Listener> mContextListener;
    sp<BpBinder> mContextProxy;
    std::unordered_map<Connection*, sp<Connection>> mAccepted;
    ScopedFd mSpareFd;
};

}  // namespace tvbinder
}  // namespace android
