#pragma once

#include <string>

#include "IClient.h"
#include "NoticePrinter.h"
#include "tv_sp.h"

// One client process's session with the greeter and its translator: binds
// to both, asks the greeter once to ping it (a one-way notice and a
// question), then greets and translates once per round. It tells the first
// answer of each service and every change between answering and failing,
// so that a service's death shows as one line.
//
// Owned by main, which calls it on the main thread; notifications reach its
// NoticePrinters on binder threads.
class GreeterClient {
  public:
    explicit GreeterClient(std::string name);

    // Binds to the greeter, then to the translator through it; false when
    // either is not there.
    bool bind();
    // `rounds` < 0: until killed. True when every call was answered and
    // every expected notification arrived.
    bool run(int rounds);

  private:
    // One bound service and what the story has told of it so far.
    struct Target {
        explicit Target(const char* label) : label(label) {}

        const char* const label;
        tavrin::tv_sp<tavrin::IClient> client;
        tavrin::tv_sp<tavrin::IClientNotifier> notifier;
        NoticePrinter* notices = nullptr;  // owned by notifier
        bool answered = false;
        bool failing = false;
    };

    bool bindTarget(Target& target, tavrin::tv_sp<tavrin::IClient> client);
    bool call(Target& target, const char* what, int round);
    void tellAnswer(Target& target, const std::string& text);
    void tellFailure(Target& target);
    // Waits a little for notifications still in flight.
    bool notified();

    const std::string mName;
    Target mGreeter{"greeter"};
    Target mTranslator{"translator"};
};
