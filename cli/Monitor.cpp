#include "Monitor.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <sstream>
#include <thread>

#include "Commands.h"
#include "coupler/binder/monitor/JsonText.h"

namespace tavrin_cli {
namespace {

using android::sp;
using std::chrono::steady_clock;

std::string localTime(double seconds) {
    const time_t whole = static_cast<time_t>(seconds);
    tm local{};
    localtime_r(&whole, &local);
    char text[32];
    strftime(text, sizeof text, "%H:%M:%S", &local);
    char withMillis[48];
    snprintf(withMillis, sizeof withMillis, "%s.%03d", text,
             static_cast<int>((seconds - static_cast<double>(whole)) * 1000));
    return withMillis;
}

std::string recordJson(const JsonValue& record) {
    char numbers[160];
    snprintf(numbers, sizeof numbers, "{\"time\":%.6f,\"from\":%d,\"to\":%d,",
             record["time"].number(), static_cast<int>(record["from"].number()),
             static_cast<int>(record["to"].number()));
    std::string text = numbers;
    text += "\"service\":" + tavrin_binder::jsonQuoted(record["service"].string());
    text += ",\"kind\":" + tavrin_binder::jsonQuoted(record["kind"].string());
    text += ",\"class\":" + tavrin_binder::jsonQuoted(record["class"].string());
    text += ",\"bytes\":" + std::to_string(static_cast<long long>(record["bytes"].number()));
    if (record["us"].isNull()) {
        text += ",\"us\":null";
    } else {
        snprintf(numbers, sizeof numbers, ",\"us\":%.1f", record["us"].number());
        text += numbers;
    }
    return text + ",\"status\":" + std::to_string(static_cast<int>(record["status"].number())) +
           "}";
}

}  // namespace

Monitor::Monitor(ContextView& context, const CommandLine& line)
    : mContext(context), mLine(line), mNames(line.operands.begin(), line.operands.end()) {}

int Monitor::run() {
    const int status = watchUntilDone();
    if (mDropped > 0) {
        fprintf(stderr, "tavrin: %llu records dropped in all\n",
                static_cast<unsigned long long>(mDropped));
    }
    return status;
}

int Monitor::watchUntilDone() {
    const bool forever = mLine.timeout < 0;
    const auto deadline =
        steady_clock::now() + std::chrono::milliseconds(static_cast<int64_t>(mLine.timeout * 1000));
    auto nextRefresh = steady_clock::now();
    if (!mLine.json) {
        printf("%-12s %7s %7s %-11s %-20s %-20s %6s %9s %s\n", "TIME", "FROM", "TO", "KIND",
               "SERVICE", "CLASS", "BYTES", "US", "STATUS");
        fflush(stdout);
    }
    while (forever || steady_clock::now() < deadline) {
        if (steady_clock::now() >= nextRefresh) {
            if (!refresh()) {
                fprintf(stderr, "tavrin: the service manager of context %s is gone\n",
                        contextName().c_str());
                return 1;
            }
            nextRefresh = steady_clock::now() + kRefreshPeriod;
        }
        std::vector<JsonValue> records;
        for (auto source = mSources.begin(); source != mSources.end();) {
            source = read(source->second, &records) ? std::next(source) : mSources.erase(source);
        }
        std::stable_sort(records.begin(), records.end(),
                         [](const JsonValue& a, const JsonValue& b) {
                             return a["time"].number() < b["time"].number();
                         });
        for (const JsonValue& record : records) {
            if (!wanted(record)) continue;
            show(record);
            if (mLine.count > 0 && mShown >= mLine.count) return 0;
        }
        fflush(stdout);
        std::this_thread::sleep_for(kReadPeriod);
    }
    return 0;
}

bool Monitor::refresh() {
    if (!android::IInterface::asBinder(mContext.manager())->isBinderAlive()) return false;
    for (const auto& registration : mContext.registrations()) {
        const std::string name = android::String8(registration.name).string();
        sp<android::IBinder> object = mContext.object(name);
        if (object != nullptr) watch(name, object, true);
    }
    std::vector<Source> masters;
    for (const auto& [binder, source] : mSources) {
        if (source.service) masters.push_back(source);
    }
    for (const Source& master : masters) lookForSubServices(master);
    return true;
}

void Monitor::lookForSubServices(const Source& master) {
    JsonValue status;
    if (!ContextView::carrierStatus(master.binder, &status)) return;
    for (const JsonValue& subService : status["subServices"].elements()) {
        const std::string name = subService["name"].string();
        sp<android::IBinder> binder = ContextView::subService(master.binder, name);
        if (binder != nullptr) watch(name, binder, false);
    }
}

void Monitor::watch(const std::string& name, const sp<android::IBinder>& binder, bool service) {
    if (mSources.count(binder.get()) != 0 || mOthers.count(binder) != 0) return;
    std::string text;
    size_t end = 0;
    int pid = 0;
    int64_t next = 0;
    if (!ContextView::dump(binder, {"--monitor", name, "-1"}, &text) ||
        !takeHeader(text, &end, &pid, &next)) {
        mOthers.insert(binder);
        return;
    }
    mCursors.emplace(pid, next);  // a process watched already keeps its cursor
    JsonValue status;
    const bool master = service && ContextView::carrierStatus(binder, &status) &&
                        status["kind"].string() == "service";
    mSources.emplace(binder.get(), Source{name, binder, pid, master});
    fprintf(stderr, "tavrin: watching %s (pid %d)\n", name.c_str(), pid);
}

bool Monitor::read(const Source& source, std::vector<JsonValue>* records) {
    if (!source.binder->isBinderAlive()) return false;
    std::string text;
    // The process's cursor: the records of all its carriers come through any of them.
    const std::string cursor = std::to_string(mCursors[source.pid]);
    if (!ContextView::dump(source.binder, {"--monitor", source.name, cursor}, &text)) {
        return true;  // too slow this time
    }
    size_t end = 0;
    int pid = 0;
    int64_t next = 0;
    if (!takeHeader(text, &end, &pid, &next)) return source.binder->isBinderAlive();
    mCursors[pid] = next;
    std::istringstream lines(text.substr(end));
    std::string line;
    while (std::getline(lines, line)) {
        JsonValue record;
        if (JsonValue::parse(line, &record) && record.type() == JsonValue::Type::kObject) {
            records->push_back(std::move(record));
        }
    }
    return true;
}

bool Monitor::takeHeader(const std::string& text, size_t* end, int* pid, int64_t* next) {
    *end = text.find('\n');
    JsonValue header;
    if (*end == std::string::npos || !JsonValue::parse(text.substr(0, *end), &header) ||
        header["pid"].number(-1) <= 0 || header["next"].number(-1) < 0) {
        return false;
    }
    *pid = static_cast<int>(header["pid"].number());
    *next = static_cast<int64_t>(header["next"].number());
    const auto dropped = static_cast<uint64_t>(header["dropped"].number());
    if (dropped > 0) {
        mDropped += dropped;
        fprintf(stderr, "tavrin: %llu records of pid %d dropped (read too slowly)\n",
                static_cast<unsigned long long>(dropped), *pid);
    }
    ++*end;
    return true;
}

bool Monitor::wanted(const JsonValue& record) const {
    return mNames.empty() || mNames.count(record["service"].string()) != 0;
}

void Monitor::show(const JsonValue& record) {
    ++mShown;
    if (mLine.json) {
        printf("%s\n", recordJson(record).c_str());
        return;
    }
    const std::string micros =
        record["us"].isNull() ? "-" : std::to_string(static_cast<long>(record["us"].number()));
    printf("%-12s %7d %7d %-11s %-20s %-20s %6lld %9s %d\n",
           localTime(record["time"].number()).c_str(), static_cast<int>(record["from"].number()),
           static_cast<int>(record["to"].number()), record["kind"].string().c_str(),
           record["service"].string().c_str(), record["class"].string().c_str(),
           static_cast<long long>(record["bytes"].number()), micros.c_str(),
           static_cast<int>(record["status"].number()));
}

}  // namespace tavrin_cli
