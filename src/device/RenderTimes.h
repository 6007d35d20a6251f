#pragma once

#include <array>
#include <atomic>
#include <cstdint>

// How much processor time the mix took per cycle, counted on the render thread's own clock
// (CLOCK_THREAD_CPUTIME_ID: what the mix cost, not how long the thread waited to run), as a
// histogram of 5 µs steps up to 20 ms. Fixed size, filled without allocating, so the render
// path may call it every cycle.
//
// Threading: start()/record() on the render thread only; the rest from any thread.
class RenderTimes {
public:
    static constexpr std::uint64_t kStepNs = 5000;
    static constexpr std::size_t kSteps = 4000;

    // The thread's processor clock now, in nanoseconds. Render thread.
    static std::uint64_t threadNow();
    // Counts one cycle that took `ns` of processor time. Render thread.
    void record(std::uint64_t ns);

    std::uint64_t cycles() const;
    // The time (seconds) that fraction q of the cycles stayed within; 0 with no cycles.
    double quantile(double q) const;

private:
    std::array<std::atomic<std::uint32_t>, kSteps> m_counts{};
};
