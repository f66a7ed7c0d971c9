#include "coupler/binder/NameLocks.h"

#include "utils/AutoLock.h"

namespace tavrin_binder {

NameLocks::Hold::Hold(NameLocks& locks, const std::string& name) : mLocks(locks), mName(name) {
    {
        tavrin::AutoLock hold(mLocks.mLock);
        std::unique_ptr<Entry>& slot = mLocks.mEntries[mName];
        if (!slot) slot = std::make_unique<Entry>();
        mEntry = slot.get();
        ++mEntry->holders;
    }
    mEntry->mutex.lock();
}

NameLocks::Hold::~Hold() {
    mEntry->mutex.unlock();
    tavrin::AutoLock hold(mLocks.mLock);
    if (--mEntry->holders == 0) mLocks.mEntries.erase(mName);
}

}  // namespace tavrin_binder
