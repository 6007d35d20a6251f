#pragma once

#include <cstdint>

// Measurements on rendered or decoded signals, computed independently of the code under test.
namespace SignalMeasure {

// Frequency from the upward zero crossings (interpolated) of x[from, to).
inline double frequency(const float* x, std::int64_t from, std::int64_t to, double rate) {
    double first = -1.0;
    double last = -1.0;
    int cycles = -1;
    for (std::int64_t i = from; i + 1 < to; ++i) {
        if (x[i] < 0.0f && x[i + 1] >= 0.0f) {
            const double at = static_cast<double>(i) + x[i] / (x[i] - x[i + 1]);
            if (first < 0)
                first = at;
            last = at;
            ++cycles;
        }
    }
    return cycles > 0 ? cycles * rate / (last - first) : 0.0;
}

} // namespace SignalMeasure
