#pragma once

#include <atomic>

// A peak shared between the render thread, which raises it, and the control thread, which
// takes it and starts it again from zero, without a lock between them. Lock-free on every
// target we build for (checked below), so safe on the render thread.
namespace AtomicPeak {

static_assert(std::atomic<float>::is_always_lock_free);

// Render thread. A take between the load and the exchange makes it retry against the zero, so
// no peak is lost.
inline void raise(std::atomic<float>& slot, float value) noexcept {
    float seen = slot.load(std::memory_order_relaxed);
    while (value > seen && !slot.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

// Control thread.
inline float take(std::atomic<float>& slot) noexcept {
    return slot.exchange(0.0f, std::memory_order_relaxed);
}

} // namespace AtomicPeak
