#pragma once

#include <optional>
#include <string>
#include <vector>

#include "BinderBench.h"
#include "Rounds.h"

// The table that the benchmark prints: binder next to raw sockets, with the
// target of each line and whether this run met it.
class Report {
  public:
    // Lower is better: met when binder <= maxRatio * rawTimes * raw (the
    // pair's measured and baseline micros). With rawTimes above 1, binder is
    // compared with that many raw operations (and floors). The floor, when
    // given, is shown as a ratio too.
    void addLatency(const std::string& what, const Paired& micros, double maxRatio,
                    int rawTimes = 1, std::optional<double> floorMicros = std::nullopt);
    // A figure of the machine beside the raw baseline, with no target.
    void addReference(const std::string& what, const Paired& micros);
    // Higher is better: met when binder >= minRatio * raw (operations per second).
    void addThroughput(const std::string& what, const Paired& perSecond, double minRatio);
    // Met when at most `maxMillis`.
    void addMillisWithin(const std::string& what, std::optional<double> millis, double maxMillis);
    // A figure without a baseline or a target.
    void addMillis(const std::string& what, std::optional<double> millis);
    // A line that names the block of rows below it.
    void addHeading(const std::string& text);
    void print() const;
    // False when a measurement failed (a process did not do its part).
    bool complete() const;

    static void printManyClients(int clients,
                                 const std::optional<binder::ManyClientsResult>& result);

  private:
    struct Row {
        std::string what;
        std::string binder;
        std::string raw;
        std::string ratio;
        std::string floor;
        std::string target;
        std::string verdict;
    };
    std::vector<Row> mRows;
};
