#include "NoticePrinter.h"

#include <unistd.h>

#include "GreeterProtocol.h"
#include "Story.h"

namespace {

std::string textOf(tavrin::IPCClass& value) {
    auto* notice = dynamic_cast<greeter::Notice*>(&value);
    return notice != nullptr ? notice->text() : "(a " + value.getClassName() + ")";
}

}  // namespace

NoticePrinter::NoticePrinter(std::string client, std::string source)
    : mClient(std::move(client)), mSource(std::move(source)) {}

void NoticePrinter::onNotify(tavrin::IPCClass& value) {
    story::say("one-way notice from the %s: '%s'", mSource.c_str(), textOf(value).c_str());
    ++mNotices;
}

tavrin::tv_sp<tavrin::IPCClass> NoticePrinter::onNotifyEx(tavrin::IPCClass& value) {
    story::say("the %s asks '%s'; answering", mSource.c_str(), textOf(value).c_str());
    ++mQuestions;
    return tavrin::tv_sp<tavrin::IPCClass>(new greeter::Answer(mClient + " is here", getpid()));
}
