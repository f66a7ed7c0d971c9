#include "ContextView.h"

#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <memory>

#include "BoundedCall.h"
#include "coupler/binder/service/ServiceCarrierCode.h"

namespace tavrin_cli {
namespace {

using android::IBinder;
using android::Parcel;
using android::sp;

// More than any carrier writes: a peer cannot make the command hoard memory.
constexpr size_t kMaxDumpSize = 64 << 20;

// Reads `fd` to its end, up to `deadline`.
bool readAll(int fd, std::chrono::steady_clock::time_point deadline, std::string* text) {
    char buffer[65536];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd readable{fd, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n == 0) return true;
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        if (text->size() + static_cast<size_t>(n) > kMaxDumpSize) return false;
        text->append(buffer, static_cast<size_t>(n));
    }
}

std::string firstLineOf(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) || line.empty()) return "?";
    return line;
}

}  // namespace

bool ContextView::connect() {
    sp<IBinder> context = android::ProcessState::self()->getContextObject(nullptr);
    if (context == nullptr) return false;
    auto answered = std::make_shared<std::atomic<bool>>(false);
    runBounded([context, answered] { *answered = context->pingBinder() == android::NO_ERROR; },
               kAnswerTimeout);
    if (!*answered) return false;
    mManager = android::defaultServiceManager();
    return true;
}

std::vector<android::IServiceManager::Registration> ContextView::registrations() {
    return mManager->listRegistrations();
}

sp<IBinder> ContextView::object(const std::string& name) {
    return mManager->checkService(android::String16(name.c_str()));
}

sp<IBinder> ContextView::subService(const sp<IBinder>& master, const std::string& name) {
    auto found = std::make_shared<sp<IBinder>>();
    const bool answered = runBounded(
        [master, name, found] {
            Parcel request, reply;
            request.writeCString(name.c_str());
            request.writeInt32(0);  // no waiting
            master->transact(tavrin_binder::ServiceCarrierCode::GET_SUB_SERVICE, request, &reply);
            if (reply.readInt32() == 0) *found = reply.readStrongBinder();
        },
        kAnswerTimeout);
    return answered ? *found : nullptr;
}

bool ContextView::dump(const sp<IBinder>& object, const std::vector<std::string>& args,
                       std::string* text) {
    const auto deadline = std::chrono::steady_clock::now() + kAnswerTimeout;
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) return false;
    auto request = std::make_shared<Parcel>();
    request->writeDupFileDescriptor(pipeEnds[1]);
    close(pipeEnds[1]);
    request->writeInt32(static_cast<int32_t>(args.size()));
    for (const std::string& arg : args) request->writeString16(android::String16(arg.c_str()));
    // The answer ends when the request's copy of the write end goes: in the
    // worker, once the object answered, and in the object's process.
    runBounded(
        [object, request]() mutable {
            Parcel reply;
            object->transact(IBinder::DUMP_TRANSACTION, *request, &reply);
            request.reset();
        },
        std::chrono::milliseconds(0));
    request.reset();
    const bool complete = readAll(pipeEnds[0], deadline, text);
    close(pipeEnds[0]);
    return complete;
}

bool ContextView::carrierStatus(const sp<IBinder>& object, JsonValue* status) {
    std::string text;
    return object != nullptr && dump(object, {}, &text) && JsonValue::parse(text, status) &&
           (*status)["kind"].type() == JsonValue::Type::kString;
}

std::string executableOf(int pid) {
    char path[4096];
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(link.c_str(), path, sizeof path);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof path) return "?";
    return std::string(path, static_cast<size_t>(length));
}

std::string processNameOf(int pid) {
    return firstLineOf("/proc/" + std::to_string(pid) + "/comm");
}

}  // namespace tavrin_cli
