#pragma once

#include <utils/Errors.h>

#include <deque>

#include "base/EventSource.h"
#include "base/Locks.h"
#include "base/TransportFds.h"
#include "peers/AcceptedConnection.h"
#include "runtime/RefusalLog.h"

namespace android {
namespace tvbinder {

class AcceptedConnections;
class Listener;
class PeerAccounts;
class ThreadPool;

// Takes the connections other processes make to this one's listeners. Other
// users' are refused, and so are those beyond their process's share; when all
// are taken, a newcomer holding fewer than the process that holds the most
// gets in and one of that process's connections is closed. When no
// descriptor is left, a spare one is given up to accept the waiting
// connection and close it, so that the listener never spins. What is
// admitted is listed in AcceptedConnections, whose HELLO comes next. Owned by
// the Runtime; pool threads, and threads waiting for a reply that stand in
// for them.
class Acceptor {
  public:
    Acceptor(ThreadPool& pool, PeerAccounts& accounts, AcceptedConnections& accepted,
             const AcceptedConnection::Handlers& handlers)
        : mPool(pool), mAccounts(accounts), mAccepted(accepted), mHandlers(handlers) {}

    // Sets the spare descriptor aside.
    void init();
    // Accepts on `listener` from now on. The listener lives as long as the
    // process.
    void watch(Listener& listener);

  private:
    // A listener's registration in epoll.
    class Watch : public EventSource {
      public:
        Watch(Acceptor& acceptor, Listener& listener) : mAcceptor(acceptor), mListener(listener) {}
        void onEvent(uint32_t events) override;
        // Accepting runs no application code and waits for nothing.
        bool onEventStandingIn(uint32_t events) override {
            onEvent(events);
            return true;
        }
        Listener& listener() const { return mListener; }

      private:
        Acceptor& mAcceptor;
        Listener& mListener;
    };
    // Out of descriptors: the spare one makes room to accept the waiting
    // connection, if one still waits, and close it at once.
    enum class SpareOutcome { kRefusedOne, kNoneWaiting, kNoDescriptor };

    void acceptAll(Watch& watch);
    SpareOutcome refuseWaitingConnection(Listener& listener);
    // Counts the connection against its process and lists it, or refuses
    // it; `pass` counts either.
    void admit(const sp<Connection>& connection, bool answersHello, RefusalLog::Counts* pass);
    void tell(const RefusalLog::Counts& pass);
    // Re-arms the listener after a pause, on a pool thread.
    void rearmLater(Watch& watch);

    ThreadPool& mPool;
    PeerAccounts& mAccounts;
    AcceptedConnections& mAccepted;
    const AcceptedConnection::Handlers mHandlers;

    Mutex mLock{LockRank::kAcceptor};
    std::deque<Watch> mWatches TV_GUARDED_BY(mLock);  // stable addresses
    ScopedFd mSpareFd TV_GUARDED_BY(mLock);
    RefusalLog mRefusals TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
