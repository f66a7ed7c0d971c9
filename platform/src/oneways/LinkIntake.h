#pragma once

#include "peers/AcceptedConnection.h"
#include "wire/Frame.h"

namespace android {
namespace tvbinder {

class ExportTable;
class ObjectCodec;
class OneWayScheduler;

// What a frame read from a link does: a one-way is counted in the link's
// backlog, decoded and queued on its object; a release gives references
// back; a request for acknowledgement is answered. Called by the thread that
// reads the link. Owned by the Runtime.
class LinkIntake {
  public:
    LinkIntake(ObjectCodec& objects, ExportTable& exports, OneWayScheduler& oneWays)
        : mObjects(objects), mExports(exports), mOneWays(oneWays) {}

    // False when the link must be dropped: a frame that has no place on a
    // link, or one-ways beyond the sender's budget.
    [[nodiscard]] bool take(const sp<AcceptedConnection>& link, Frame& frame);

  private:
    [[nodiscard]] bool admitOneWay(const sp<AcceptedConnection>& link, Frame& frame);

    ObjectCodec& mObjects;
    ExportTable& mExports;
    OneWayScheduler& mOneWays;
};

}  // namespace tvbinder
}  // namespace android
