// Binds to the echo service, subscribes to its notifications, sends a few
// lines and prints the answers and the notifications it receives.
#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "EchoProtocol.h"

using namespace android;

namespace {

class Listener : public BBinder {
  public:
    std::atomic<int> received{0};

  protected:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        if (code != echo::NOTIFY) return BBinder::onTransact(code, data, reply, flags);
        const char* text = data.readCString();
        printf("echo_client %d: notified \"%s\"\n", getpid(), text != nullptr ? text : "?");
        fflush(stdout);
        received++;
        return NO_ERROR;
    }
};

}  // namespace

int main(int argc, char** argv) {
    const int count = argc > 1 ? atoi(argv[1]) : 3;
    ProcessState::self()->startThreadPool();
    sp<IBinder> service = defaultServiceManager()->getService(String16(echo::kServiceName));
    if (service == nullptr) {
        fprintf(stderr, "echo_client: no service named %s\n", echo::kServiceName);
        return 1;
    }
    sp<Listener> listener = new Listener();
    Parcel subscription, none;
    subscription.writeStrongBinder(listener);
    if (service->transact(echo::SUBSCRIBE, subscription, &none) != NO_ERROR) return 1;

    for (int i = 0; i < count; i++) {
        const std::string line = "hello " + std::to_string(i) + " from " + std::to_string(getpid());
        Parcel data, reply;
        data.writeCString(line.c_str());
        status_t err = service->transact(echo::ECHO, data, &reply);
        const char* answer = reply.readCString();
        if (err != NO_ERROR || answer == nullptr || line != answer) {
            fprintf(stderr, "echo_client: call failed (status %d)\n", err);
            return 1;
        }
        printf("echo_client %d: answer \"%s\" (service saw pid %d)\n", getpid(), answer,
               reply.readInt32());
        fflush(stdout);
    }
    // Notifications are one-way: give them a bounded moment to arrive.
    for (int i = 0; i < 200 && listener->received < count; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return listener->received >= count ? 0 : 1;
}
