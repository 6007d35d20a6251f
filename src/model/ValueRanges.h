#pragma once

#include <cstdint>

// The ranges the editor allows for every number a show holds. The show file and the render
// script are read against the same bounds, so a value no operator could have set never
// reaches the mixer (a volume of 1e18 from a damaged file would otherwise play at 1e18).
namespace ValueRanges {

// +12 dB, the top of the volume field.
constexpr double kMaxVolume = 3.9810717055349722;
constexpr double kMaxMasterVolume = 1.0;
constexpr double kMaxFade = 60.0;
constexpr double kMaxStopAllFade = 30.0;
constexpr double kMaxSlideInterval = 3600.0;
constexpr double kMaxTransition = 10.0;
constexpr std::int64_t kMaxGroup = 99;
constexpr std::int64_t kMaxLayer = 99;
// Output channels are numbered from 1 for the operator.
constexpr std::int64_t kMaxOutput = 64;

} // namespace ValueRanges
