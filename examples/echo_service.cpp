// A service that echoes what it is sent, tells each caller who it is as the
// transport saw it, and notifies subscribers of every echo.
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <stdio.h>

#include <mutex>
#include <vector>

#include "EchoProtocol.h"

using namespace android;

namespace {

class EchoService : public BBinder {
  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        switch (code) {
            case echo::ECHO:
                return echoBack(data, reply);
            case echo::SUBSCRIBE:
                return subscribe(data);
            default:
                return BBinder::onTransact(code, data, reply, flags);
        }
    }

  private:
    status_t echoBack(const Parcel& data, Parcel* reply) {
        const char* text = data.readCString();
        if (text == nullptr) return BAD_VALUE;
        const pid_t caller = IPCThreadState::self()->getCallingPid();
        printf("echo_service: pid %d says \"%s\"\n", caller, text);
        fflush(stdout);
        reply->writeCString(text);
        reply->writeInt32(caller);
        notifyAll(text);
        return NO_ERROR;
    }

    status_t subscribe(const Parcel& data) {
        sp<IBinder> listener = data.readStrongBinder();
        if (listener == nullptr) return BAD_VALUE;
        std::lock_guard<std::mutex> lock(mLock);
        mListeners.push_back(listener);
        return NO_ERROR;
    }

    void notifyAll(const char* text) {
        std::vector<sp<IBinder>> listeners;
        {
            std::lock_guard<std::mutex> lock(mLock);
            listeners = mListeners;
        }
        for (const sp<IBinder>& listener : listeners) {
            Parcel note;
            note.writeCString(text);
            listener->transact(echo::NOTIFY, note, nullptr, IBinder::FLAG_ONEWAY);
        }
    }

    std::mutex mLock;
    std::vector<sp<IBinder>> mListeners;
};

}  // namespace

int main() {
    sp<ProcessState> process = ProcessState::self();
    process->setProcessName("echo_service");
    status_t err = defaultServiceManager()->addService(String16(echo::kServiceName),
                                                       sp<IBinder>(new EchoService()));
    if (err != NO_ERROR) {
        fprintf(stderr, "echo_service: cannot register %s (status %d)\n", echo::kServiceName, err);
        return 1;
    }
    printf("echo_service: serving %s\n", echo::kServiceName);
    fflush(stdout);
    process->startThreadPool();
    IPCThreadState::self()->joinThreadPool(true);
    return 0;
}
