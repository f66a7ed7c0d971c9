#include "Report.h"

#include <stdio.h>

namespace {

std::string format(const char* pattern, double value) {
    char text[64];
    snprintf(text, sizeof text, pattern, value);
    return text;
}

std::string formatOr(const std::optional<double>& value, const char* pattern) {
    return value ? format(pattern, *value) : std::string("failed");
}

const char* verdict(bool met) {
    return met ? "met" : "MISSED";
}

}  // namespace

void Report::addLatency(const std::string& what, const Paired& micros, double maxRatio,
                        int rawTimes, std::optional<double> floorMicros) {
    const std::optional<double>& binderMicros = micros.measured;
    const std::optional<double>& rawMicros = micros.baseline;
    const std::string rawPattern =
        rawTimes == 1 ? "%.1f us" : std::to_string(rawTimes) + " x %.1f us";
    Row row{what,
            formatOr(binderMicros, "%.1f us"),
            formatOr(rawMicros, rawPattern.c_str()),
            "-",
            "-",
            format("<= %.1fx raw", maxRatio),
            "-"};
    if (binderMicros && floorMicros && *floorMicros > 0) {
        row.floor = format("%.2fx", *binderMicros / (rawTimes * *floorMicros));
    }
    if (binderMicros && rawMicros && *rawMicros > 0) {
        const double ratio = *binderMicros / (rawTimes * *rawMicros);
        row.ratio = format("%.2fx", ratio);
        row.verdict = verdict(ratio <= maxRatio);
    }
    mRows.push_back(row);
}

void Report::addReference(const std::string& what, const Paired& micros) {
    addLatency(what, micros, 0);
    Row& row = mRows.back();
    row.target = "reference";
    row.verdict = "-";
}

void Report::addThroughput(const std::string& what, const Paired& perSecond, double minRatio) {
    const std::optional<double>& binderPerSecond = perSecond.measured;
    const std::optional<double>& rawPerSecond = perSecond.baseline;
    Row row{what,
            binderPerSecond ? format("%.0f k/s", *binderPerSecond / 1000) : "failed",
            rawPerSecond ? format("%.0f k/s", *rawPerSecond / 1000) : "failed",
            "-",
            "-",
            format(">= %.1fx raw", minRatio),
            "-"};
    if (binderPerSecond && rawPerSecond && *rawPerSecond > 0) {
        const double ratio = *binderPerSecond / *rawPerSecond;
        row.ratio = format("%.2fx", ratio);
        row.verdict = verdict(ratio >= minRatio);
    }
    mRows.push_back(row);
}

void Report::addMillisWithin(const std::string& what, std::optional<double> millis,
                             double maxMillis) {
    Row row{what, formatOr(millis, "%.2f ms"), "-", "-", "-", format("<= %.0f ms", maxMillis), "-"};
    if (millis) row.verdict = verdict(*millis <= maxMillis);
    mRows.push_back(row);
}

void Report::addMillis(const std::string& what, std::optional<double> millis) {
    mRows.push_back({what, formatOr(millis, "%.2f ms"), "-", "-", "-", "-", "-"});
}

void Report::addHeading(const std::string& text) {
    mRows.push_back({text, "", "", "", "", "", ""});
}

bool Report::complete() const {
    for (const Row& row : mRows) {
        if (row.binder == "failed" || row.raw == "failed") return false;
    }
    return true;
}

void Report::print() const {
    const char* layout = "%-44s %12s %12s %7s %9s %14s  %s\n";
    printf(layout, "measurement", "binder", "raw socket", "ratio", "vs floor", "target", "");
    for (const Row& row : mRows) {
        printf(layout, row.what.c_str(), row.binder.c_str(), row.raw.c_str(), row.ratio.c_str(),
               row.floor.c_str(), row.target.c_str(), row.verdict.c_str());
    }
}

void Report::printManyClients(int clients, const std::optional<binder::ManyClientsResult>& result) {
    printf("\n%d client processes bound to one service:\n", clients);
    if (!result) {
        printf("  failed\n");
        return;
    }
    printf("  %8s %8s %8s\n", "clients", "threads", "fds");
    for (const binder::Sample& sample : result->samples) {
        printf("  %8zu %8zu %8zu\n", sample.clients, sample.threads, sample.descriptors);
    }
    const size_t bound = result->idleThreads + result->poolLimit;
    printf(
        "  peak threads while all call at once: %zu; bound: %zu idle + %zu pool limit = %zu  %s\n",
        result->peakThreads, result->idleThreads, result->poolLimit, bound,
        verdict(result->peakThreads <= bound));
    const binder::Sample& first = result->samples.front();
    const binder::Sample& last = result->samples.back();
    if (last.clients > first.clients) {
        printf("  descriptors per bound client: %.2f\n",
               static_cast<double>(last.descriptors - first.descriptors) /
                   static_cast<double>(last.clients - first.clients));
    }
}
