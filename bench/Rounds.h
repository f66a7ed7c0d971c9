#pragma once

#include <functional>
#include <optional>

// A measurement and its baseline, taken right after one another.
struct Paired {
    std::optional<double> measured;
    std::optional<double> baseline;
};

using Measurement = std::function<std::optional<double>()>;

// Takes the pair `rounds` times and returns the round whose ratio is the
// median. Where the scheduler put the processes in one round, or what else
// woke on a small virtual machine, can decide more than the code does; the
// median round shows neither the luckiest nor the unluckiest. A round that
// failed is returned at once, so that the line shows the failure.
Paired medianRound(int rounds, const Measurement& measure, const Measurement& baseline);
