#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

// The mixer's planar float channels into the interleaved frames a device takes. Integer formats
// are clamped to full scale first: a sample beyond ±1 must become the loudest sample of its
// sign, never wrap round to the opposite extreme (a full-scale click on real speakers).
// Allocation-free: safe on a device thread.
namespace Interleave {

inline void toFloat(const std::vector<std::vector<float>>& planar, std::int64_t frames,
                    float* out) {
    const std::size_t channels = planar.size();
    for (std::int64_t i = 0; i < frames; ++i)
        for (std::size_t c = 0; c < channels; ++c)
            out[static_cast<std::size_t>(i) * channels + c] =
                planar[c][static_cast<std::size_t>(i)];
}

// T is std::int32_t or std::int16_t; full scale is its largest value, so +1.0 and −1.0 map to
// the same magnitude.
template <typename T>
void toInteger(const std::vector<std::vector<float>>& planar, std::int64_t frames, T* out) {
    constexpr double scale = static_cast<double>(std::numeric_limits<T>::max());
    const std::size_t channels = planar.size();
    for (std::int64_t i = 0; i < frames; ++i) {
        for (std::size_t c = 0; c < channels; ++c) {
            const double v =
                std::clamp(static_cast<double>(planar[c][static_cast<std::size_t>(i)]), -1.0, 1.0);
            out[static_cast<std::size_t>(i) * channels + c] = static_cast<T>(std::lrint(v * scale));
        }
    }
}

} // namespace Interleave
