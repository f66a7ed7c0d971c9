#pragma once

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace tavrin_binder {

// What a monitor is shown of one tavrin transaction of this process.
enum class CallKind : uint8_t { kCall, kMasterCall, kUpCall, kNotify, kNotifyWait };

const char* callKindName(CallKind kind);

struct CallRecord {
    double time = 0;               // start, in seconds since the epoch
    int from = 0;                  // calling or notifying process
    int to = 0;                    // called or notified process
    const void* source = nullptr;  // the carrier or notifier manager that recorded it
    CallKind kind = CallKind::kCall;
    std::string className;  // of the value sent; "" when none could be read
    size_t bytes = 0;       // of the request
    double micros = -1;     // duration of a synchronous one; < 0 for a one-way
    int status = 0;
};

// The records of this process's tavrin transactions, kept for the monitors
// that read them (`tavrin monitor`, through the carriers' dump request).
//
// Nothing is recorded until a monitor first reads: until then the hooks cost
// one relaxed load of attached(). Records go into a ring of kCapacity; a
// monitor that reads too slowly loses the oldest and is told how many. A
// monitor that stops reading for kLease detaches: recording stops and the
// ring is freed. Hooks never wait for a monitor: reading copies the records
// out under the lock and writes them to the monitor afterwards.
//
// One per process, never destroyed (pool threads record until the end).
// Any thread; mLock guards everything but the flag.
class CallMonitor {
  public:
    static constexpr size_t kCapacity = 4096;
    static constexpr std::chrono::seconds kLease{5};

    static CallMonitor& self();
    static bool attached() { return sAttached.load(std::memory_order_relaxed); }

    void record(CallRecord record);

    // What one read hands a monitor.
    struct Batch {
        uint64_t next = 0;                                        // the cursor of the next read
        uint64_t dropped = 0;                                     // records lost since `cursor`
        std::vector<std::pair<CallRecord, std::string>> records;  // with their service names
    };
    // Attaches, or keeps attached; `sources` (a carrier and its notifier
    // manager) record under `name` from now on. A negative cursor starts a
    // monitor: no records, the cursor to read from.
    Batch read(const std::vector<const void*>& sources, const std::string& name, int64_t cursor);

  private:
    CallMonitor() = default;
    bool leaseExpiredLocked(std::chrono::steady_clock::time_point now) const;
    void detachLocked();

    static inline std::atomic<bool> sAttached{false};

    std::mutex mLock;
    std::vector<CallRecord> mRing;  // kCapacity slots while attached
    uint64_t mNext = 0;             // sequence number of the next record
    uint64_t mFirstKept = 0;        // the first record since the ring was made
    std::map<const void*, std::string> mNames;
    std::chrono::steady_clock::time_point mLastRead;
};

}  // namespace tavrin_binder
