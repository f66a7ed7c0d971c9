#pragma once

#include <tavrin/IPCClass.h>
#include <tavrin/IPCString.h>
#include <tavrin/Protocol.h>

#include <string>

// The one value the hello service and its client exchange: a text.
class Hello : public tavrin::IPCClass {
  public:
    explicit Hello(std::string text = "") : mText(std::move(text)) {}
    std::string getClassName() override { return "downstream.Hello"; }
    void serialization(tavrin::Serialization& out) override { mText.serialization(out); }
    void deserialization(tavrin::Deserialization& in) override { mText.deserialization(in); }
    const std::string& text() const { return mText.get(); }

  private:
    tavrin::IPCString mText;
};

inline const char* const kHelloService = "tavrin.downstream.hello";

inline tavrin::Protocol helloProtocol() {
    tavrin::Protocol protocol;
    protocol.add<Hello>("downstream.Hello");
    return protocol;
}
