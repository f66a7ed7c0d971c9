// hello_client: binds to the hello service, calls it and waits for its
// notification. Exits 0 when both arrived, 1 otherwise.
#include <stdio.h>
#include <tavrin/Discoverer.h>
#include <tavrin/IClientNotifier.h>
#include <tavrin/ServiceInfo.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Hello.h"

class NoticeCatcher : public tavrin::IClientNotifier {
  public:
    void onNotify(tavrin::IPCClass& value) override {
        std::lock_guard<std::mutex> hold(mLock);
        mNotice = static_cast<Hello&>(value).text();
        mArrived.notify_all();
    }
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::IPCClass& value) override {
        onNotify(value);
        return tavrin::tv_sp<tavrin::IPCClass>(nullptr);
    }
    std::string await(std::chrono::seconds timeout) {
        std::unique_lock<std::mutex> hold(mLock);
        mArrived.wait_for(hold, timeout, [this] { return !mNotice.empty(); });
        return mNotice;
    }

  private:
    std::mutex mLock;
    std::condition_variable mArrived;
    std::string mNotice;
};

int main() {
    tavrin::ServiceInfo info(kHelloService, "Binder");
    tavrin::Protocol protocol = helloProtocol();
    tavrin::tv_sp<tavrin::IClient> client;
    // The service may still be starting: a bind waits a few seconds for its name.
    for (int attempt = 0; attempt < 4 && !client; ++attempt) {
        client = tavrin::Discoverer::self().bindTo(info, protocol, 1);
    }
    if (!client) {
        fprintf(stderr, "hello_client: cannot bind to %s\n", kHelloService);
        return 1;
    }
    auto catcher = new NoticeCatcher();
    tavrin::tv_sp<tavrin::IClientNotifier> notifier(catcher);
    client->setNotifier(notifier);
    Hello hello("downstream");
    tavrin::tv_sp<tavrin::IPCClass> answer = client->ipcCall(hello);
    const std::string notice = catcher->await(std::chrono::seconds(10));
    printf("answer: %s\nnotice: %s\n",
           answer ? static_cast<Hello*>(answer.get())->text().c_str() : "(none)",
           notice.empty() ? "(none)" : notice.c_str());
    return answer && notice == "a notice for downstream" ? 0 : 1;
}
