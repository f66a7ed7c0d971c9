#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

#include "IPCInt32.h"
#include "protocol/UniversalSerialization.h"
#include "LogCapture.h"
#include "tavrin/ParcelBytes.h"

namespace {

using tavrin::ClientInfo;
using tavrin::IPCClass;
using tavrin::Protocol;
using tavrin_binder::UniversalSerialization;
using tavrin_test::Bytes;
using tavrin_test::bytesOf;
using tavrin_test::concat;
using tavrin_test::fill;
using tavrin_test::LogCapture;
using tavrin_test::LogLine;
using tavrin_test::words;
using testing::ElementsAre;

// An application message holding one number.
class Foo : public IPCClass {
  public:
    std::string getClassName() override { return "Foo"; }
    void serialization(tavrin::Serialization& out) override { number.serialization(out); }
    void deserialization(tavrin::Deserialization& in) override { number.deserialization(in); }

    tavrin::IPCInt32 number;
};

template <typename T>
T* as(IPCClass* value) {
    return dynamic_cast<T*>(value);
}

TEST(UniversalSerialization, ValuesTravelAsClassNameThenBodyAndReadBackInOrder) {
    Foo first;
    first.number.set(-3);
    Foo second;
    second.number.set(12);
    android::Parcel parcel;
    UniversalSerialization::writeValue(first, parcel);
    UniversalSerialization::writeValue(second, parcel);
    EXPECT_EQ(bytesOf(parcel),
              concat({{'F', 'o', 'o', 0}, words({-3}), {'F', 'o', 'o', 0}, words({12})}));

    Protocol protocol;
    protocol.add<Foo>("Foo");
    parcel.setDataPosition(0);
    for (int expected : {-3, 12}) {
        std::unique_ptr<IPCClass> back(UniversalSerialization::readValue(protocol, parcel));
        ASSERT_NE(as<Foo>(back.get()), nullptr);
        EXPECT_EQ(as<Foo>(back.get())->number.get(), expected);
    }
    EXPECT_EQ(UniversalSerialization::readValue(protocol, parcel), nullptr);
}

TEST(UniversalSerialization, UnknownClassOrFailedCreatorIsWarnedAndYieldsNothing) {
    const Bytes message = concat({{'F', 'o', 'o', 0}, words({7})});
    Protocol wrongCase;
    wrongCase.add<Foo>("foo");
    Protocol failing;
    failing.addCreator("Foo", []() -> void* { return nullptr; });
    const std::pair<Protocol*, const char*> cases[] = {
        {&wrongCase, "deserialization ipcclass fail,class name[Foo]"},
        {&failing, "creator returned nothing,class name[Foo]"},
    };
    for (const auto& [protocol, warning] : cases) {
        android::Parcel parcel;
        fill(parcel, message);
        LogCapture log;
        EXPECT_EQ(UniversalSerialization::readValue(*protocol, parcel), nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(LogLine{ANDROID_LOG_WARN,
                                                     "[Tavrin][UniversalSerialization]", warning}));
    }
}

TEST(UniversalSerialization, MessageWithoutClassNameYieldsNothingSilently) {
    Protocol protocol;
    protocol.add<Foo>("Foo");
    LogCapture log;
    android::Parcel empty;
    EXPECT_EQ(UniversalSerialization::readValue(protocol, empty), nullptr);
    android::Parcel unterminated;
    fill(unterminated, {'F', 'o', 'o', 'x'});
    EXPECT_EQ(UniversalSerialization::readValue(protocol, unterminated), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre());
}

TEST(UniversalSerialization, ClientRecordIsThreeWordsPidTagObjID) {
    android::Parcel parcel;
    UniversalSerialization::writeRecord(ClientInfo{1234, 5, 1}, parcel);
    EXPECT_EQ(bytesOf(parcel), words({1234, 5, 1}));
    parcel.setDataPosition(0);
    ClientInfo back;
    UniversalSerialization::readRecord(back, parcel);
    EXPECT_EQ(back, (ClientInfo{1234, 5, 1}));
}

}  // namespace
