#include <binder/Parcel.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

using android::NO_ERROR;
using android::NOT_ENOUGH_DATA;
using android::Parcel;

namespace {

std::vector<uint8_t> bytesOf(const Parcel& p) {
    return {p.data(), p.data() + p.dataSize()};
}

bool fdIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

TEST(ParcelLayout, ItemsArePaddedToFourBytesWithZeroesNeverRealignedAndReadBackInOrder) {
    Parcel p;
    p.writeInt32(0x01020304);
    p.writeInt64(0x1122334455667788LL);
    p.writeCString("ab");
    const uint8_t raw[5] = {9, 8, 7, 6, 5};
    p.write(raw, sizeof(raw));
    p.writeBool(true);
    const std::vector<uint8_t> expected = {
        0x04, 0x03, 0x02, 0x01,                          // int32, little endian
        0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // int64, only 4-aligned
        'a',  'b',  0,    0,                             // "ab", NUL, one pad byte
        9,    8,    7,    6,    5,    0,    0,    0,     // 5 raw bytes, 3 pad bytes
        1,    0,    0,    0,                             // bool as a full int32
    };
    EXPECT_EQ(bytesOf(p), expected);

    p.writeUint32(0xfffffff0u);
    p.writeUint64(0xfedcba9876543210ull);
    p.writeFloat(1.5f);
    p.writeDouble(-2.25);
    p.writeString8(android::String8("eight"));
    p.setDataPosition(0);
    EXPECT_EQ(p.readInt32(), 0x01020304);
    EXPECT_EQ(p.readInt64(), 0x1122334455667788LL);
    EXPECT_STREQ(p.readCString(), "ab");
    uint8_t rawBack[5];
    EXPECT_EQ(p.read(rawBack, sizeof(rawBack)), NO_ERROR);
    EXPECT_EQ(rawBack[4], 5);
    EXPECT_TRUE(p.readBool());
    EXPECT_EQ(p.readUint32(), 0xfffffff0u);
    EXPECT_EQ(p.readUint64(), 0xfedcba9876543210ull);
    EXPECT_EQ(p.readFloat(), 1.5f);
    EXPECT_EQ(p.readDouble(), -2.25);
    EXPECT_EQ(p.readString8(), android::String8("eight"));
    EXPECT_EQ(p.dataAvail(), 0u);

    // A String16 is its length in units, the units, a NUL unit and padding.
    Parcel utf16;
    utf16.writeString16(android::String16("abc"));
    utf16.writeString16(nullptr, 0);
    EXPECT_EQ(bytesOf(utf16), std::vector<uint8_t>({3, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0, 0xff,
                                                    0xff, 0xff, 0xff}));  // null: -1
    utf16.setDataPosition(0);
    EXPECT_EQ(android::String8(utf16.readString16()), android::String8("abc"));
    size_t len = 99;
    EXPECT_EQ(utf16.readString16Inplace(&len), nullptr);
    EXPECT_EQ(len, 0u);
}

TEST(ParcelRead, ShortPartialOrHugeItemsYieldZeroAndAreNotConsumedButAWholeStringIs) {
    Parcel p;
    const char noNul[4] = {'a', 'b', 'c', 'd'};
    p.write(noNul, sizeof(noNul));
    p.setDataPosition(0);
    EXPECT_EQ(p.readInt64(), 0);  // only 4 of 8 bytes are there
    EXPECT_EQ(p.dataPosition(), 0u);
    EXPECT_EQ(p.readCString(), nullptr);  // no NUL: not a string
    EXPECT_EQ(p.dataPosition(), 0u);
    EXPECT_EQ(p.readInt32(), 0x64636261);
    EXPECT_EQ(p.readInt32(), 0);
    EXPECT_EQ(p.readDouble(), 0.0);
    int32_t value = 42;
    EXPECT_EQ(p.readInt32(&value), NOT_ENOUGH_DATA);
    EXPECT_EQ(value, 42);
    EXPECT_EQ(p.dataPosition(), 4u);
    uint8_t buf[4];
    EXPECT_EQ(p.read(buf, 1), NOT_ENOUGH_DATA);

    // A whole string whose padding would run past the end is still taken:
    // a reader looping over strings must come to an end.
    Parcel q;
    q.write("abcde", 6);
    ASSERT_EQ(q.setDataSize(6), NO_ERROR);
    q.setDataPosition(0);
    int strings = 0;
    while (strings < 8 && q.readCString() != nullptr) ++strings;
    EXPECT_LE(strings, 1);

    // The position it leaves may be odd: a String16 read in place there is
    // refused, never read misaligned.
    Parcel r;
    for (int i = 0; i < 4; ++i) r.writeInt32(0);
    ASSERT_EQ(r.setDataSize(3), NO_ERROR);
    r.setDataPosition(0);
    r.readCString();
    ASSERT_EQ(r.setDataSize(16), NO_ERROR);
    size_t length = 1;
    EXPECT_EQ(r.readString16Inplace(&length), nullptr);
    EXPECT_EQ(0u, length);

    // Huge lengths never read outside the buffer.
    Parcel huge;
    huge.writeInt32(0x7fffffff);  // a String8/String16 length claiming 2 GiB
    huge.writeInt32(0);
    huge.setDataPosition(0);
    EXPECT_EQ(huge.readString8(), android::String8());
    huge.setDataPosition(0);
    EXPECT_EQ(huge.readString16Inplace(&length), nullptr);
    EXPECT_EQ(huge.dataPosition(), 0u);
    EXPECT_EQ(huge.read(buf, SIZE_MAX - 1), NOT_ENOUGH_DATA);
    huge.setDataPosition(1000);  // beyond the data
    EXPECT_EQ(huge.readInt32(), 0);
    EXPECT_EQ(huge.readCString(), nullptr);
    EXPECT_EQ(huge.dataAvail(), 0u);
}

TEST(ParcelFds, AParcelClosesExactlyTheDescriptorsItOwns) {
    const int kept = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int received = -1;
    {
        Parcel p;
        p.writeInt32(3);
        ASSERT_EQ(p.writeDupFileDescriptor(kept), NO_ERROR);
        EXPECT_EQ(p.objectsCount(), 1u);
        p.setDataPosition(0);
        EXPECT_EQ(p.readInt32(), 3);
        received = p.readFileDescriptor();
        ASSERT_GE(received, 0);
        EXPECT_NE(received, kept);
        EXPECT_TRUE(fcntl(received, F_GETFD) & FD_CLOEXEC);
        EXPECT_TRUE(fdIsOpen(received));
        const int given = open("/dev/null", O_RDONLY | O_CLOEXEC);
        p.writeFileDescriptor(kept);
        p.writeFileDescriptor(given, true);
        p.setDataPosition(p.dataSize() - 8);  // inside the last object
        const int refused = open("/dev/null", O_RDONLY | O_CLOEXEC);
        EXPECT_NE(p.writeFileDescriptor(refused, true), NO_ERROR) << "written over an object";
        close(refused);
        EXPECT_EQ(p.objectsCount(), 3u);
        // Cut off, an owned descriptor is closed at once.
        ASSERT_EQ(p.setDataSize(p.dataSize() - 4), NO_ERROR);
        EXPECT_EQ(p.objectsCount(), 2u);
        EXPECT_FALSE(fdIsOpen(given));
    }
    EXPECT_FALSE(fdIsOpen(received));
    EXPECT_TRUE(fdIsOpen(kept));
    close(kept);
}

TEST(ParcelBinders, ANullBinderReadsBackAsNullAndBytesThatLookLikeAnObjectAreNotOne) {
    Parcel null;
    null.writeStrongBinder(nullptr);
    null.writeInt32(9);
    EXPECT_EQ(null.dataSize(), 36u);
    EXPECT_EQ(null.objectsCount(), 0u);
    null.setDataPosition(0);
    EXPECT_EQ(null.readStrongBinder(), nullptr);
    EXPECT_EQ(null.readInt32(), 9);

    // Plain data, then forged record bytes without an entry in the object table.
    Parcel p;
    p.writeInt32(1);
    const uint32_t forged[8] = {0x62646e72, 0, 1, 0, 2, 0, 3, 0};
    p.write(forged, sizeof(forged));
    for (size_t position : {0u, 4u}) {
        p.setDataPosition(position);
        EXPECT_EQ(p.readStrongBinder(), nullptr);
        p.setDataPosition(position);
        EXPECT_EQ(p.readFileDescriptor(), android::BAD_TYPE);
        EXPECT_EQ(p.dataPosition(), position);
    }
}

}  // namespace
