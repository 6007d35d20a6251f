#pragma once

#include <algorithm>
#include <vector>

// The median of the runs of a benchmark (the mean of the middle two for an even count; 0 for
// none): what the alternating benchmarks report, so that one disturbed run on a shared machine
// does not decide a figure.
inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n == 0 ? 0.0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}
