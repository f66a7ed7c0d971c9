#include "GreeterProtocol.h"

#include <unistd.h>

namespace greeter {

Request::Request(std::string what, std::string text, int32_t round)
    : mWhat(std::move(what)), mText(std::move(text)), mRound(round) {}

void Request::serialization(tavrin::Serialization& out) {
    mWhat.serialization(out);
    mText.serialization(out);
    mRound.serialization(out);
}

void Request::deserialization(tavrin::Deserialization& in) {
    mWhat.deserialization(in);
    mText.deserialization(in);
    mRound.deserialization(in);
}

Answer::Answer(std::string text, int32_t pid) : mText(std::move(text)), mPid(pid) {}

void Answer::serialization(tavrin::Serialization& out) {
    mText.serialization(out);
    mPid.serialization(out);
}

void Answer::deserialization(tavrin::Deserialization& in) {
    mText.deserialization(in);
    mPid.deserialization(in);
}

void Notice::serialization(tavrin::Serialization& out) {
    mText.serialization(out);
}

void Notice::deserialization(tavrin::Deserialization& in) {
    mText.deserialization(in);
}

TranslatorConfig::TranslatorConfig(std::string language, std::string hello, int32_t masterPid)
    : mLanguage(std::move(language)), mHello(std::move(hello)), mMasterPid(masterPid) {}

void TranslatorConfig::serialization(tavrin::Serialization& out) {
    mLanguage.serialization(out);
    mHello.serialization(out);
    mMasterPid.serialization(out);
}

void TranslatorConfig::deserialization(tavrin::Deserialization& in) {
    mLanguage.deserialization(in);
    mHello.deserialization(in);
    mMasterPid.deserialization(in);
}

tavrin::tv_sp<tavrin::IPCClass> answerFromHere(std::string text) {
    return tavrin::tv_sp<tavrin::IPCClass>(new Answer(std::move(text), getpid()));
}

tavrin::Protocol requestProtocol() {
    tavrin::Protocol protocol;
    protocol.add<Request>(Request::kClassName);
    protocol.add<Answer>(Answer::kClassName);
    return protocol;
}

tavrin::Protocol clientProtocol() {
    tavrin::Protocol protocol;
    protocol.add<Answer>(Answer::kClassName);
    protocol.add<Notice>(Notice::kClassName);
    return protocol;
}

tavrin::Protocol fromMasterProtocol() {
    tavrin::Protocol protocol = requestProtocol();
    protocol.add<TranslatorConfig>(TranslatorConfig::kClassName);
    return protocol;
}

}  // namespace greeter
