#pragma once

#include <binder/IBinder.h>
#include <sys/types.h>
#include <utils/String16.h>

#include <map>
#include <mutex>
#include <vector>

namespace android {

class BpServiceManager;

namespace tvbinder {

// The names this process registered with the service manager, kept so that a
// service manager that replaces a dead one (a crash, a kill, an upgrade) gets
// them back from this process, with the same objects, without the
// application's help. A name is kept from the service manager's acceptance
// until a successor refuses it (another process took it meanwhile: the
// registry's rules of ownership decide) or its object has died.
//
// One per process, never destroyed. Registrations come from application
// threads; restores from whichever thread connects to a new service manager
// (often the pool thread that got the old one's death notice). mLock
// serialises them and is held across their requests to the service manager,
// which never call back into this process.
class ProcessRegistrations : public IBinder::DeathRecipient {
  public:
    static ProcessRegistrations& self();

    // Registers through `manager`; kept when accepted.
    [[nodiscard]] status_t add(const BpServiceManager& manager, const String16& name,
                               const sp<IBinder>& binder, bool allowIsolated);
    // Registers the kept names with a service manager just connected to,
    // before anyone else uses it.
    void restore(const BpServiceManager& manager);
    // The service manager died: connecting to its successor restores.
    void binderDied(const wp<IBinder>& who) override;

  private:
    struct Entry {
        sp<IBinder> binder;
        bool allowIsolated = false;
    };

    // In a child made by fork(), the names are its parent's: forgotten.
    void forgetIfForkedLocked();
    // Links to the death of the service manager that holds the names.
    void watchLocked(const BpServiceManager& manager);

    std::mutex mLock;  // guards everything below
    pid_t mPid = 0;
    std::map<String16, Entry> mEntries;
    sp<IBinder> mWatched;
};

}  // namespace tvbinder
}  // namespace android
