#include "protocol/UniversalSerialization.h"

#include <android/log.h>

#include <string>

#include "protocol/Deserialization_Binder.h"
#include "protocol/Serialization_Binder.h"

namespace tavrin_binder {
namespace {

constexpr const char* kLogTag = "[Tavrin][UniversalSerialization]";

}  // namespace

void UniversalSerialization::writeValue(tavrin::IPCClass& value, android::Parcel& parcel) {
    const std::string className = value.getClassName();
    if (parcel.writeCString(className.c_str()) != 0) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "writeCString fail.");
    }
    Serialization_Binder writer(&parcel);
    value.serialization(writer);
}

tavrin::IPCClass* UniversalSerialization::readValue(tavrin::Protocol& protocol,
                                                    const android::Parcel& parcel) {
    const char* received = parcel.readCString();
    if (received == nullptr) return nullptr;
    const std::string className(received);
    auto creator = protocol.creators.find(className);
    if (creator == protocol.creators.end()) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "deserialization ipcclass fail,class name[%s]", className.c_str());
        return nullptr;
    }
    // Creators hand out the IPCClass subobject of a new value as void*.
    auto* value = static_cast<tavrin::IPCClass*>(creator->second());
    if (value == nullptr) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag, "creator returned nothing,class name[%s]",
                            className.c_str());
        return nullptr;
    }
    Deserialization_Binder reader(&parcel);
    value->deserialization(reader);
    return value;
}

void UniversalSerialization::writeRecord(const tavrin::ClientInfo& record,
                                         android::Parcel& parcel) {
    parcel.writeInt32(record.pid);
    parcel.writeInt32(record.tag);
    parcel.writeInt32(record.objID);
}

void UniversalSerialization::readRecord(tavrin::ClientInfo& record, const android::Parcel& parcel) {
    record.pid = parcel.readInt32();
    record.tag = parcel.readInt32();
    record.objID = parcel.readInt32();
}

}  // namespace tavrin_binder
