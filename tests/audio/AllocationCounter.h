#pragma once

#include <cstdint>

// Counts heap allocations and frees (malloc family, hence also operator new/delete) made by
// threads that switched counting on. The test binary replaces malloc to do this.
namespace AllocationCounter {

void countOnThisThread(bool on);
std::uint64_t count();

// Allocations made by any thread while it holds a priority-inheriting mutex (the mixer's lock),
// and how many times such a mutex was taken: a render thread waiting on that lock must never
// wait for the allocator too.
std::uint64_t underPriorityLock();
std::uint64_t priorityLocksTaken();

} // namespace AllocationCounter
