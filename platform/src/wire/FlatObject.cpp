#include "wire/FlatObject.h"

#include <binder/Binder.h>
#include <binder/BpBinder.h>
#include <binder/ProcessState.h>

#include "peers/Peer.h"
#include "runtime/Runtime.h"

namespace android {
namespace tvbinder {

status_t flattenBinder(const sp<IBinder>& binder, FlatObject* out) {
    Runtime& runtime = ProcessState::self()->runtime();
    out->type = FlatObject::kTypeBinder;
    out->reserved = 0;
    Token token;
    if (BBinder* local = binder->localBinder()) {
        token = runtime.exports().tokenFor(local);
        out->endpoint = runtime.endpoint();
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

}  // namespace tvbinder
}  // namespace android
