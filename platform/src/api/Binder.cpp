#include <binder/Binder.h>
#include <binder/Parcel.h>
#include <unistd.h>

#include "runtime/Runtime.h"

namespace android {

namespace {

// Bounds what a DUMP or SHELL_COMMAND request can make us allocate.
constexpr int32_t kMaxCommandArguments = 1024;

status_t readArguments(const Parcel& data, Vector<String16>* args) {
    int32_t count = data.readInt32();
    if (count < 0 || count > kMaxCommandArguments) return BAD_VALUE;
    for (int32_t i = 0; i < count; ++i) {
        String16 arg;
        status_t status = data.readString16(&arg);
        if (status != NO_ERROR) return status;
        args->add(arg);
    }
    return NO_ERROR;
}

void writeAll(int fd, const char* text, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, text, size);
        if (n <= 0) return;
        text += n;
        size -= static_cast<size_t>(n);
    }
}

}  // namespace

BBinder::BBinder() = default;

BBinder::~BBinder() {
    if (tvbinder::Runtime* runtime = tvbinder::Runtime::current()) {
        if (const std::optional<tvbinder::Token> token = runtime->exports().forget(this)) {
            runtime->oneWays().forget(*token);
        }
    }
}

const String16& BBinder::getInterfaceDescriptor() const {
    static const String16* const kEmpty = new String16();
    return *kEmpty;
}

bool BBinder::isBinderAlive() const {
    return true;
}

status_t BBinder::pingBinder() {
    return NO_ERROR;
}

status_t BBinder::dump(int /*fd*/, const Vector<String16>& /*args*/) {
    return NO_ERROR;
}

status_t BBinder::transact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) {
    data.setDataPosition(0);
    status_t status =
        code == PING_TRANSACTION ? pingBinder() : onTransact(code, data, reply, flags);
    if (reply != nullptr) reply->setDataPosition(0);
    return status;
}

status_t BBinder::linkToDeath(const sp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                              uint32_t /*flags*/) {
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient>& /*recipient*/, void* /*cookie*/,
                                uint32_t /*flags*/, wp<DeathRecipient>* /*outRecipient*/) {
    return INVALID_OPERATION;
}

BBinder* BBinder::localBinder() {
    return this;
}

status_t BBinder::onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t /*flags*/) {
    switch (code) {
        case INTERFACE_TRANSACTION:
            if (reply == nullptr) return BAD_VALUE;
            return reply->writeString16(getInterfaceDescriptor());
        case DUMP_TRANSACTION: {
            int fd = data.readFileDescriptor();
            Vector<String16> args;
            status_t status = readArguments(data, &args);
            if (fd < 0 || status != NO_ERROR) return BAD_VALUE;
            return dump(fd, args);
        }
        case SHELL_COMMAND_TRANSACTION: {
            data.readFileDescriptor();  // in
            data.readFileDescriptor();  // out
            int err = data.readFileDescriptor();
            Vector<String16> args;
            if (err < 0 || readArguments(data, &args) != NO_ERROR) return BAD_VALUE;
            static const char kNoCommands[] = "This object takes no shell commands.\n";
            writeAll(err, kNoCommands, sizeof(kNoCommands) - 1);
            return NO_ERROR;
        }
        default:
            return UNKNOWN_TRANSACTION;
    }
}

}  // namespace android
