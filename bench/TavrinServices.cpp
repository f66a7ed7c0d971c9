#include "TavrinServices.h"

#include <chrono>

#include "BenchOptions.h"
#include "INotifier.h"

using tavrin::IPCClass;
using tavrin::tv_sp;

namespace coupler {
namespace {

// A notification lost on the way would otherwise stall the stream for good.
constexpr std::chrono::seconds kLongestCheckpointWait{5};

const char* const kClassNames[] = {"Echo", "Ask", "Stream", "Note", "Checkpoint"};

template <Number::Kind kind>
void* create() {
    return static_cast<IPCClass*>(new Number(kind));
}

tv_sp<IPCClass> none() {
    return tv_sp<IPCClass>(nullptr);
}

tv_sp<IPCClass> echo(int32_t value) {
    return tv_sp<IPCClass>(new Number(Number::ECHO, value));
}

}  // namespace

std::string Number::getClassName() {
    return kClassNames[mKind];
}

tavrin::Protocol numberProtocol() {
    tavrin::Protocol protocol;
    protocol.addCreator(kClassNames[Number::ECHO], create<Number::ECHO>);
    protocol.addCreator(kClassNames[Number::ASK], create<Number::ASK>);
    protocol.addCreator(kClassNames[Number::STREAM], create<Number::STREAM>);
    protocol.addCreator(kClassNames[Number::NOTE], create<Number::NOTE>);
    protocol.addCreator(kClassNames[Number::CHECKPOINT], create<Number::CHECKPOINT>);
    return protocol;
}

int64_t valueOf(const tv_sp<IPCClass>& result, Number::Kind kind) {
    // Every value the Protocol above creates is a Number.
    const auto* number = static_cast<const Number*>(result.get());
    return number != nullptr && number->kind() == kind ? number->value() : -1;
}

tv_sp<IPCClass> BenchService::onAction(IPCClass* action, tavrin::ClientInfo& client) {
    const auto* request = static_cast<const Number*>(action);
    switch (request->kind()) {
        case Number::ECHO:
            return echo(request->value());
        case Number::ASK: {
            Number question(Number::ECHO, request->value());
            return mNotifier.load()->sendNotifyEx(question, client);
        }
        case Number::STREAM:
            return stream(request->value(), client);
        default:
            return none();
    }
}

void BenchService::setNotifier(tavrin::INotifier* notifier) {
    mNotifier.store(notifier);
}

tv_sp<IPCClass> BenchService::getSubServiceConfig(std::string&) {
    return echo(0);
}

tv_sp<IPCClass> BenchService::onSubServiceAction(IPCClass*, std::string&) {
    return none();
}

// Notifies `count` times, stopping after each batch until the client has
// counted it, so that neither side queues without bound.
tv_sp<IPCClass> BenchService::stream(int32_t count, tavrin::ClientInfo& client) {
    tavrin::INotifier* notifier = mNotifier.load();
    Number note(Number::NOTE);
    for (int32_t sent = 1; sent <= count; ++sent) {
        notifier->sendNotify(note, client);
        if (sent % kOneWayBatch == 0 || sent == count) {
            Number checkpoint(Number::CHECKPOINT, sent);
            if (valueOf(notifier->sendNotifyEx(checkpoint, client)) != sent) return none();
        }
    }
    return echo(count);
}

tv_sp<IPCClass> EchoSubService::onMasterAction(IPCClass*) {
    return none();
}

tv_sp<IPCClass> EchoSubService::onAction(IPCClass* action, tavrin::ClientInfo&) {
    return echo(static_cast<const Number*>(action)->value());
}

void NoteCounter::onNotify(IPCClass&) {
    std::lock_guard<std::mutex> lock(mLock);
    if (++mReceived >= mNextTarget) {
        mNextTarget = INT64_MAX;
        mCounted.notify_all();
    }
}

tv_sp<IPCClass> NoteCounter::onNotifyEx(IPCClass& value) {
    const auto& question = static_cast<const Number&>(value);
    if (question.kind() != Number::CHECKPOINT) return echo(question.value());
    return awaitCount(question.value()) ? echo(question.value()) : none();
}

void NoteCounter::restart() {
    std::lock_guard<std::mutex> lock(mLock);
    mReceived = 0;
}

int64_t NoteCounter::received() {
    std::lock_guard<std::mutex> lock(mLock);
    return mReceived;
}

bool NoteCounter::awaitCount(int64_t target) {
    std::unique_lock<std::mutex> lock(mLock);
    const auto deadline = std::chrono::steady_clock::now() + kLongestCheckpointWait;
    while (mReceived < target) {
        mNextTarget = target;
        if (mCounted.wait_until(lock, deadline) == std::cv_status::timeout) break;
    }
    return mReceived >= target;
}

}  // namespace coupler
