#include "Rounds.h"

#include <stdio.h>

#include <algorithm>
#include <vector>

namespace {

double ratio(const Paired& pair) {
    return *pair.measured / *pair.baseline;
}

}  // namespace

Paired medianRound(int rounds, const Measurement& measure, const Measurement& baseline) {
    std::vector<Paired> taken;
    for (int round = 0; round < std::max(rounds, 1); ++round) {
        Paired pair{measure(), baseline()};
        if (!pair.measured || !pair.baseline || *pair.baseline <= 0) return pair;
        taken.push_back(pair);
        if (rounds > 1) {
            fprintf(stderr, "  round %d: %.1f against %.1f\n", round + 1, *pair.measured,
                    *pair.baseline);
        }
    }
    const auto middle = taken.begin() + static_cast<long>(taken.size() / 2);
    std::nth_element(taken.begin(), middle, taken.end(),
                     [](const Paired& a, const Paired& b) { return ratio(a) < ratio(b); });
    return *middle;
}
