#pragma once

#include <map>
#include <memory>
#include <string>

#include "utils/Mutex.h"

namespace tavrin_binder {

// One mutex per name, made while someone needs it: work on one name (the
// first connection to a service or a sub-service) runs one at a time while
// work on other names goes on. Owned by whoever serialises; any thread.
// Locks for one name do not nest.
class NameLocks {
    struct Entry {
        tavrin::Mutex mutex;
        int holders = 0;  // waiting or holding; the entry goes with the last
    };

  public:
    // Holds the lock of `name` for its lifetime.
    class Hold {
      public:
        Hold(NameLocks& locks, const std::string& name);
        ~Hold();
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

      private:
        NameLocks& mLocks;
        const std::string mName;
        Entry* mEntry;
    };

    NameLocks() = default;
    NameLocks(const NameLocks&) = delete;
    NameLocks& operator=(const NameLocks&) = delete;

  private:
    tavrin::Mutex mLock;  // guards mEntries and every Entry's holders
    std::map<std::string, std::unique_ptr<Entry>> mEntries;
};

}  // namespace tavrin_binder
