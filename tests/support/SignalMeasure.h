#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

// Measurements on rendered or decoded signals, computed independently of the code under test.
namespace SignalMeasure {

// Frequency of x[from, to) from the median period between upward zero crossings (interpolated).
// The median keeps one dropped or repeated block of a recording from moving the result.
inline double frequency(const float* x, std::int64_t from, std::int64_t to, double rate) {
    std::vector<double> periods;
    double previous = -1.0;
    for (std::int64_t i = from; i + 1 < to; ++i) {
        if (x[i] < 0.0f && x[i + 1] >= 0.0f) {
            const double at = static_cast<double>(i) + x[i] / (x[i] - x[i + 1]);
            if (previous >= 0)
                periods.push_back(at - previous);
            previous = at;
        }
    }
    if (periods.empty())
        return 0.0;
    std::nth_element(periods.begin(), periods.begin() + periods.size() / 2, periods.end());
    return rate / periods[periods.size() / 2];
}

// Index of the first sample that is not exactly 0, or -1 when all are.
inline std::int64_t firstNonZero(const std::vector<float>& x) {
    const auto found = std::find_if(x.begin(), x.end(), [](float v) { return v != 0.0f; });
    return found == x.end() ? -1 : static_cast<std::int64_t>(found - x.begin());
}

} // namespace SignalMeasure
