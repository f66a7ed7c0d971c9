#pragma once

#include <stddef.h>
#include <stdint.h>
#include <utils/Errors.h>

#include <memory>

#include "RegionLayout.h"

namespace android {
namespace tvbinder {
namespace shm {

// One mapping of a connection's shared region and its memfd. The creator
// makes, sizes, seals and maps it; the other process adopts the descriptor it
// received and maps it only after checking that it is sealed against shrinking
// and growing and that its size is the one its header implies, so the peer can
// never make a mapped page disappear (no SIGBUS) nor make us map too little.
//
// The mapping is not inherited by a child made by fork(): a child never talks
// on its parent's connections.
//
// Owned by its ShmChannel; immutable once its memfd is closed, so any thread may
// use it.
class ShmRegion {
  public:
    // A new region with rings of `ringBytes` per direction (a power of two
    // within [kMinRingBytes, kMaxRingBytes]).
    static status_t create(size_t ringBytes, std::unique_ptr<ShmRegion>* out);
    // Takes ownership of `fd`, whatever the outcome. BAD_VALUE when it is not
    // a region made by create(): unsealed, of another size, a foreign header.
    static status_t adopt(int fd, std::unique_ptr<ShmRegion>* out);

    ~ShmRegion();
    ShmRegion(const ShmRegion&) = delete;
    ShmRegion& operator=(const ShmRegion&) = delete;

    // The memfd, to send to the peer at set-up; the region keeps it open
    // until closeFd() (-1 after): the mapping does not need it.
    int fd() const { return mFd; }
    // Closes the memfd once it is no longer needed (sent, or adopted): a
    // connection then costs no descriptor for its region. Before the region
    // is shared between threads.
    void closeFd();
    size_t ringBytes() const { return mRingBytes; }
    DirectionControl* control(int direction) const;
    // Gives the pages of a direction's ring from `from` on back to the system;
    // they read as zeros when touched again. The size stays: nothing faults.
    void discard(int direction, size_t from) const;
    uint8_t* data(int direction) const;

  private:
    ShmRegion(int fd, uint8_t* base, size_t ringBytes);
    static status_t map(int fd, size_t ringBytes, std::unique_ptr<ShmRegion>* out);

    int mFd;
    uint8_t* const mBase;
    const size_t mRingBytes;
};

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
