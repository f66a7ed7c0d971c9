// The wire form of values: each value class through the Parcel binding, and
// values of any class in universal form (class name, then the value).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "IPCBool.h"
#include "IPCBoolArray.h"
#include "IPCDouble.h"
#include "IPCFileDescriptor.h"
#include "IPCInt32.h"
#include "IPCInt64.h"
#include "IPCIntArray.h"
#include "IPCString.h"
#include "IPCUCharArray.h"
#include "IPCUIntArray.h"
#include "LogCapture.h"
#include "protocol/Deserialization_Binder.h"
#include "protocol/Serialization_Binder.h"
#include "protocol/UniversalSerialization.h"

namespace {

using tavrin::IPCClass;
using tavrin_binder::Deserialization_Binder;
using tavrin_binder::Serialization_Binder;
using tavrin_binder::UniversalSerialization;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using testing::AllOf;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

// Little-endian int32 words, as the Parcel lays them out on this machine.
Bytes words(std::initializer_list<int32_t> values) {
    Bytes out(values.size() * sizeof(int32_t));
    memcpy(out.data(), values.begin(), out.size());
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

Bytes bytesOf(const android::Parcel& parcel) {
    return Bytes(parcel.data(), parcel.data() + parcel.dataSize());
}

// A Parcel holding exactly `content`, positioned at its start.
void fill(android::Parcel& parcel, const Bytes& content) {
    parcel.write(content.data(), content.size());
    parcel.setDataPosition(0);
}

Bytes serialised(tavrin::IPCBasicClass& value) {
    android::Parcel parcel;
    Serialization_Binder writer(&parcel);
    value.serialization(writer);
    return bytesOf(parcel);
}

// Reads `value` from a message holding `content`; returns the bytes consumed.
size_t readFrom(const Bytes& content, tavrin::IPCBasicClass& value) {
    android::Parcel parcel;
    fill(parcel, content);
    Deserialization_Binder reader(&parcel);
    value.deserialization(reader);
    return parcel.dataPosition();
}

// Checks the wire form of `source` and reads it back into `target`.
void expectWire(tavrin::IPCBasicClass& source, const Bytes& wire, tavrin::IPCBasicClass& target) {
    EXPECT_EQ(serialised(source), wire);
    EXPECT_EQ(readFrom(wire, target), wire.size());
}

// A writer whose strings never fit.
class FullWriter : public tavrin::Serialization {
  public:
    int write(const void*, size_t) override { return 0; }
    int writeInt32(int32_t) override { return 0; }
    int writeInt64(int64_t) override { return 0; }
    int writeFloat(float) override { return 0; }
    int writeDouble(double) override { return 0; }
    int writeCString(const char*) override { return -12; }
    int writeDupFileDescriptor(int) override { return 0; }
};

// Checks the wire form of a `Value` holding `value` and reads it back.
template <typename Value, typename T>
void expectScalar(T value, const Bytes& wire) {
    Value source(value), back;
    expectWire(source, wire, back);
    EXPECT_EQ(back.get(), value);
}

TEST(ScalarValues, HaveTheirWireLayoutsRoundTripAndKeepWhatAFailedReadOrWriteLeft) {
    expectScalar<tavrin::IPCInt32>(-7, words({-7}));
    expectScalar<tavrin::IPCInt64>(-0x123456789LL, words({static_cast<int32_t>(0xdcba9877), -2}));
    expectScalar<tavrin::IPCDouble>(3.75, words({0, 0x400e0000}));
    expectScalar<tavrin::IPCBool>(true, words({1}));
    expectScalar<tavrin::IPCBool>(false, words({0}));
    tavrin::IPCBool boolBack;
    readFrom(words({2}), boolBack);
    EXPECT_EQ(serialised(boolBack), words({1}));

    // A C string padded to a word; neither a missing one nor a failed write
    // changes anything.
    tavrin::IPCString four("abcd"), back("previous, longer content");
    expectWire(four, {'a', 'b', 'c', 'd', 0, 0, 0, 0}, back);
    EXPECT_EQ(back.get(), "abcd");
    EXPECT_EQ(readFrom({}, back), 0u);
    EXPECT_EQ(readFrom({'x', 'y', 'z', 'w'}, back), 0u);  // no NUL: not a string
    EXPECT_EQ(back.get(), "abcd");

    LogCapture log;
    FullWriter writer;
    tavrin::IPCString("lost").serialization(writer);
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[0].message, "writeCString fail.");
    EXPECT_EQ(lines[0].tag.find("[Tavrin]"), std::string::npos);  // no tag of the library's

    // A received descriptor outlives the message and the value.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    int received = -1;
    {
        android::Parcel parcel;
        Serialization_Binder writer(&parcel);
        tavrin::IPCFileDescriptor(ends[0]).serialization(writer);
        parcel.setDataPosition(0);
        Deserialization_Binder reader(&parcel);
        tavrin::IPCFileDescriptor value;
        value.deserialization(reader);
        received = value.get();
    }
    EXPECT_NE(received, ends[0]);
    ASSERT_EQ(write(ends[1], "z", 1), 1);
    char byte = 0;
    EXPECT_EQ(read(received, &byte, 1), 1) << "closed, or not the pipe sent";
    for (int fd : {received, ends[0], ends[1]}) close(fd);

    tavrin::IPCFileDescriptor missing(5);
    readFrom(words({0}), missing);
    EXPECT_EQ(missing.get(), -1);
}

// A count from a peer that cannot be honoured leaves an empty array, one
// warning, and the rest of the message unread.
template <typename Array>
void expectRefusedCount(const Bytes& message, const char* className, const char* reason) {
    LogCapture log;
    Array array;
    EXPECT_EQ(readFrom(message, array), 4u) << className;
    EXPECT_EQ(array.size(), 0) << className;
    EXPECT_EQ(array.base(), nullptr) << className;
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 1u) << className;
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_WARN);
    EXPECT_EQ(lines[0].tag, "[Tavrin][IPCClass]");
    EXPECT_THAT(lines[0].message, AllOf(HasSubstr(className), HasSubstr(reason)));
}

