#pragma once

#include <mutex>

#include "IPCClass.h"
#include "ISubServiceClient.h"
#include "tv_sp.h"

// The greeter's handle on its registered translator. The library keeps the
// handle valid only until onSubServiceRemoved has returned, so every call
// through it holds the lock that clear() takes: a removal waits for the call
// in flight, and no call starts after it.
//
// A member of GreeterService. Any thread.
class TranslatorSlot {
  public:
    void set(tavrin::ISubServiceClient* translator);
    void clear();
    // The translator's answer; a null object when none is registered or it
    // gave none. The translator must not call back into anything that
    // takes this slot while it answers.
    tavrin::tv_sp<tavrin::IPCClass> call(tavrin::IPCClass& action);

  private:
    std::mutex mLock;  // guards mTranslator, held across calls
    tavrin::ISubServiceClient* mTranslator = nullptr;
};
