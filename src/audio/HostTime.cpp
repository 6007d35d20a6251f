#include "audio/HostTime.h"

#include <cmath>
#include <ctime>

namespace HostTime {

double ticksToSeconds() {
    // CLOCK_MONOTONIC is read in nanoseconds, so the timebase is fixed; a function rather
    // than a constant keeps the call sites independent of that choice.
    return 1e-9;
}

std::uint64_t now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000'000ull +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t secondsToTicks(double seconds) {
    if (!(seconds > 0.0))
        return 0;
    return static_cast<std::uint64_t>(std::llround(seconds / ticksToSeconds()));
}

} // namespace HostTime