// Checks the wire form of an `Array` holding `elements` and reads it back.
template <typename Array, typename T>
void expectArray(std::initializer_list<T> elements, const Bytes& wire) {
    Array array, back;
    array.init(elements.begin(), static_cast<int>(elements.size()));
    expectWire(array, wire, back);
    ASSERT_EQ(back.size(), static_cast<int>(elements.size()));
    EXPECT_EQ(std::vector<T>(back.base(), back.base() + back.size()), std::vector<T>(elements));
}

TEST(ArrayValues, HaveTheirWireLayoutsRoundTripAndRefuseHostileCountsBeforeAllocating) {
    expectArray<tavrin::IPCBoolArray>({true, false, true}, words({3, 1, 0, 1}));
    tavrin::IPCBoolArray boolBack;
    readFrom(words({1, 7}), boolBack);
    EXPECT_TRUE(boolBack[0]);
    const int ints[] = {1, -2, 0x7fffffff};
    expectArray<tavrin::IPCIntArray>({1, -2, 0x7fffffff}, words({3, 1, -2, 0x7fffffff}));
    expectArray<tavrin::IPCUIntArray>({0xffffffffu, 2u}, words({2, -1, 2}));
    expectArray<tavrin::IPCUCharArray, unsigned char>(
        {1, 2, 3, 4, 5}, concat({words({5}), {1, 2, 3, 4, 5, 0, 0, 0}}));
    tavrin::IPCIntArray intArray;
    intArray.init(ints, 3);

    // An index past the end refers to the first element.
    EXPECT_EQ(&intArray[3], &intArray[0]);
    EXPECT_EQ(&intArray[7], &intArray[0]);
    EXPECT_EQ(&intArray[2], intArray.base() + 2);

    // Counts of zero or less carry no body.
    tavrin::IPCIntArray empty, emptyBack;
    expectWire(empty, words({0}), emptyBack);
    EXPECT_EQ(emptyBack.size(), 0);
    EXPECT_EQ(emptyBack.base(), nullptr);
    tavrin::IPCUCharArray negative;
    EXPECT_EQ(readFrom(words({-5, 99}), negative), 4u);
    EXPECT_EQ(negative.size(), -5);
    EXPECT_EQ(negative.base(), nullptr);
    EXPECT_EQ(serialised(negative), words({-5}));

    // Replaced content releases the previous buffer (a leak shows under the
    // address sanitizer).
    intArray.init(ints, 2);
    readFrom(words({1, 42}), intArray);
    ASSERT_EQ(intArray.size(), 1);
    EXPECT_EQ(intArray[0], 42);
    readFrom(words({-1}), intArray);
    EXPECT_EQ(intArray.base(), nullptr);
    intArray.init(ints, 1);
    LogCapture log;
    readFrom(words({INT32_MAX}), intArray);
    EXPECT_EQ(intArray.base(), nullptr);

    // Hostile counts are refused before anything is allocated; exact fits
    // (above) are taken.
    expectRefusedCount<tavrin::IPCIntArray>(words({1 << 30, 1, 2}), "IPCIntArray", "too large");
    expectRefusedCount<tavrin::IPCUIntArray>(words({INT32_MAX, 1}), "IPCUIntArray", "too large");
    expectRefusedCount<tavrin::IPCIntArray>(words({(1 << 30) - 1, 1}), "IPCIntArray", "left");
    expectRefusedCount<tavrin::IPCUIntArray>(words({3, 1, 2}), "IPCUIntArray", "left");
    expectRefusedCount<tavrin::IPCUCharArray>(concat({words({5}), {1, 2, 3, 4}}), "IPCUCharArray",
                                              "left");
    expectRefusedCount<tavrin::IPCUCharArray>(words({INT32_MAX, 0}), "IPCUCharArray", "left");
    expectRefusedCount<tavrin::IPCBoolArray>(words({3, 1, 1}), "IPCBoolArray", "left");
    expectRefusedCount<tavrin::IPCBoolArray>(words({INT32_MAX, 1}), "IPCBoolArray", "left");
}

