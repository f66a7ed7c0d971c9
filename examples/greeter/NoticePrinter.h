#pragma once

#include <atomic>
#include <string>

#include "IClientNotifier.h"

// Receives the notifications of one client handle: tells each one and
// answers questions with the client's name.
//
// Owned through tv_sp by the client handle it is installed on and by
// GreeterClient. Called on binder threads, several at once.
class NoticePrinter : public tavrin::IClientNotifier {
  public:
    // `client` names this process in answers, `source` the notifying service.
    NoticePrinter(std::string client, std::string source);

    void onNotify(tavrin::IPCClass& value) override;
    tavrin::tv_sp<tavrin::IPCClass> onNotifyEx(tavrin::IPCClass& value) override;

    int notices() const { return mNotices.load(); }
    int questions() const { return mQuestions.load(); }

  private:
    const std::string mClient;
    const std::string mSource;
    std::atomic<int> mNotices{0};
    std::atomic<int> mQuestions{0};
};
