#include "peers/AcceptedConnection.h"

namespace android {
namespace tvbinder {

AcceptedConnection::AcceptedConnection(const sp<Connection>& connection,
                                       const sp<PeerAccount>& account, bool answersHello,
                                       const Handlers& handlers)
    : mConnection(connection), mAccount(account), mAnswersHello(answersHello), mHandlers(handlers) {
    mConnection->chargeBodiesTo(account);
}

AcceptedConnection::~AcceptedConnection() {
    // Counted until here: a dropped link lives on while its one-ways wait.
    mAccount->connectionGone(isLink());
}

bool AcceptedConnection::introduce(const sp<Peer>& peer, bool asLink) {
    mPeer = peer;
    if (!asLink) {
        mRole.store(Role::kCalls, std::memory_order_release);
        return true;
    }
    if (!mAccount->takeLink()) return false;
    mRole.store(Role::kLink, std::memory_order_release);
    return true;
}

AcceptedConnection::Handler& AcceptedConnection::handler() const {
    switch (role()) {
        case Role::kNew:
            return mHandlers.introductions;
        case Role::kCalls:
            return mHandlers.calls;
        case Role::kLink:
            break;
    }
    return mHandlers.link;
}

void AcceptedConnection::onEvent(uint32_t /*events*/) {
    const sp<AcceptedConnection> self(this);
    mHandoff.load(std::memory_order_acquire);
    handler().onReadable(self);
}

bool AcceptedConnection::onEventStandingIn(uint32_t /*events*/) {
    const sp<AcceptedConnection> self(this);
    mHandoff.load(std::memory_order_acquire);
    return handler().onReadableStandingIn(self);
}

}  // namespace tvbinder
}  // namespace android
