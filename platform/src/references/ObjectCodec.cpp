#define LOG_TAG "tvbinder"

#include "references/ObjectCodec.h"

#include <log/log.h>

#include <algorithm>

#include "base/LogLimit.h"
#include "peers/Peer.h"
#include "peers/PeerTable.h"
#include "references/ExportTable.h"
#include "references/ProxyTable.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

namespace {

// Processes this one does not know yet that one frame may name: each costs a
// peer, a connection attempt and the releases sent to it.
constexpr size_t kMaxNewEndpointsPerFrame = 64;

}  // namespace

status_t ObjectCodec::flatten(const sp<IBinder>& binder, FlatObject* out) {
    out->type = FlatObject::kTypeBinder;
    out->reserved = 0;
    Token token;
    if (BBinder* local = binder->localBinder()) {
        token = mExports.tokenFor(local);
        out->endpoint = mOwnEndpoint;
    } else if (BpBinder* proxy = binder->remoteBinder()) {
        token = Token{proxy->tokenHi(), proxy->tokenLo()};
        out->endpoint = proxy->owner()->endpoint();
    } else {
        return BAD_TYPE;
    }
    out->tokenHi = token.hi;
    out->tokenLo = token.lo;
    return NO_ERROR;
}

status_t ObjectCodec::prepare(const Parcel& parcel, Peer& destination, GrantRequester& grants,
                              OutgoingTransaction* out) {
    if (parcel.dataSize() > kMaxTransactionSize) {
        ALOGW("transaction of %zu bytes is too large", parcel.dataSize());
        return FAILED_TRANSACTION;
    }
    OutgoingFrame& frame = out->frame;
    frame.data = parcel.data();
    frame.header.dataSize = static_cast<uint32_t>(parcel.dataSize());
    for (const Parcel::Object& object : parcel.ipcObjects()) {
        frame.offsets.push_back(static_cast<uint32_t>(object.offset));
        status_t status = NO_ERROR;
        if (object.binder == nullptr) {
            frame.fds.push_back(object.fd);
        } else if (BBinder* local = object.binder->localBinder()) {
            const Token token = mExports.tokenFor(local);
            status = mExports.grant(token, destination);
            if (status == NO_ERROR) out->localGrants.push_back(token);
        } else if (BpBinder* proxy = object.binder->remoteBinder()) {
            // Back to its owner it becomes the owner's object again: nothing to
            // grant. An object whose owner died travels as it is: the receiver
            // finds it dead.
            if (proxy->owner()->endpoint() != destination.endpoint()) {
                status = grants.requestGrant(*proxy, destination.endpoint());
                if (status == DEAD_OBJECT && proxy->owner()->isDead()) status = NO_ERROR;
            }
        }
        if (status != NO_ERROR) {
            undo(*out, destination);
            out->localGrants.clear();
            return status;
        }
    }
    return NO_ERROR;
}

void ObjectCodec::undo(const OutgoingTransaction& transaction, const Peer& destination) {
    for (const Token& token : transaction.localGrants) {
        // Dropped here, without any transport lock, if it was the last.
        sp<BBinder> last = mExports.release(token, destination.endpoint(), 1);
    }
}

bool ObjectCodec::namesFewNewProcesses(const Frame& frame, const Peer& from) {
    std::vector<uint64_t> newEndpoints;
    for (uint32_t offset : frame.offsets) {
        const FlatObject record = frame.recordAt(offset);
        const uint64_t endpoint = record.endpoint;
        if (record.type != FlatObject::kTypeBinder || endpoint == mOwnEndpoint ||
            endpoint == from.endpoint() ||
            std::find(newEndpoints.begin(), newEndpoints.end(), endpoint) != newEndpoints.end() ||
            mPeers.find(endpoint) != nullptr) {
            continue;
        }
        if (newEndpoints.size() == kMaxNewEndpointsPerFrame) return false;
        newEndpoints.push_back(endpoint);
    }
    return true;
}

status_t ObjectCodec::decode(Frame& frame, const Session& from, Parcel* out) {
    // Refused before anything is resolved. The references that third
    // processes granted for it stay counted there until this process ends.
    if (!namesFewNewProcesses(frame, from.peer)) {
        TV_ALOGW_LIMITED("pid %d named too many processes in one transaction",
                         from.connection.peerPid());
        return FAILED_TRANSACTION;
    }
    std::vector<Parcel::Object> objects;
    objects.reserve(frame.offsets.size());
    size_t nextFd = 0;
    status_t status = NO_ERROR;
    // Every record is resolved, even after a bad one, so that each granted
    // reference reaches its proxy and is given back with it.
    for (uint32_t offset : frame.offsets) {
        const FlatObject record = frame.recordAt(offset);
        Parcel::Object object;
        object.offset = offset;
        if (record.type == FlatObject::kTypeFd) {
            object.fd = frame.fds()[nextFd++];
        } else {
            object.binder = resolve(record, from);
            if (object.binder == nullptr) {
                TV_ALOGW_LIMITED("pid %d sent an object it does not hold",
                                 from.connection.peerPid());
                status = BAD_VALUE;
            }
        }
        objects.push_back(std::move(object));
    }
    if (status != NO_ERROR) return status;
    frame.releaseFds();  // now owned through `objects`
    out->ipcSetReceived(frame.releaseData(), frame.header.dataSize, std::move(objects));
    return NO_ERROR;
}

sp<IBinder> ObjectCodec::resolve(const FlatObject& record, const Session& from) {
    const Token token{record.tokenHi, record.tokenLo};
    if (record.endpoint == mOwnEndpoint) return mExports.lookup(token, from.peer.endpoint());
    sp<Peer> owner = mPeers.obtain(record.endpoint);
    sp<BpBinder> proxy = mProxies.obtain(owner, token);
    proxy->addGrantedReference();
    return proxy;
}

sp<BBinder> ObjectCodec::target(const Frame& frame, const Peer& from) {
    return mExports.lookup(frame.token(), from.endpoint());
}

}  // namespace tvbinder
}  // namespace android