std::string report(const char* function, const char* check) {
    return std::string(": ") + function + ": Assertion `" + check + "' failed.";
}

TEST(ArrayPreconditionsDeathTest, BrokenPreconditionsStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const int ints[] = {1};
    EXPECT_DEATH(
        tavrin::IPCIntArray().init(ints, 0),
        AllOf(HasSubstr("protocol/IPCClass:"),
              HasSubstr(report("void tavrin::IPCIntArray::init(const int*, int)", "size>0"))));
    EXPECT_DEATH(
        tavrin::IPCBoolArray()[0],
        AllOf(HasSubstr("protocol/IPCClass:"),
              HasSubstr(report("bool& tavrin::IPCBoolArray::operator[](int)", "mSize>0"))));
    tavrin::IPCUCharArray bytes;
    const unsigned char one[] = {1};
    bytes.init(one, 1);
    EXPECT_DEATH(bytes[-1], HasSubstr(report(
                                "unsigned char& tavrin::IPCUCharArray::operator[](int)", "i>=0")));
}

// An application message: a number, and a float as an application writes one.
class Foo : public IPCClass {
  public:
    std::string getClassName() override { return "Foo"; }
    void serialization(tavrin::Serialization& out) override {
        number.serialization(out);
        out.writeFloat(fraction);
    }
    void deserialization(tavrin::Deserialization& in) override {
        number.deserialization(in);
        fraction = in.readFloat();
    }

    tavrin::IPCInt32 number;
    float fraction = 0;
};

TEST(UniversalSerialization, IsClassNameThenBodyReadBackOnlyByAProtocolThatMakesTheClass) {
    Foo first;
    first.number.set(-3);
    first.fraction = 1.5f;
    Foo second;
    second.number.set(12);
    android::Parcel parcel;
    UniversalSerialization::writeValue(first, parcel);
    UniversalSerialization::writeValue(second, parcel);
    const Bytes foo = {'F', 'o', 'o', 0};
    EXPECT_EQ(bytesOf(parcel), concat({foo, words({-3, 0x3fc00000}), foo, words({12, 0})}));

    tavrin::Protocol protocol;
    protocol.add<Foo>("Foo");
    parcel.setDataPosition(0);
    for (const Foo* expected : {&first, &second}) {
        std::unique_ptr<IPCClass> back(UniversalSerialization::readValue(protocol, parcel));
        const Foo* read = dynamic_cast<Foo*>(back.get());
        ASSERT_NE(read, nullptr);
        EXPECT_EQ(read->number.get(), expected->number.get());
        EXPECT_EQ(read->fraction, expected->fraction);
    }
    EXPECT_EQ(UniversalSerialization::readValue(protocol, parcel), nullptr);

    parcel.setDataSize(0);
    UniversalSerialization::writeRecord(tavrin::ClientInfo{1234, 5, 1}, parcel);
    EXPECT_EQ(bytesOf(parcel), words({1234, 5, 1}));
    parcel.setDataPosition(0);
    tavrin::ClientInfo record;
    UniversalSerialization::readRecord(record, parcel);
    EXPECT_EQ(record, (tavrin::ClientInfo{1234, 5, 1}));

    // A message without a class the Protocol can make yields nothing.
    tavrin::Protocol wrongCase;
    wrongCase.add<Foo>("foo");
    tavrin::Protocol failing;
    failing.addCreator("Foo", []() -> void* { return nullptr; });
    const Bytes message = concat({{'F', 'o', 'o', 0}, words({7, 0})});
    const auto warning = [](const char* text) {
        return std::vector<LogLine>{{ANDROID_LOG_WARN, "[Tavrin][UniversalSerialization]", text}};
    };
    // A message without a class name yields nothing silently.
    const struct {
        tavrin::Protocol* protocol;
        Bytes message;
        std::vector<LogLine> lines;
    } cases[] = {
        {&wrongCase, message, warning("deserialization ipcclass fail,class name[Foo]")},
        {&failing, message, warning("creator returned nothing,class name[Foo]")},
        {&protocol, {}, {}},
        {&protocol, {'F', 'o', 'o', 'x'}, {}},
    };
    for (const auto& one : cases) {
        android::Parcel input;
        fill(input, one.message);
        LogCapture log;
        EXPECT_EQ(UniversalSerialization::readValue(*one.protocol, input), nullptr);
        EXPECT_EQ(log.lines(), one.lines);
    }
}

}  // namespace
