#pragma once

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <vector>

#include "base/Token.h"
#include "peers/Session.h"
#include "wire/FlatObject.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class ExportTable;
class Peer;
class PeerTable;
class ProxyTable;

// Asks the owner of a proxy to grant the object to a third process: a round
// trip, made by the calls layer.
class GrantRequester {
  public:
    [[nodiscard]] virtual status_t requestGrant(BpBinder& proxy, uint64_t holder) = 0;

  protected:
    virtual ~GrantRequester() = default;
};

// A frame to send, with the references granted for its objects (undone when
// it is not sent). Points into the Parcel it was prepared from.
struct OutgoingTransaction {
    OutgoingFrame frame;
    std::vector<Token> localGrants;
};

// Objects across the wire: a binder becomes a record naming its owner's
// endpoint and token, and the sender grants the receiver a reference before
// the frame leaves (a count in the ExportTable for a local object, a GRANT
// request to the owner of a proxy of a third process). A received record is
// resolved at once: to the local object, only if the sender holds it, else to
// the one proxy of that object, which takes the granted count. Owned by the
// Runtime; any thread.
class ObjectCodec {
  public:
    ObjectCodec(ExportTable& exports, ProxyTable& proxies, PeerTable& peers, uint64_t ownEndpoint)
        : mExports(exports), mProxies(proxies), mPeers(peers), mOwnEndpoint(ownEndpoint) {}

    // The record of a non-null binder, giving a local object its token on
    // first use. BAD_TYPE for a binder that is neither local nor a proxy.
    [[nodiscard]] status_t flatten(const sp<IBinder>& binder, FlatObject* out);

    // Fills `out`'s frame with the parcel (data, object offsets,
    // descriptors) and grants `destination` every object in it. Nothing is
    // left granted when it fails.
    [[nodiscard]] status_t prepare(const Parcel& parcel, Peer& destination, GrantRequester& grants,
                                   OutgoingTransaction* out);
    // The frame was not sent: its grants are taken back.
    void undo(const OutgoingTransaction& transaction, const Peer& destination);

    // Builds the received Parcel: descriptors and resolved objects.
    // FAILED_TRANSACTION when it names too many unknown processes, BAD_VALUE
    // when it names objects the sender does not hold.
    [[nodiscard]] status_t decode(Frame& frame, const Session& from, Parcel* out);
    // The local object a transaction from `from` is addressed to, if `from`
    // holds it (anyone may reach the context object).
    sp<BBinder> target(const Frame& frame, const Peer& from);

  private:
    sp<IBinder> resolve(const FlatObject& record, const Session& from);
    // False when the frame names more processes this one does not know than
    // one frame may.
    bool namesFewNewProcesses(const Frame& frame, const Peer& from);

    ExportTable& mExports;
    ProxyTable& mProxies;
    PeerTable& mPeers;
    const uint64_t mOwnEndpoint;
};

}  // namespace tvbinder
}  // namespace android
