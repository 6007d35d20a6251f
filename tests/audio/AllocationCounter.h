#pragma once

#include <cstdint>

// Counts heap allocations and frees (malloc family, hence also operator new/delete) made by
// threads that switched counting on. The test binary replaces malloc to do this.
namespace AllocationCounter {

void countOnThisThread(bool on);
std::uint64_t count();

} // namespace AllocationCounter
