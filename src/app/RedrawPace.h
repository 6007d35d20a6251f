#pragma once

#include "cue/LiveState.h"

// Progress bars, play lines and running times move on every tick, but nobody reads them 30
// times a second, and each redraw costs a flush of the window to the display server (a
// socket write and thread wake-ups, which dominate the window's CPU). They are redrawn on
// every third tick, 10 times a second, every view on the same tick so that one flush carries
// them all. A cue that starts or stops, and the meters, are drawn on the tick they change.
namespace RedrawPace {

constexpr std::uint64_t kProgressEveryTicks = 3;

inline bool isProgressTick(const LiveState& live) {
    return live.ticks() % kProgressEveryTicks == 0;
}

} // namespace RedrawPace
