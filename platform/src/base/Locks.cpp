#define LOG_TAG "tvbinder"

#include "base/Locks.h"

#include <log/log.h>

namespace android {
namespace tvbinder {

namespace {

// Deeper nesting than any the transport has.
constexpr size_t kMaxHeld = 8;

struct Held {
    LockRank ranks[kMaxHeld];
    size_t count = 0;
};

thread_local Held tHeld;

}  // namespace

const char* lockRankName(LockRank rank) {
    static const char* const kNames[] = {
        "ProcessState",    "ContextManager", "Peer",          "PeerTable",     "OutgoingLink",
        "CallConnections", "accepted",       "Acceptor",      "channel send",  "channel receive",
        "ExportTable",     "ProxyTable",     "PeerAccounts",  "pool threads",  "pool tasks",
        "pool lingers",    "one-ways",       "stall guard",   "ChainRegistry", "ChainMailbox",
        "SocketDirectory", "ring trimmer",   "delayed tasks", "descriptors",
    };
    static_assert(
        sizeof(kNames) / sizeof(kNames[0]) == static_cast<size_t>(LockRank::kDescriptors) + 1,
        "a name for each rank");
    const size_t index = static_cast<size_t>(rank);
    return index < sizeof(kNames) / sizeof(kNames[0]) ? kNames[index] : "?";
}

size_t HeldLocks::count() {
    return tHeld.count;
}

void HeldLocks::expectNone(const char* where) {
#if TVBINDER_CHECK_LOCKS
    LOG_ALWAYS_FATAL_IF(tHeld.count != 0, "%s with the %s lock held", where,
                        lockRankName(tHeld.ranks[tHeld.count - 1]));
#else
    (void)where;
#endif
}

void HeldLocks::acquired(LockRank rank) {
    Held& held = tHeld;
    for (size_t i = 0; i < held.count; ++i) {
        LOG_ALWAYS_FATAL_IF(held.ranks[i] >= rank, "the %s lock taken while holding the %s lock",
                            lockRankName(rank), lockRankName(held.ranks[i]));
    }
    LOG_ALWAYS_FATAL_IF(held.count == kMaxHeld, "more than %zu transport locks held", kMaxHeld);
    held.ranks[held.count++] = rank;
}

void HeldLocks::released(LockRank rank) {
    Held& held = tHeld;
    // Released in any order: a condition variable's wait lets go of an outer one.
    for (size_t i = held.count; i-- > 0;) {
        if (held.ranks[i] != rank) continue;
        for (size_t j = i + 1; j < held.count; ++j) held.ranks[j - 1] = held.ranks[j];
        --held.count;
        return;
    }
    LOG_ALWAYS_FATAL("the %s lock released but not held", lockRankName(rank));
}

}  // namespace tvbinder
}  // namespace android
