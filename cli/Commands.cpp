#include "Commands.h"

#include <stdio.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <thread>
#include <utility>

#include "BoundedCall.h"
#include "Table.h"
#include "coupler/binder/monitor/JsonText.h"

namespace tavrin_cli {
namespace {

using android::sp;
using tavrin_binder::jsonQuoted;

// A registered name as `list` shows it.
struct Entry {
    android::IServiceManager::Registration registration;
    std::string kind = "object";
    size_t clients = 0;
    std::vector<std::pair<std::string, int>> subServices;  // name, pid (-1: no answer)
};

// The pid of a master's sub-service, as its carrier tells it; -1 when it does not answer.
int subServicePid(const sp<android::IBinder>& master, const std::string& name) {
    JsonValue status;
    sp<android::IBinder> subService = ContextView::subService(master, name);
    if (!ContextView::carrierStatus(subService, &status)) return -1;
    return static_cast<int>(status["pid"].number(-1));
}

std::vector<std::pair<std::string, int>> subServicesOf(const sp<android::IBinder>& master,
                                                       const JsonValue& status) {
    std::vector<std::pair<std::string, int>> subServices;
    for (const JsonValue& subService : status["subServices"].elements()) {
        const std::string name = subService["name"].string();
        subServices.emplace_back(name, subServicePid(master, name));
    }
    return subServices;
}

Entry describe(ContextView& context, android::IServiceManager::Registration registration) {
    Entry entry;
    entry.registration = std::move(registration);
    const std::string name = android::String8(entry.registration.name).string();
    sp<android::IBinder> object = context.object(name);
    JsonValue status;
    if (ContextView::carrierStatus(object, &status) && status["kind"].string() == "service") {
        entry.kind = "service";
        entry.clients = status["clients"].elements().size();
        entry.subServices = subServicesOf(object, status);
    }
    return entry;
}

std::string subServicesJson(const std::vector<std::pair<std::string, int>>& subServices) {
    std::string text = "[";
    for (size_t i = 0; i < subServices.size(); ++i) {
        if (i > 0) text += ",";
        text += "{\"name\":" + jsonQuoted(subServices[i].first) +
                ",\"pid\":" + std::to_string(subServices[i].second) + "}";
    }
    return text + "]";
}

std::string entryJson(const Entry& entry) {
    const auto& registration = entry.registration;
    return "{\"name\":" + jsonQuoted(android::String8(registration.name).string()) +
           ",\"pid\":" + std::to_string(registration.pid) +
           ",\"uid\":" + std::to_string(registration.uid) +
           ",\"exe\":" + jsonQuoted(registration.executable.string()) +
           ",\"process\":" + jsonQuoted(registration.processName.string()) + ",\"kind\":\"" +
           entry.kind + "\",\"clients\":" + std::to_string(entry.clients) +
           ",\"subServices\":" + subServicesJson(entry.subServices) + "}";
}

std::string subServicesText(const std::vector<std::pair<std::string, int>>& subServices) {
    std::string text;
    for (const auto& [name, pid] : subServices) {
        text += (text.empty() ? "" : ",") + name + "(" + std::to_string(pid) + ")";
    }
    return text.empty() ? "-" : text;
}

void printEntries(const std::vector<Entry>& entries) {
    Table table({"NAME", "PID", "UID", "PROCESS", "KIND", "CLIENTS", "SUB-SERVICES", "EXE"});
    for (const Entry& entry : entries) {
        const auto& registration = entry.registration;
        table.add({android::String8(registration.name).string(), std::to_string(registration.pid),
                   std::to_string(registration.uid), registration.processName.string(), entry.kind,
                   entry.kind == "service" ? std::to_string(entry.clients) : "-",
                   subServicesText(entry.subServices), registration.executable.string()});
    }
    table.print(stdout);
}

void printJsonArray(const std::vector<std::string>& objects) {
    printf("[");
    for (size_t i = 0; i < objects.size(); ++i)
        printf("%s%s", i > 0 ? ",\n " : "", objects[i].c_str());
    printf("]\n");
}

double millisSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

std::string contextName() {
    const char* name = getenv("TAVRIN_BINDER_CONTEXT");
    return name != nullptr && name[0] != '\0' ? name : "default";
}

int listNames(ContextView& context, const CommandLine& line) {
    std::vector<Entry> entries;
    for (auto& registration : context.registrations()) {
        entries.push_back(describe(context, std::move(registration)));
    }
    if (!line.json) {
        printEntries(entries);
        return 0;
    }
    std::vector<std::string> objects;
    for (const Entry& entry : entries) objects.push_back(entryJson(entry));
    printJsonArray(objects);
    return 0;
}

int showStatus(ContextView& context, const CommandLine& line) {
    const std::string& name = line.operands.at(0);
    sp<android::IBinder> object = context.object(name);
    JsonValue status;
    if (object == nullptr) {
        fprintf(stderr, "tavrin: no %s in context %s\n", name.c_str(), contextName().c_str());
        return 1;
    }
    if (!ContextView::carrierStatus(object, &status) || status["kind"].string() != "service") {
        fprintf(stderr, "tavrin: %s is not a tavrin service\n", name.c_str());
        return 1;
    }
    const int pid = static_cast<int>(status["pid"].number(-1));
    const auto subServices = subServicesOf(object, status);
    const int waiting = static_cast<int>(status["waiting"].number());
    std::vector<int> clients;
    for (const JsonValue& client : status["clients"].elements()) {
        clients.push_back(static_cast<int>(client["pid"].number(-1)));
    }
    if (line.json) {
        std::string text = "{\"name\":" + jsonQuoted(name) + ",\"pid\":" + std::to_string(pid) +
                           ",\"exe\":" + jsonQuoted(executableOf(pid)) +
                           ",\"process\":" + jsonQuoted(processNameOf(pid)) + ",\"clients\":[";
        for (size_t i = 0; i < clients.size(); ++i) {
            text += std::string(i > 0 ? "," : "") + "{\"pid\":" + std::to_string(clients[i]) +
                    ",\"exe\":" + jsonQuoted(executableOf(clients[i])) + "}";
        }
        text += "],\"subServices\":" + subServicesJson(subServices) +
                ",\"waiting\":" + std::to_string(waiting) + "}";
        printf("%s\n", text.c_str());
        return 0;
    }
    printf("%s: pid %d (%s), %s\n", name.c_str(), pid, processNameOf(pid).c_str(),
           executableOf(pid).c_str());
    printf("%zu clients, %zu sub-services, %d waiting for a sub-service\n", clients.size(),
           subServices.size(), waiting);
    Table table({"", "PID", "NAME/EXE"});
    for (int client : clients) table.add({"client", std::to_string(client), executableOf(client)});
    for (const auto& [subName, subPid] : subServices) {
        table.add({"sub-service", std::to_string(subPid), subName});
    }
    table.print(stdout);
    return 0;
}

int ping(ContextView& context, const CommandLine& line) {
    const std::string& name = line.operands.at(0);
    sp<android::IBinder> object = context.object(name);
    if (object == nullptr) {
        fprintf(stderr, "tavrin: no %s in context %s\n", name.c_str(), contextName().c_str());
        return 1;
    }
    const long count = line.count > 0 ? line.count : 3;
    long answered = 0;
    double least = 0, most = 0, total = 0;
    for (long sequence = 1; sequence <= count; ++sequence) {
        auto status = std::make_shared<android::status_t>(android::TIMED_OUT);
        const auto start = std::chrono::steady_clock::now();
        runBounded([object, status] { *status = object->pingBinder(); },
                   ContextView::kAnswerTimeout);
        const double millis = millisSince(start);
        if (*status != android::NO_ERROR) {
            printf("%s: seq=%ld no answer (%d)\n", name.c_str(), sequence, *status);
            continue;
        }
        printf("%s: seq=%ld time=%.3f ms\n", name.c_str(), sequence, millis);
        least = answered == 0 ? millis : std::min(least, millis);
        most = std::max(most, millis);
        total += millis;
        ++answered;
    }
    printf("%ld sent, %ld answered", count, answered);
    if (answered > 0) printf(", min/avg/max %.3f/%.3f/%.3f ms", least, total / answered, most);
    printf("\n");
    return answered == count ? 0 : 1;
}

// Waits for a service manager too: the one that the awaited service starts.
int waitFor(const CommandLine& line) {
    const std::string& name = line.operands.at(0);
    const bool forever = line.timeout < 0;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(static_cast<int64_t>(line.timeout * 1000));
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (!forever && left.count() <= 0) break;
        const auto slice = forever ? std::chrono::milliseconds(60000)
                                   : std::min(left, std::chrono::milliseconds(60000));
        ContextView context;
        if (!context.connect()) {
            std::this_thread::sleep_for(std::min(slice, std::chrono::milliseconds(100)));
            continue;
        }
        context.manager()->setGetServiceTimeout(slice);
        if (context.manager()->getService(android::String16(name.c_str())) != nullptr) return 0;
    }
    fprintf(stderr, "tavrin: %s did not appear in context %s\n", name.c_str(),
            contextName().c_str());
    return 1;
}

}  // namespace tavrin_cli
