#pragma once

#include <binder/Parcel.h>
#include <utils/String16.h>
#include <utils/Vector.h>

#include <functional>
#include <string>
#include <vector>

namespace tavrin_binder {

// A carrier's answer to the platform's dump request (what `tavrin status`,
// `tavrin list` and `tavrin monitor` ask), written to the descriptor that
// came with it:
//  - no arguments: the carrier's status, one JSON object and a newline;
//  - "--monitor NAME CURSOR": attaches a monitor (CallMonitor), names the
//    carrier's records NAME, and writes one JSON line {"pid", "next",
//    "dropped"} followed by one JSON line per record since CURSOR (-1: none,
//    only the cursor to start from).
// Writing never blocks the binder thread for long: a reader that does not
// read within a couple of seconds gets what was written by then.
//
// Called on binder threads by the carriers' dump(); keeps nothing.
class CarrierDump {
  public:
    // `sources` are the objects whose records the carrier answers for (the
    // carrier and its notifier manager); `status` makes the status object.
    static android::status_t answer(int fd, const android::Vector<android::String16>& args,
                                    const std::vector<const void*>& sources,
                                    const std::function<std::string()>& status);
};

}  // namespace tavrin_binder
