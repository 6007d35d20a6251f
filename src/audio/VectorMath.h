#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

// Small vector kernels shared by the render path and the loader. Allocation-free and
// lock-free: safe on the render thread.
namespace VectorMath {

// Largest magnitude in x[0..n). Eight independent lanes so the compiler keeps them in vector
// registers; max is exact, so the lane order does not change the result.
inline float maxMagnitude(const float* x, std::int64_t n) {
    float lane[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    std::int64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int k = 0; k < 8; ++k) {
            const float v = std::fabs(x[i + k]);
            lane[k] = lane[k] < v ? v : lane[k];
        }
    }
    float peak = 0.0f;
    for (; i < n; ++i)
        peak = std::max(peak, std::fabs(x[i]));
    for (float v : lane)
        peak = std::max(peak, v);
    return peak;
}

// How many of x[0..n) are NaN, infinite or of a magnitude beyond `limit`. Branch-free, so it
// vectorises: the common answer, 0, costs one streaming read.
inline std::int64_t countBeyond(const float* x, std::int64_t n, float limit) {
    std::int64_t within = 0;
    for (std::int64_t i = 0; i < n; ++i)
        within += std::fabs(x[i]) <= limit ? 1 : 0;
    return n - within;
}

} // namespace VectorMath
