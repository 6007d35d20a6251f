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

// The largest magnitude in x[0..n) that is within `limit`, and how many samples are not (NaN,
// infinite or beyond): one read of the samples for both, in eight independent lanes so the
// compiler keeps them in vector registers.
struct Scan {
    float peak = 0.0f;
    std::int64_t beyond = 0;
};

inline Scan scanWithin(const float* x, std::int64_t n, float limit) {
    float lane[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    std::int64_t within[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    std::int64_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (int k = 0; k < 8; ++k) {
            const float v = std::fabs(x[i + k]);
            const bool ok = v <= limit;
            within[k] += ok ? 1 : 0;
            const float kept = ok ? v : 0.0f;
            lane[k] = lane[k] < kept ? kept : lane[k];
        }
    }
    Scan scan;
    std::int64_t inside = 0;
    for (; i < n; ++i) {
        const float v = std::fabs(x[i]);
        if (v <= limit) {
            ++inside;
            scan.peak = std::max(scan.peak, v);
        }
    }
    for (int k = 0; k < 8; ++k) {
        scan.peak = std::max(scan.peak, lane[k]);
        inside += within[k];
    }
    scan.beyond = n - inside;
    return scan;
}

} // namespace VectorMath
