#include "AllocationCounter.h"

#include <atomic>
#include <cstddef>

// glibc's own entry points, so the replacements below can forward to them.
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {

std::atomic<std::uint64_t> g_count{0};
// Constant-initialised, so reading it inside malloc never allocates.
thread_local bool t_counting = false;

inline void note() {
    if (t_counting)
        g_count.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

namespace AllocationCounter {

void countOnThisThread(bool on) {
    t_counting = on;
}
std::uint64_t count() {
    return g_count.load();
}

} // namespace AllocationCounter

extern "C" {

void* malloc(std::size_t size) {
    note();
    return __libc_malloc(size);
}

void* calloc(std::size_t n, std::size_t size) {
    note();
    return __libc_calloc(n, size);
}

void* realloc(void* p, std::size_t size) {
    note();
    return __libc_realloc(p, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    note();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    note();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
    note();
    void* p = __libc_memalign(alignment, size);
    if (!p)
        return 12; // ENOMEM
    *out = p;
    return 0;
}

void free(void* p) {
    if (p)
        note();
    __libc_free(p);
}
}
