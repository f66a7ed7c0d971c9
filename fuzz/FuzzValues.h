#pragma once

// Every value class of the library as an application registers it: each one
// under its own class name, and a record holding one of each.

#include <unistd.h>

#include <array>
#include <string>

#include "IPCBool.h"
#include "IPCBoolArray.h"
#include "IPCClass.h"
#include "IPCDouble.h"
#include "IPCFileDescriptor.h"
#include "IPCInt32.h"
#include "IPCInt64.h"
#include "IPCIntArray.h"
#include "IPCString.h"
#include "IPCUCharArray.h"
#include "IPCUIntArray.h"
#include "Protocol.h"

namespace fuzz {

// A received descriptor belongs to whoever holds the value.
template <typename T>
void dropDescriptor(T&) {}
inline void dropDescriptor(tavrin::IPCFileDescriptor& value) {
    if (value.get() >= 0) close(value.get());
}

template <typename T, const char* kName>
class Boxed : public tavrin::IPCClass {
  public:
    ~Boxed() override { dropDescriptor(value); }
    std::string getClassName() override { return kName; }
    void serialization(tavrin::Serialization& out) override { value.serialization(out); }
    void deserialization(tavrin::Deserialization& in) override { value.deserialization(in); }

    T value;
};

inline constexpr char kInt32[] = "Int32";
inline constexpr char kInt64[] = "Int64";
inline constexpr char kBool[] = "Bool";
inline constexpr char kDouble[] = "Double";
inline constexpr char kString[] = "String";
inline constexpr char kFileDescriptor[] = "FileDescriptor";
inline constexpr char kIntArray[] = "IntArray";
inline constexpr char kUIntArray[] = "UIntArray";
inline constexpr char kBoolArray[] = "BoolArray";
inline constexpr char kUCharArray[] = "UCharArray";
inline constexpr char kRecord[] = "Record";

class Record : public tavrin::IPCClass {
  public:
    ~Record() override { dropDescriptor(fd); }
    std::string getClassName() override { return kRecord; }
    void serialization(tavrin::Serialization& out) override {
        for (tavrin::IPCBasicClass* field : fields()) field->serialization(out);
    }
    void deserialization(tavrin::Deserialization& in) override {
        for (tavrin::IPCBasicClass* field : fields()) field->deserialization(in);
    }

    tavrin::IPCString text;
    tavrin::IPCInt32 int32;
    tavrin::IPCIntArray ints;
    tavrin::IPCFileDescriptor fd;
    tavrin::IPCBoolArray bools;
    tavrin::IPCInt64 int64;
    tavrin::IPCUCharArray bytes;
    tavrin::IPCBool flag;
    tavrin::IPCUIntArray uints;
    tavrin::IPCDouble real;

  private:
    std::array<tavrin::IPCBasicClass*, 10> fields() {
        return {&text, &int32, &ints, &fd, &bools, &int64, &bytes, &flag, &uints, &real};
    }
};

inline tavrin::Protocol valueProtocol() {
    tavrin::Protocol protocol;
    protocol.add<Boxed<tavrin::IPCInt32, kInt32>>(kInt32);
    protocol.add<Boxed<tavrin::IPCInt64, kInt64>>(kInt64);
    protocol.add<Boxed<tavrin::IPCBool, kBool>>(kBool);
    protocol.add<Boxed<tavrin::IPCDouble, kDouble>>(kDouble);
    protocol.add<Boxed<tavrin::IPCString, kString>>(kString);
    protocol.add<Boxed<tavrin::IPCFileDescriptor, kFileDescriptor>>(kFileDescriptor);
    protocol.add<Boxed<tavrin::IPCIntArray, kIntArray>>(kIntArray);
    protocol.add<Boxed<tavrin::IPCUIntArray, kUIntArray>>(kUIntArray);
    protocol.add<Boxed<tavrin::IPCBoolArray, kBoolArray>>(kBoolArray);
    protocol.add<Boxed<tavrin::IPCUCharArray, kUCharArray>>(kUCharArray);
    protocol.add<Record>(kRecord);
    return protocol;
}

}  // namespace fuzz
