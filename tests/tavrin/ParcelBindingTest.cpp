#include <gtest/gtest.h>

#include "protocol/Deserialization_Binder.h"
#include "protocol/Serialization_Binder.h"
#include "tavrin/ParcelBytes.h"

namespace {

using tavrin_test::bytesOf;
using tavrin_test::concat;
using tavrin_test::words;

TEST(ParcelBinding, ItemsAreWordAlignedPaddedWithZerosAndReadBackInOrder) {
    android::Parcel parcel;
    tavrin_binder::Serialization_Binder writer(&parcel);
    const uint8_t block[5] = {9, 8, 7, 6, 5};
    EXPECT_EQ(writer.writeInt32(-2), 0);
    EXPECT_EQ(writer.writeCString("ab"), 0);
    EXPECT_EQ(writer.writeInt64(0x0102030405060708LL), 0);
    EXPECT_EQ(writer.write(block, sizeof(block)), 0);
    EXPECT_EQ(writer.writeInt32(7), 0);
    EXPECT_EQ(writer.writeFloat(1.5f), 0);
    EXPECT_EQ(bytesOf(parcel), concat({words({-2}),
                                       {'a', 'b', 0, 0},
                                       words({0x05060708, 0x01020304}),
                                       {9, 8, 7, 6, 5, 0, 0, 0},
                                       words({7, 0x3fc00000})}));

    parcel.setDataPosition(0);
    tavrin_binder::Deserialization_Binder reader(&parcel);
    uint8_t readBack[5] = {};
    EXPECT_EQ(reader.readInt32(), -2);
    EXPECT_STREQ(reader.readCString(), "ab");
    EXPECT_EQ(reader.readInt64(), 0x0102030405060708LL);
    EXPECT_EQ(reader.read(readBack, sizeof(readBack)), 0);
    EXPECT_EQ(readBack[4], 5);
    EXPECT_EQ(reader.readInt32(), 7);
    EXPECT_EQ(reader.dataAvail(), 4u);
    EXPECT_EQ(reader.readFloat(), 1.5f);
    EXPECT_EQ(reader.readInt32(), 0);
    EXPECT_EQ(reader.readCString(), nullptr);
    EXPECT_LT(reader.readFileDescriptor(), 0);
}

}  // namespace
