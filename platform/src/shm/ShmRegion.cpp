#include "ShmRegion.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace android {
namespace tvbinder {
namespace shm {
namespace {

constexpr int kRequiredSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL;

bool validRingBytes(size_t ringBytes) {
    return ringBytes >= kMinRingBytes && ringBytes <= kMaxRingBytes &&
           (ringBytes & (ringBytes - 1)) == 0;
}

status_t errnoStatus() {
    return errno == ENOMEM || errno == EMFILE || errno == ENFILE ? NO_MEMORY : UNKNOWN_ERROR;
}

// The size and seals of a received descriptor, checked before anything is mapped.
status_t checkReceived(int fd, size_t* ringBytes) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return BAD_VALUE;
    const int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kRequiredSeals) != kRequiredSeals) return BAD_VALUE;
    // Read with pread, not through a mapping: the copy is what is checked.
    RegionHeader header;
    if (pread(fd, &header, sizeof header, 0) != ssize_t(sizeof header)) return BAD_VALUE;
    if (header.magic != kRegionMagic || header.version != kRegionVersion ||
        !validRingBytes(header.ringBytes) ||
        static_cast<uint64_t>(st.st_size) != regionBytes(header.ringBytes)) {
        return BAD_VALUE;
    }
    *ringBytes = header.ringBytes;
    return NO_ERROR;
}

}  // namespace

status_t ShmRegion::create(size_t ringBytes, std::unique_ptr<ShmRegion>* out) {
    if (!validRingBytes(ringBytes)) return BAD_VALUE;
    const int fd = memfd_create("tvbinder-shm", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return errnoStatus();
    const RegionHeader header{kRegionMagic, kRegionVersion, static_cast<uint32_t>(ringBytes), 0};
    if (ftruncate(fd, static_cast<off_t>(regionBytes(ringBytes))) != 0 ||
        pwrite(fd, &header, sizeof header, 0) != ssize_t(sizeof header) ||
        fcntl(fd, F_ADD_SEALS, kRequiredSeals) != 0) {
        const status_t status = errnoStatus();
        close(fd);
        return status;
    }
    return map(fd, ringBytes, out);
}

status_t ShmRegion::adopt(int fd, std::unique_ptr<ShmRegion>* out) {
    size_t ringBytes = 0;
    const status_t status = checkReceived(fd, &ringBytes);
    if (status != NO_ERROR) {
        close(fd);
        return status;
    }
    return map(fd, ringBytes, out);
}

status_t ShmRegion::map(int fd, size_t ringBytes, std::unique_ptr<ShmRegion>* out) {
    void* base = mmap(nullptr, regionBytes(ringBytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        const status_t status = errnoStatus();
        close(fd);
        return status;
    }
    // A child made by fork() would write its parent's rings beside it.
    madvise(base, regionBytes(ringBytes), MADV_DONTFORK);
    out->reset(new ShmRegion(fd, static_cast<uint8_t*>(base), ringBytes));
    return NO_ERROR;
}

ShmRegion::ShmRegion(int fd, uint8_t* base, size_t ringBytes)
    : mFd(fd), mBase(base), mRingBytes(ringBytes) {}

ShmRegion::~ShmRegion() {
    munmap(mBase, regionBytes(mRingBytes));
    closeFd();
}

void ShmRegion::closeFd() {
    if (mFd >= 0) close(mFd);
    mFd = -1;
}

DirectionControl* ShmRegion::control(int direction) const {
    // The words are zero in a fresh memfd, which is each one's initial value:
    // atomics of lock-free types need no further construction to be used.
    void* at = mBase + kControlOffset + sizeof(DirectionControl) * static_cast<size_t>(direction);
    return static_cast<DirectionControl*>(at);
}

void ShmRegion::discard(int direction, size_t from) const {
    const size_t start = kDataOffset + mRingBytes * static_cast<size_t>(direction) + from;
    // Through the mapping, so that it works once the memfd is closed: on a
    // shared memory mapping this punches a hole in the file, as fallocate would.
    madvise(mBase + start, mRingBytes - from, MADV_REMOVE);
}

uint8_t* ShmRegion::data(int direction) const {
    return mBase + kDataOffset + mRingBytes * static_cast<size_t>(direction);
}

}  // namespace shm
}  // namespace tvbinder
}  // namespace android
