#include "wire/Frame.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <utility>

namespace android {
namespace tvbinder {

namespace {

bool kindHasBody(FrameKind kind) {
    return kind == FrameKind::kTransaction || kind == FrameKind::kReply;
}

bool isKnownKind(uint32_t kind) {
    return kind >= static_cast<uint32_t>(FrameKind::kHello) &&
           kind <= static_cast<uint32_t>(FrameKind::kChainExtended);
}

status_t validateRecord(const FlatObject& record) {
    if (record.reserved != 0) return BAD_VALUE;
    switch (record.type) {
        case FlatObject::kTypeBinder:
            // A null binder is plain data, never an entry of the object table.
            return record.endpoint != 0 && (record.tokenHi != 0 || record.tokenLo != 0) ? NO_ERROR
                                                                                        : BAD_VALUE;
        case FlatObject::kTypeFd:
            return record.endpoint == 0 && record.tokenHi == 0 && record.tokenLo == 0 ? NO_ERROR
                                                                                      : BAD_VALUE;
        default:
            return BAD_VALUE;
    }
}

}  // namespace

Frame::~Frame() {
    for (int fd : mFds) ::close(fd);
}

FlatObject Frame::recordAt(uint32_t offset) const {
    FlatObject record;
    memcpy(&record, mData.get() + offset, sizeof(record));
    return record;
}

uint8_t* Frame::allocateData(size_t size) {
    mData.reset(static_cast<uint8_t*>(malloc(size > 0 ? size : 1)));
    return mData.get();
}

int Frame::takeFirstFd() {
    const int fd = mFds.front();
    mFds.erase(mFds.begin());
    return fd;
}

std::vector<int> Frame::releaseFds() {
    return std::exchange(mFds, {});
}

status_t Frame::validate() const {
    if (header.magic != kFrameMagic || !isKnownKind(header.kind)) return BAD_VALUE;
    if (!kindHasBody(kind())) {
        return header.dataSize == 0 && header.objectCount == 0 && mFds.empty() ? NO_ERROR
                                                                               : BAD_VALUE;
    }
    if (header.dataSize > kMaxTransactionSize || offsets.size() != header.objectCount) {
        return BAD_VALUE;
    }
    size_t fdRecords = 0;
    size_t nextFree = 0;
    for (uint32_t offset : offsets) {
        if (offset % 4 != 0 || offset < nextFree ||
            size_t{offset} + sizeof(FlatObject) > header.dataSize) {
            return BAD_VALUE;
        }
        nextFree = size_t{offset} + sizeof(FlatObject);
        const FlatObject record = recordAt(offset);
        if (validateRecord(record) != NO_ERROR) return BAD_VALUE;
        if (record.type == FlatObject::kTypeFd) ++fdRecords;
    }
    return fdRecords == mFds.size() ? NO_ERROR : BAD_VALUE;
}

bool Frame::headerWithinLimits(uint32_t layouts) const {
    return (header.layout & ~layouts) == 0 && header.dataSize <= kMaxTransactionSize &&
           header.objectCount <= header.dataSize / sizeof(FlatObject) &&
           header.objectCount <= kMaxObjectsPerFrame;
}

status_t Frame::copyInlineBody(const uint8_t* body, size_t size) {
    if (size != frameBodySize(header)) return BAD_VALUE;
    uint8_t* data = allocateData(header.dataSize);
    if (data == nullptr) return NO_MEMORY;
    memcpy(data, body, header.dataSize);
    if (header.objectCount > 0) {
        offsets.resize(header.objectCount);
        memcpy(offsets.data(), body + header.dataSize, header.objectCount * sizeof(uint32_t));
    }
    return NO_ERROR;
}

bool OutgoingFrame::withinLimits() const {
    return header.dataSize <= kMaxTransactionSize && fds.size() <= kMaxFdObjects &&
           offsets.size() <= kMaxObjectsPerFrame;
}

OutgoingFrame OutgoingFrame::make(FrameKind kind) {
    OutgoingFrame frame;
    frame.header.magic = kFrameMagic;
    frame.header.kind = static_cast<uint32_t>(kind);
    return frame;
}

}  // namespace tvbinder
}  // namespace android
