#pragma once

#include <binder/Binder.h>
#include <stdint.h>

#include <optional>
#include <unordered_map>
#include <vector>

#include "base/Locks.h"
#include "base/Token.h"

namespace android {
namespace tvbinder {

class Peer;

// The local objects that left this process. Each has a token and, per peer
// endpoint, the number of references granted to that peer; while any count is
// above zero the table keeps the object alive. Owned by the Runtime; any
// thread. References it hands back may be the last: they are dropped after
// its lock (an object's destructor calls forget()).
class ExportTable {
  public:
    // The object's token, given on first use.
    Token tokenFor(BBinder* binder);
    // The object named by `token` if `holder` was granted a reference to it
    // (anyone may reach the context object); null otherwise.
    sp<BBinder> lookup(const Token& token, uint64_t holder);
    // Counts one more reference for `holder`. DEAD_OBJECT (and nothing
    // counted) when the holder turns out to be dead.
    [[nodiscard]] status_t grant(const Token& token, const Peer& holder);
    // Drops up to `count` of the holder's references. The returned reference
    // (possibly the last) must be dropped without any transport lock held.
    [[nodiscard]] sp<BBinder> release(const Token& token, uint64_t holder, uint64_t count);
    // Drops all references of a dead holder.
    [[nodiscard]] std::vector<sp<BBinder>> dropHolder(uint64_t holder);
    // Called when an object is destroyed: its token, if it had one.
    std::optional<Token> forget(const BBinder* binder);

    // Serves `object` under the context token for as long as the process lives.
    void setContextObject(const sp<BBinder>& object);
    sp<BBinder> contextObject();

    // Objects alive only because other processes hold them.
    size_t heldCount();

  private:
    struct Entry {
        wp<BBinder> weak;
        sp<BBinder> strong;  // set while references are held
        std::unordered_map<uint64_t, uint64_t> holders;
        bool permanent = false;
    };
    sp<BBinder> releaseLocked(Entry& entry, uint64_t holder, uint64_t count) TV_REQUIRES(mLock);

    Mutex mLock{LockRank::kExports};
    std::unordered_map<Token, Entry, TokenHash> mEntries TV_GUARDED_BY(mLock);
    std::unordered_map<const BBinder*, Token> mTokens TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
