#pragma once

#include <stdint.h>

#include <string>

#include "IPCClass.h"
#include "IPCInt32.h"
#include "IPCString.h"
#include "Protocol.h"
#include "tv_sp.h"

// What the greeter service, its translator sub-service and their clients
// agree on: names, the value classes they exchange, and the Protocol each
// side reads with. Every process builds its own Protocol objects.
namespace greeter {

constexpr const char* kServiceName = "tavrin.demo.greeter";
constexpr const char* kTranslatorName = "translator";
constexpr const char* kIpc = "Binder";

// A request: an operation, its subject, and the caller's round (0 if none).
// Sent by clients to both services, and between the service and translator.
class Request : public tavrin::IPCClass {
  public:
    static constexpr const char* kClassName = "greeter.Request";

    Request() = default;
    Request(std::string what, std::string text, int32_t round = 0);

    std::string getClassName() override { return kClassName; }
    void serialization(tavrin::Serialization& out) override;
    void deserialization(tavrin::Deserialization& in) override;

    const std::string& what() const { return mWhat.get(); }
    const std::string& text() const { return mText.get(); }
    int32_t round() const { return mRound.get(); }

  private:
    tavrin::IPCString mWhat;
    tavrin::IPCString mText;
    tavrin::IPCInt32 mRound;
};

// The result of any request, and a client's answer to a notification.
class Answer : public tavrin::IPCClass {
  public:
    static constexpr const char* kClassName = "greeter.Answer";

    Answer() = default;
    // `pid` is the answering process, so that logs show who really answered.
    Answer(std::string text, int32_t pid);

    std::string getClassName() override { return kClassName; }
    void serialization(tavrin::Serialization& out) override;
    void deserialization(tavrin::Deserialization& in) override;

    const std::string& text() const { return mText.get(); }
    int32_t pid() const { return mPid.get(); }

  private:
    tavrin::IPCString mText;
    tavrin::IPCInt32 mPid;
};

// A notification from the service or the translator to one client.
class Notice : public tavrin::IPCClass {
  public:
    static constexpr const char* kClassName = "greeter.Notice";

    Notice() = default;
    explicit Notice(std::string text) : mText(std::move(text)) {}

    std::string getClassName() override { return kClassName; }
    void serialization(tavrin::Serialization& out) override;
    void deserialization(tavrin::Deserialization& in) override;

    const std::string& text() const { return mText.get(); }

  private:
    tavrin::IPCString mText;
};

// What the service tells the translator when it registers.
class TranslatorConfig : public tavrin::IPCClass {
  public:
    static constexpr const char* kClassName = "greeter.TranslatorConfig";

    TranslatorConfig() = default;
    TranslatorConfig(std::string language, std::string hello, int32_t masterPid);

    std::string getClassName() override { return kClassName; }
    void serialization(tavrin::Serialization& out) override;
    void deserialization(tavrin::Deserialization& in) override;

    const std::string& language() const { return mLanguage.get(); }
    // The word that replaces "hello" in translations.
    const std::string& hello() const { return mHello.get(); }
    int32_t masterPid() const { return mMasterPid.get(); }

  private:
    tavrin::IPCString mLanguage;
    tavrin::IPCString mHello;
    tavrin::IPCInt32 mMasterPid;
};

// A result holding an Answer from this process.
tavrin::tv_sp<tavrin::IPCClass> answerFromHere(std::string text);

// Requests and the answers to notifications: what the service reads from
// its clients and from the translator, and what the translator reads from
// its clients.
tavrin::Protocol requestProtocol();
// Answers and notices: what a client reads, from the service and the
// translator alike.
tavrin::Protocol clientProtocol();
// What the translator reads from the service: requests, answers and its
// configuration.
tavrin::Protocol fromMasterProtocol();

}  // namespace greeter
