#pragma once

#include <binder/Binder.h>
#include <stdint.h>

#include <mutex>
#include <unordered_map>
#include <vector>

#include "base/Token.h"

namespace android {
namespace tvbinder {

class Peer;

// The local objects that left this process. Each has a token and, per peer
// endpoint, the number of references granted to that peer; while any count is
// above zero the table keeps the object alive.
class ExportTable {
  public:
    // The object's token, given on first use.
    Token tokenFor(BBinder* binder);
    // The object named by `token` if `holder` was granted a reference to it
    // (anyone may reach the context object); null otherwise.
    sp<BBinder> lookup(const Token& token, uint64_t holder);
    // Counts one more reference for `holder`. DEAD_OBJECT (and nothing
    // counted) when the holder turns out to be dead.
    status_t grant(const Token& token, const sp<Peer>& holder);
    // Drops up to `count` of the holder's references. The returned reference
    // (possibly the last) must be dropped without any transport lock held.
    sp<BBinder> release(const Token& token, uint64_t holder, uint64_t count);
    // Drops all references of a dead holder.
    std::vector<sp<BBinder>> dropHolder(uint64_t holder);
    // Called when an object is destroyed; its token, if it had one, in *token.
    bool forget(const BBinder* binder, Token* token);

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
    sp<BBinder> releaseLocked(Entry& entry, uint64_t holder, uint64_t count);

    std::mutex mLock;
    std::unordered_map<Token, Entry, TokenHash> mEntries;
    std::unordered_map<const BBinder*, Token> mTokens;
};

}  // namespace tvbinder
}  // namespace android
