#define LOG_TAG "ServiceManager"

#include "servicemanager/ProcessRegistrations.h"

#include <log/log.h>
#include <unistd.h>
#include <utils/String8.h>

#include "servicemanager/ServiceManagerProxy.h"

namespace android {
namespace tvbinder {

ProcessRegistrations& ProcessRegistrations::self() {
    // Never destroyed: a death notice may arrive while the process exits.
    static ProcessRegistrations& registrations = *[] {
        auto* made = new ProcessRegistrations();
        made->incStrong(made);
        return made;
    }();
    return registrations;
}

status_t ProcessRegistrations::add(const BpServiceManager& manager, const String16& name,
                                   const sp<IBinder>& binder, bool allowIsolated) {
    sp<IBinder> replaced;  // released after the lock: it may be the last reference
    std::lock_guard<std::mutex> guard(mLock);
    forgetIfForkedLocked();
    const status_t status = manager.requestAddService(name, binder, allowIsolated);
    if (status != NO_ERROR) return status;
    Entry& entry = mEntries[name];
    replaced = std::move(entry.binder);
    entry = Entry{binder, allowIsolated};
    watchLocked(manager);
    return NO_ERROR;
}

void ProcessRegistrations::restore(const BpServiceManager& manager) {
    std::vector<sp<IBinder>> dropped;  // released after the lock
    std::lock_guard<std::mutex> guard(mLock);
    forgetIfForkedLocked();
    if (mEntries.empty() || !manager.isAlive()) return;
    // Linked first, so that a death during the restore brings another one.
    watchLocked(manager);
    size_t restored = 0;
    for (auto entry = mEntries.begin(); entry != mEntries.end();) {
        const Entry& kept = entry->second;
        const status_t status =
            kept.binder->isBinderAlive()
                ? manager.requestAddService(entry->first, kept.binder, kept.allowIsolated)
                : DEAD_OBJECT;
        if (status == NO_ERROR) {
            ++restored;
            ++entry;
            continue;
        }
        // This one died too: its successor gets every name.
        if (!manager.isAlive()) break;
        ALOGW("%s is no longer registered by this process: %d", String8(entry->first).string(),
              status);
        dropped.push_back(std::move(entry->second.binder));
        entry = mEntries.erase(entry);
    }
    if (restored > 0) ALOGI("registered %zu names again with a new service manager", restored);
}

void ProcessRegistrations::binderDied(const wp<IBinder>& /*who*/) {
    connectedServiceManager();
}

void ProcessRegistrations::forgetIfForkedLocked() {
    if (mPid == getpid()) return;
    mPid = getpid();
    mEntries.clear();
    mWatched.clear();
}

void ProcessRegistrations::watchLocked(const BpServiceManager& manager) {
    sp<IBinder> remote = manager.remote();
    if (remote == nullptr || remote == mWatched) return;
    if (remote->linkToDeath(this) == NO_ERROR) mWatched = std::move(remote);
}

}  // namespace tvbinder
}  // namespace android
