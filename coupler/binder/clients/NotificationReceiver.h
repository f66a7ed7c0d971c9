#pragma once

#include <binder/Binder.h>

#include "Protocol.h"
#include "tv_sp.h"
#include "utils/Mutex.h"

namespace tavrin_binder {

class ClientsManager;

// The binder object through which a service or a sub-service notifies the
// clients that one proxy of this process made: every transaction, whatever
// its code, is read as a NOTIFY (ClientInfo, wantReply, value) and handed to
// the ClientsManager, which finds the addressed client.
//
// Held by its proxy and, remotely, by the service it is registered with, so
// it may outlive the proxy: the proxy detaches it when it goes, and from then
// on every notification gets an empty reply and reaches nobody. It keeps its
// own share of the manager and its own copy of the Protocol for that reason.
// onTransact runs on binder threads, several at once; detach on any thread.
class NotificationReceiver : public android::BBinder {
  public:
    // `logTag` is a literal naming the proxy class in log lines.
    NotificationReceiver(const char* logTag, const tavrin::tv_sp<ClientsManager>& clients,
                         tavrin::Protocol& protocol);

    void detach();

  protected:
    ~NotificationReceiver() override;
    android::status_t onTransact(uint32_t code, const android::Parcel& data, android::Parcel* reply,
                                 uint32_t flags) override;

  private:
    tavrin::tv_sp<ClientsManager> attachedClients();

    const char* const mLogTag;
    tavrin::Protocol mProtocol;  // read only
    tavrin::Mutex mLock;         // guards mClients
    tavrin::tv_sp<ClientsManager> mClients;
};

}  // namespace tavrin_binder
