#pragma once

#include <binder/Parcel.h>

#include "ClientInfo.h"
#include "IPCClass.h"
#include "Protocol.h"

namespace tavrin_binder {

// Values whose class the receiver does not know in advance travel in
// universal form: the class name as a C string, then the value's own
// serialisation. The receiver re-creates the value through the creator its
// Protocol registers under that name. ClientInfo records travel as three
// int32: pid, tag, objID.
class UniversalSerialization {
  public:
    static void writeValue(tavrin::IPCClass& value, android::Parcel& parcel);
    // A new value owned by the caller, or null when the message holds no
    // class name, or one that `protocol` does not know.
    static tavrin::IPCClass* readValue(tavrin::Protocol& protocol, const android::Parcel& parcel);

    static void writeRecord(const tavrin::ClientInfo& record, android::Parcel& parcel);
    static void readRecord(tavrin::ClientInfo& record, const android::Parcel& parcel);
};

}  // namespace tavrin_binder
