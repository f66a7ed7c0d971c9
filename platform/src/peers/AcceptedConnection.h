#pragma once

#include <stdint.h>
#include <utils/RefBase.h>

#include <atomic>

#include "base/EventSource.h"
#include "peers/Peer.h"
#include "peers/Session.h"
#include "wire/Connection.h"
#include "wire/LinkBacklog.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

// A connection another process opened to this one, with what this process
// learns of it: the account of its process here, the peer it introduced
// itself as (HELLO), and what it is for: calls, or that peer's one-way link
// to this process, with the link's backlog. Registered in the pool's epoll
// set, its events go to the handler of its role. Held by AcceptedConnections
// from accept until dropped, and by whoever still works with it (a handed
// call, a queued one-way). Passed between pool threads through epoll
// (one-shot): the thread that took its event has it to itself until it hands
// it back.
class AcceptedConnection : public RefBase, public EventSource {
  public:
    enum class Role { kNew, kCalls, kLink };
    // What reads an accepted connection once it is readable (or closed). It
    // hands the connection back (AcceptedConnections) when done.
    class Handler {
      public:
        virtual void onReadable(const sp<AcceptedConnection>& connection) = 0;
        // The same for a thread that waits for a reply (see
        // EventSource::onEventStandingIn); false leaves it to the pool.
        virtual bool onReadableStandingIn(const sp<AcceptedConnection>& /*connection*/) {
            return false;
        }

      protected:
        virtual ~Handler() = default;
    };
    struct Handlers {
        Handler& introductions;  // kNew: the HELLO
        Handler& calls;          // kCalls
        Handler& link;           // kLink
    };

    AcceptedConnection(const sp<Connection>& connection, const sp<PeerAccount>& account,
                       bool answersHello, const Handlers& handlers);

    Connection& connection() const { return *mConnection; }
    pid_t peerPid() const { return mConnection->peerPid(); }
    // Counted against its process's share from accept until destroyed.
    const sp<PeerAccount>& account() const { return mAccount; }
    // Accepted on the context manager's address: the HELLO is answered.
    bool answersHello() const { return mAnswersHello; }
    Role role() const { return mRole.load(std::memory_order_acquire); }
    bool isLink() const { return role() == Role::kLink; }
    // Once introduced; for the thread that holds it, and those it lent it to.
    const sp<Peer>& peer() const { return mPeer; }
    Session session() const { return Session{*mConnection, *mPeer}; }
    // The link's one-ways waiting here (links only).
    LinkBacklog& backlog() { return mBacklog; }

    // The HELLO was accepted: the connection speaks for `peer` from now on,
    // for calls or as a link. A link takes one of its process's link shares:
    // false beyond them.
    [[nodiscard]] bool introduce(const sp<Peer>& peer, bool asLink);

    // The holder hands it to epoll (release), the next holder takes it
    // (acquire): what the kernel orders, made visible to the language's
    // memory model and race checkers as well.
    void handOff() { mHandoff.fetch_add(1, std::memory_order_release); }
    void onEvent(uint32_t events) override;
    bool onEventStandingIn(uint32_t events) override;

  private:
    ~AcceptedConnection() override;
    Handler& handler() const;

    const sp<Connection> mConnection;
    const sp<PeerAccount> mAccount;
    const bool mAnswersHello;
    const Handlers mHandlers;
    std::atomic<Role> mRole{Role::kNew};
    sp<Peer> mPeer;
    LinkBacklog mBacklog;
    std::atomic<uint32_t> mHandoff{0};
};

}  // namespace tvbinder
}  // namespace android
