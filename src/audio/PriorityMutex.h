#pragma once

#include <pthread.h>

// A non-recursive mutex with priority inheritance (PTHREAD_PRIO_INHERIT): while the real-time
// render thread waits on it, the holder runs at the render thread's priority, so a main thread
// holding it briefly cannot be pre-empted by medium-priority work and stall the audio.
// Meets BasicLockable, for std::lock_guard and std::unique_lock. Not movable: its address
// must stay fixed while any thread may wait on it.
class PriorityMutex {
public:
    PriorityMutex();
    ~PriorityMutex();

    PriorityMutex(const PriorityMutex&) = delete;
    PriorityMutex& operator=(const PriorityMutex&) = delete;

    void lock() noexcept;
    void unlock() noexcept;

    // Whether the platform granted priority inheritance (it falls back to a plain mutex).
    bool inheritsPriority() const { return m_inherits; }

private:
    pthread_mutex_t m_mutex;
    bool m_inherits = false;
};
