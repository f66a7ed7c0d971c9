#pragma once

#include "IPCClass.h"
#include "tv_sp.h"

namespace tavrin {

// The application's sink for a service's notifications. Called on binder
// threads, possibly several at once. `value` is lent for the call only.
class IClientNotifier {
  public:
    virtual ~IClientNotifier() = default;
    virtual void onNotify(IPCClass& value) = 0;
    // Returns the answer sent back to the service; a null object for none.
    virtual tv_sp<IPCClass> onNotifyEx(IPCClass& value) = 0;
};

}  // namespace tavrin
