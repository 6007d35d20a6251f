#pragma once

#include <cstdint>

// Host time: unsigned 64-bit ticks of CLOCK_MONOTONIC, one tick per nanosecond.
// Audio and video meet only through this clock: audio back ends convert their block time
// stamps into it, video players report the host time at which a picture started.
// Thread-safe; callable from any thread, including the render thread (no allocation, no lock).
namespace HostTime {

// Seconds per tick (1e-9 on Linux).
double ticksToSeconds();

// The current host time.
std::uint64_t now();

// Ticks for a duration in seconds, rounded to the nearest tick; negative durations give 0.
std::uint64_t secondsToTicks(double seconds);

} // namespace HostTime
