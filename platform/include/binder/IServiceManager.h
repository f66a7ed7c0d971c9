#pragma once

#include <binder/IBinder.h>
#include <binder/IInterface.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Vector.h>

#include <chrono>
#include <vector>

namespace android {

// The registry of named objects of one binder context: the well-known object
// that every process of the context reaches without holding a reference.
//
// A name belongs to the process that registered it for as long as the
// registered object lives. Another process asking for a name that is held by a
// live registration is refused with ALREADY_EXISTS; the holder itself may
// replace its registration. When the registered object's process dies, the
// name is freed. When the service manager itself dies, every process registers
// its names again with the one that replaces it.
class IServiceManager : public IInterface {
  public:
    DECLARE_META_INTERFACE(ServiceManager)

    // Transaction codes understood by the service manager object.
    enum {
        CHECK_SERVICE_TRANSACTION = IBinder::FIRST_CALL_TRANSACTION,
        ADD_SERVICE_TRANSACTION,
        LIST_SERVICES_TRANSACTION,
        // Hands over a socket to which one byte is written once the name
        // appears, or answers the object at once when it is registered already.
        WAIT_FOR_SERVICE_TRANSACTION,
        // Drops the caller's waiters for the name whose sockets it closed.
        CANCEL_WAIT_TRANSACTION,
    };

    // Names are 1 to kMaxNameLength printable ASCII characters.
    static constexpr size_t kMaxNameLength = 255;
    // How long getService() waits for a missing name unless told otherwise;
    // the environment variable TAVRIN_GETSERVICE_TIMEOUT_MS, read once when
    // the process first uses the timeout, overrides it.
    static constexpr std::chrono::milliseconds kDefaultGetServiceTimeout{5000};

    // One entry of the registry, as shown by `tavrin-servicemanager --list`.
    struct Registration {
        String16 name;
        pid_t pid = 0;        // the registering process
        String8 processName;  // its /proc/<pid>/comm at listing time, "?" when gone
        uid_t uid = 0;        // its user
        String8 executable;   // its /proc/<pid>/exe at listing time, "?" when unknown
    };

    // The registered object, waiting for the name to be registered for up to
    // the get-service timeout; null when it did not appear in time. The wait
    // needs no thread pool, and goes on with the successor of a service
    // manager that dies meanwhile.
    virtual sp<IBinder> getService(const String16& name) const = 0;
    // The registered object, or null; never waits.
    virtual sp<IBinder> checkService(const String16& name) const = 0;
    // NO_ERROR; BAD_VALUE for an invalid name, a null object or one that
    // lives in the service manager itself;
    // ALREADY_EXISTS when another process holds the name; NO_MEMORY when the
    // registry is full; a transport error when the service manager is gone.
    // This process keeps what was accepted, to register it again with a
    // service manager that replaces a dead one.
    virtual status_t addService(const String16& name, const sp<IBinder>& service,
                                bool allowIsolated = false) = 0;
    virtual Vector<String16> listServices() = 0;
    virtual std::vector<Registration> listRegistrations() = 0;

    // Sets how long getService() of this process waits; zero makes it not wait.
    virtual void setGetServiceTimeout(std::chrono::milliseconds timeout) = 0;
    virtual std::chrono::milliseconds getServiceTimeout() const = 0;
};

// The service manager of this process's context. When none answers, starts
// the daemon (`$TAVRIN_SERVICEMANAGER`, else the one installed with the binder
// library: looked for from the library's directory, then at the path it was
// installed to) and retries with a bounded backoff. If it still
// does not answer, returns a service manager whose operations fail, and the
// next call tries again. A service manager that replaces a dead one first
// gets back the names this process registered.
sp<IServiceManager> defaultServiceManager();

}  // namespace android
