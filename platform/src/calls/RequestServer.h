#pragma once

#include <binder/Parcel.h>
#include <stdint.h>

#include "peers/Session.h"
#include "references/ObjectCodec.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class ExportTable;
class PeerTable;

// Runs what a peer asks of this process on a session, a synchronous
// transaction or a grant request, and answers it there. Called by pool
// threads (CallReception) and by threads that serve the calls coming back to
// them while they wait for a reply (Caller). Owned by the Runtime.
class RequestServer {
  public:
    RequestServer(ObjectCodec& objects, ExportTable& exports, PeerTable& peers,
                  uint64_t ownEndpoint)
        : mObjects(objects), mExports(exports), mPeers(peers), mOwnEndpoint(ownEndpoint) {}

    // Runs the request in `frame` and replies. Objects in the reply that
    // belong to third processes are granted through `grants`.
    void serve(const Session& session, Frame& frame, GrantRequester& grants);
    // Answers a request with `status` and, when it is NO_ERROR, `reply`'s
    // contents (an error set on the reply, whatever its sign, replaces them).
    // A reply that cannot be sent breaks the connection.
    void reply(const Session& session, status_t status, const Parcel& reply,
               GrantRequester& grants);

  private:
    [[nodiscard]] status_t grant(const Session& session, const Frame& frame);

    ObjectCodec& mObjects;
    ExportTable& mExports;
    PeerTable& mPeers;
    const uint64_t mOwnEndpoint;
};

}  // namespace tvbinder
}  // namespace android
