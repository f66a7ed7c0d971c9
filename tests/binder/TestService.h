#pragma once

#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <vector>

namespace tvtest {

// The object that test children serve. Each code exercises one behaviour of
// the transport from the serving side.
class TestService : public android::BBinder {
  public:
    enum : uint32_t {
        ECHO = android::IBinder::FIRST_CALL_TRANSACTION,  // int32 -> int32
        GET_CALLER,                                       // -> calling pid, calling uid
        CALL_BACK,  // binder, int32 -> what binder's ECHO returned, tid seen by it
        HOLD,       // binder: keep it
        DROP,       // forget the kept binder
        SEQUENCE,   // one-way int32: recorded in order
        BLOCK,      // one-way: blocks until UNBLOCK
        UNBLOCK,
        WRITE_FD,         // fd, string8 -> written to the fd
        BARRIER,          // int32 n: waits until n callers are inside -> distinct threads
        FAIL,             // -> returns -EINVAL
        SAME_AS_HELD,     // binder -> 1 if it is the held object
        HELD_CALL,        // int32 code, int32 arg -> first int32 of the held binder's reply
        GET_HELD,         // -> the held binder
        ECHO_BYTES,       // int32 n, n bytes -> the same
        GIVE_HELD,        // binder: sends it HOLD with the held binder
        SEQUENCE_VALUES,  // int32 n: waits for n records -> count, every record in order,
                          // the most run at once
        NEW_OBJECT,       // -> a new TestService of this process, kept alive only by its holders
        LIVE_OBJECTS,     // -> how many objects made by NEW_OBJECT in this process are alive
        SET_REPLY_ERROR,  // int32 v: sets error v on the reply and returns NO_ERROR
        RELAY_CALL_BACK,  // binder target, binder object, int32 -> target's CALL_BACK reply
        EXEC,             // one-way: replaces the process with /bin/sleep 60
    };

    const android::String16& getInterfaceDescriptor() const override;
    // True once a BLOCK runs, waiting for it up to 20 s.
    bool waitUntilBlocked();

  protected:
    ~TestService() override;
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

  private:
    android::sp<android::IBinder> held();
    android::status_t recordSequence(int32_t value);
    android::status_t reportSequence(int32_t expected, android::Parcel* reply);
    android::status_t barrier(int32_t parties, android::Parcel* reply);
    android::status_t relayCallBack(const android::Parcel& data, android::Parcel* reply);

    std::mutex mLock;
    std::condition_variable mChanged;
    android::sp<android::IBinder> mHeld;
    std::vector<int32_t> mSequence;
    int mRunningOneWays = 0;
    int mMaxRunningOneWays = 0;
    bool mBlocked = false;
    bool mUnblocked = false;
    int mInsideBarrier = 0;
    std::set<int> mBarrierThreads;
    bool mCounted = false;  // made by NEW_OBJECT
};

// Serves a TestService under the name given as first argument, tells the
// test "ready", then waits for "quit". On "relay MIDDLE FAR [blocked]" (after
// its BLOCK runs) its main thread has MIDDLE relay a call back from FAR to an
// object of this process, and answers "<status> <1 if the call back ran on
// that thread>". Options: --no-pool, --max-threads=N, --name=NAME
// (process name), --nofile=N (soft RLIMIT_NOFILE), --leave-fds=N (holds
// descriptors until only N are left below that limit), --no-new-threads (no
// thread can start once the pool's first has).
int serveTestService(const std::vector<std::string>& args);

}  // namespace tvtest
