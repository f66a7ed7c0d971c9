#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <deque>
#include <memory>
#include <unordered_map>

#include "base/Locks.h"
#include "base/Token.h"
#include "peers/AcceptedConnection.h"
#include "threads/PoolTask.h"

namespace android {
namespace tvbinder {

class ThreadPool;

// A one-way transaction received and resolved, waiting for its object.
struct PendingOneWay {
    sp<BBinder> target;           // kept alive while the call is in flight
    sp<AcceptedConnection> from;  // the link it came on
    uint32_t code = 0;
    uint32_t flags = 0;
    Parcel data;
    uint64_t cost = 0;  // what it counts against its link's budget
    BodyCharge charge;  // a large body stays charged to its sender until it ran
};

// Runs received one-ways: those of one object one at a time, in the order
// they arrived; those of different objects on different pool threads, so
// that a stream to one object delays another by at most one handler's run.
// Each object with work is one pool task. When a call is done its link's
// backlog is credited, and the sender told once enough was consumed. Owned
// by the Runtime; enqueue() is called by the thread that reads a link, the
// tasks run on pool threads.
class OneWayScheduler {
  public:
    explicit OneWayScheduler(ThreadPool& pool) : mPool(pool) {}

    // Queues `call` behind the object's earlier ones; posts the object to
    // the pool (without waking a thread: the reader runs the pool's queue
    // next) if it had no work.
    void enqueue(const Token& token, std::unique_ptr<PendingOneWay> call);
    // The object is gone: its (idle) queue goes too.
    void forget(const Token& token);
    // Credits a one-way that will not run (its object is not held).
    void consumed(AcceptedConnection& link, uint64_t cost);
    // The sender found its budget spent: it is told what was consumed now,
    // or as soon as a call finishes.
    void onAckRequest(AcceptedConnection& link);

  private:
    // The pool task of one object: runs its queue.
    class ObjectTask : public PoolTask {
      public:
        ObjectTask(OneWayScheduler& scheduler, const Token& token)
            : mScheduler(scheduler), mToken(token) {}
        void run() override;

      private:
        OneWayScheduler& mScheduler;
        const Token mToken;
    };
    // The one-ways of one object, kept while the object lives. Its task is
    // posted to the pool while it has work and no thread runs it;
    // `scheduled` stays set from the post until it runs dry.
    struct Queue {
        std::deque<std::unique_ptr<PendingOneWay>> calls;
        sp<ObjectTask> task;
        bool scheduled = false;
        bool started = false;  // a call of this turn was taken
    };
    struct Next {
        std::unique_ptr<PendingOneWay> call;  // null: nothing to run now
        bool repost = false;                  // other work waits: the task goes to the back
    };

    Next next(const Token& token);
    void execute(PendingOneWay& call);
    static void sendAck(AcceptedConnection& link, uint64_t consumed);

    ThreadPool& mPool;
    Mutex mLock{LockRank::kOneWays};
    std::unordered_map<Token, Queue, TokenHash> mQueues TV_GUARDED_BY(mLock);
};

}  // namespace tvbinder
}  // namespace android
