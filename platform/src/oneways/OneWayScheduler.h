#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <deque>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "base/Token.h"
#include "threads/PoolTask.h"
#include "wire/Connection.h"

namespace android {
namespace tvbinder {

class Runtime;

// A one-way transaction received and resolved, waiting for its object.
struct PendingOneWay {
    sp<BBinder> target;  // kept alive while the call is in flight
    sp<Connection> from;
    uint32_t code = 0;
    uint32_t flags = 0;
    Parcel data;
    uint64_t cost = 0;  // what it counts against its link's budget
    BodyCharge charge;  // a large body stays charged to its sender until it ran
};

// Runs received one-ways: those of one object one at a time, in the order
// they arrived; those of different objects on different pool threads, so
// that a stream to one object delays another by at most one handler's run.
// Each object with work is one pool task. When a call is done its link is
// credited, and the sender told once enough was consumed. Owned by the
// Runtime; enqueue() is called by the thread that reads a link, run by pool
// threads.
class OneWayScheduler {
  public:
    explicit OneWayScheduler(Runtime& runtime) : mRuntime(runtime) {}

    // Queues `call` behind the object's earlier ones; posts the object to
    // the pool (without waking a thread: the reader runs the pool's queue
    // next) if it had no work.
    void enqueue(const Token& token, std::unique_ptr<PendingOneWay> call);
    // The object is gone: its (idle) queue goes too.
    void forget(const Token& token);
    // Credits a one-way that will not run (its object is not held).
    void consumed(Connection& link, uint64_t cost);
    // The sender found its budget spent: it is told what was consumed now,
    // or as soon as a call finishes.
    void onAckRequest(Connection& link);

  private:
    // The one-ways of one object, kept while the object lives. Posted to the
    // pool while it has work and no thread runs it; `scheduled` stays set
    // from the post until it runs dry.
    class ObjectQueue : public PoolTask {
      public:
        explicit ObjectQueue(OneWayScheduler& scheduler) : scheduler(scheduler) {}
        void run() override;

        OneWayScheduler& scheduler;
        std::deque<std::unique_ptr<PendingOneWay>> calls;  // guarded by the scheduler's lock
        bool scheduled = false;
        bool started = false;  // a call of this turn was taken
    };

    std::unique_ptr<PendingOneWay> next(const sp<ObjectQueue>& queue, bool* repost);
    void execute(PendingOneWay& call);
    void sendAck(Connection& link, uint64_t consumed);

    Runtime& mRuntime;
    std::mutex mLock;  // guards mQueues and every ObjectQueue's calls
    std::unordered_map<Token, sp<ObjectQueue>, TokenHash> mQueues;
};

}  // namespace tvbinder
}  // namespace android
