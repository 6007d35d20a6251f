#include "device/RenderTimes.h"

#include <algorithm>
#include <ctime>

std::uint64_t RenderTimes::threadNow() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000ULL +
           static_cast<std::uint64_t>(now.tv_nsec);
}

void RenderTimes::record(std::uint64_t ns) {
    const std::size_t step = std::min<std::uint64_t>(ns / kStepNs, kSteps - 1);
    m_counts[step].fetch_add(1, std::memory_order_relaxed);
}

std::uint64_t RenderTimes::cycles() const {
    std::uint64_t total = 0;
    for (const auto& count : m_counts)
        total += count.load(std::memory_order_relaxed);
    return total;
}

double RenderTimes::quantile(double q) const {
    const std::uint64_t total = cycles();
    if (total == 0)
        return 0.0;
    // The smallest step whose cycles, with those below it, reach q of all.
    const auto wanted = static_cast<std::uint64_t>(std::clamp(q, 0.0, 1.0) * total + 0.5);
    std::uint64_t seen = 0;
    for (std::size_t step = 0; step < kSteps; ++step) {
        seen += m_counts[step].load(std::memory_order_relaxed);
        if (seen >= std::max<std::uint64_t>(wanted, 1))
            return static_cast<double>((step + 1) * kStepNs) * 1e-9;
    }
    return static_cast<double>(kSteps * kStepNs) * 1e-9;
}
