#pragma once

#include <stddef.h>
#include <stdint.h>

#include <mutex>

// Clang's thread-safety analysis (-Wthread-safety) checks these; other
// compilers ignore them. Prefixed: the platform's utils/Mutex.h defines the
// usual names too.
#if defined(__clang__)
#define TV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TV_THREAD_ANNOTATION(x)
#endif
#define TV_CAPABILITY(x) TV_THREAD_ANNOTATION(capability(x))
#define TV_SCOPED_CAPABILITY TV_THREAD_ANNOTATION(scoped_lockable)
#define TV_GUARDED_BY(x) TV_THREAD_ANNOTATION(guarded_by(x))
#define TV_ACQUIRED_BEFORE(...) TV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define TV_ACQUIRED_AFTER(...) TV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define TV_REQUIRES(...) TV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TV_ACQUIRE(...) TV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TV_RELEASE(...) TV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TV_TRY_ACQUIRE(...) TV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define TV_NO_THREAD_SAFETY_ANALYSIS TV_THREAD_ANNOTATION(no_thread_safety_analysis)

// Debug and sanitizer builds check at run time what the analysis cannot see
// across functions: the order in which a thread takes transport locks, and
// that it holds none where application code runs.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define TVBINDER_CHECK_LOCKS 1
#endif
#endif
#if !defined(TVBINDER_CHECK_LOCKS) && \
    (!defined(NDEBUG) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__))
#define TVBINDER_CHECK_LOCKS 1
#endif

namespace android {
namespace tvbinder {

// The transport's locks in the order a thread may take them: one of a later
// rank may be taken while holding one of an earlier rank, never the other way
// round, and never two of one rank. docs/transport.md says why each nesting
// exists; every other lock is a leaf.
enum class LockRank : uint8_t {
    kProcess,          // ProcessState: the process's runtime; held across fork()
    kContextManager,   // ContextManager: claim of the context, its proxy
    kPeer,             // Peer: pid and pidfd, then counted in the PeerTable
    kPeerTable,        // PeerTable: peers, endpoints per process
    kOutgoingLink,     // OutgoingLink: the link and the releases waiting
    kCallConnections,  // CallConnections: idle call connections
    kAccepted,         // AcceptedConnections: the accepted connections
    kAcceptor,         // Acceptor: listeners watched, the spare descriptor
    kChannelSend,      // ShmFrameChannel: one sender at a time on its ring
    kChannelReceive,   // ShmFrameChannel: one receiver at a time on its ring
    kExports,          // ExportTable
    kProxies,          // ProxyTable: revives and retires proxies
    kAccounts,         // PeerAccounts
    kPoolThreads,      // ThreadPool: thread counts
    kPoolTasks,        // ThreadPool: posted tasks
    kPoolLingers,      // ThreadPool: threads lingering on a source
    kOneWays,          // OneWayScheduler: queues per object
    kStallGuard,       // LinkStallGuard: links held
    kChains,           // ChainRegistry: waiting threads, then their mailbox
    kMailbox,          // ChainMailbox: handed calls; makes its eventfd
    kSocketDirectory,  // SocketDirectory: the directory chosen
    kRingTrimmer,      // RingTrimmer: connections whose rings widened
    kPoolDelayed,      // DelayedTasks: work waiting for its time
    kDescriptors,      // TransportFds: every descriptor opened or closed
};

const char* lockRankName(LockRank rank);

// Transport locks held by the calling thread, counted in builds that check
// locks (0 in others).
class HeldLocks {
  public:
    static size_t count();
    // Aborts, naming `where`, when the calling thread holds a transport lock:
    // before application code runs (a handler, a death notice). Checking
    // builds only.
    static void expectNone(const char* where);

  private:
    friend class Mutex;
    static void acquired(LockRank rank);
    static void released(LockRank rank);
};

// A transport mutex: a std::mutex with its rank.
class TV_CAPABILITY("mutex") Mutex {
  public:
    explicit Mutex(LockRank rank) : mRank(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() TV_ACQUIRE() {
#if TVBINDER_CHECK_LOCKS
        HeldLocks::acquired(mRank);
#endif
        mMutex.lock();
    }
    // Takes it only if that needs no wait.
    bool tryLock() TV_TRY_ACQUIRE(true) {
        if (!mMutex.try_lock()) return false;
#if TVBINDER_CHECK_LOCKS
        HeldLocks::acquired(mRank);
#endif
        return true;
    }
    void unlock() TV_RELEASE() {
        mMutex.unlock();
#if TVBINDER_CHECK_LOCKS
        HeldLocks::released(mRank);
#endif
    }

  private:
    std::mutex mMutex;
    [[maybe_unused]] const LockRank mRank;  // checked in checking builds only
};

// Holds a Mutex for its scope.
class TV_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Mutex& mutex) TV_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    ~LockGuard() TV_RELEASE() { mMutex.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Mutex& mMutex;
};

}  // namespace tvbinder
}  // namespace android
