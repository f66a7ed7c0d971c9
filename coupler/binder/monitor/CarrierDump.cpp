#include "coupler/binder/monitor/CarrierDump.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <utils/String8.h>

#include <chrono>

#include "coupler/binder/monitor/CallMonitor.h"
#include "coupler/binder/monitor/JsonText.h"

namespace tavrin_binder {
namespace {

constexpr std::chrono::milliseconds kWriteBudget{2000};

// Writes all of `text` unless the reader stalls past the budget.
void writeBounded(int fd, const std::string& text) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    const auto deadline = std::chrono::steady_clock::now() + kWriteBudget;
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n > 0) {
            written += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) return;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return;
        pollfd writable{fd, POLLOUT, 0};
        poll(&writable, 1, static_cast<int>(left.count()));
    }
}

std::string number(double value) {
    char text[32];
    snprintf(text, sizeof text, "%.6f", value);
    return text;
}

std::string recordLine(const CallRecord& record, const std::string& service) {
    std::string line = "{\"time\":" + number(record.time);
    line += ",\"from\":" + std::to_string(record.from);
    line += ",\"to\":" + std::to_string(record.to);
    line += ",\"service\":" + jsonQuoted(service);
    line += ",\"kind\":\"" + std::string(callKindName(record.kind)) + "\"";
    line += ",\"class\":" + jsonQuoted(record.className);
    line += ",\"bytes\":" + std::to_string(record.bytes);
    line += ",\"us\":" + (record.micros < 0 ? std::string("null") : number(record.micros));
    line += ",\"status\":" + std::to_string(record.status) + "}\n";
    return line;
}

bool parseCursor(const android::String16& text, int64_t* cursor) {
    const android::String8 digits(text);
    char* end = nullptr;
    errno = 0;
    *cursor = strtoll(digits.string(), &end, 10);
    return digits.size() > 0 && *end == '\0' && errno == 0;
}

}  // namespace

android::status_t CarrierDump::answer(int fd, const android::Vector<android::String16>& args,
                                      const std::vector<const void*>& sources,
                                      const std::function<std::string()>& status) {
    if (args.size() == 0) {
        writeBounded(fd, status() + "\n");
        return android::NO_ERROR;
    }
    int64_t cursor = 0;
    if (args.size() != 3 || args[0] != android::String16("--monitor") ||
        !parseCursor(args[2], &cursor)) {
        writeBounded(fd, "usage: (no arguments) | --monitor NAME CURSOR\n");
        return android::BAD_VALUE;
    }
    const CallMonitor::Batch batch =
        CallMonitor::self().read(sources, android::String8(args[1]).string(), cursor);
    std::string text = "{\"pid\":" + std::to_string(getpid()) +
                       ",\"next\":" + std::to_string(batch.next) +
                       ",\"dropped\":" + std::to_string(batch.dropped) + "}\n";
    for (const auto& [record, service] : batch.records) text += recordLine(record, service);
    writeBounded(fd, text);
    return android::NO_ERROR;
}

}  // namespace tavrin_binder
