#include "AllocationCounter.h"

#include <atomic>
#include <cstddef>
#include <dlfcn.h>
#include <pthread.h>

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
std::atomic<std::uint64_t> g_underLock{0};
std::atomic<std::uint64_t> g_locksTaken{0};
// Constant-initialised, so reading them inside malloc never allocates.
thread_local bool t_counting = false;
thread_local int t_priorityLocksHeld = 0;

inline void note() {
    if (t_counting)
        g_count.fetch_add(1, std::memory_order_relaxed);
    if (t_priorityLocksHeld > 0)
        g_underLock.fetch_add(1, std::memory_order_relaxed);
}

// glibc marks a mutex made with PTHREAD_PRIO_INHERIT by this bit of its kind
// (PTHREAD_MUTEX_PRIO_INHERIT_NP); nothing else in the test binary asks for inheritance.
bool inheritsPriority(const pthread_mutex_t* mutex) {
    return (mutex->__data.__kind & 32) != 0;
}

// The C library's own function of that name, found on first use. (dlsym takes the loader's
// internal lock, not this one, so looking it up cannot come back here.)
using MutexCall = int (*)(pthread_mutex_t*);
MutexCall libcMutexCall(std::atomic<MutexCall>& cached, const char* name) {
    MutexCall call = cached.load(std::memory_order_acquire);
    if (!call) {
        call = reinterpret_cast<MutexCall>(dlsym(RTLD_NEXT, name));
        cached.store(call, std::memory_order_release);
    }
    return call;
}
std::atomic<MutexCall> g_lock{nullptr};
std::atomic<MutexCall> g_unlock{nullptr};

} // namespace

namespace AllocationCounter {

void countOnThisThread(bool on) {
    t_counting = on;
}
std::uint64_t count() {
    return g_count.load();
}
std::uint64_t underPriorityLock() {
    return g_underLock.load();
}
std::uint64_t priorityLocksTaken() {
    return g_locksTaken.load();
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

// The sanitizer build has its own interceptors here, and skips the tests that read these counts.
#if !defined(__SANITIZE_ADDRESS__)
int pthread_mutex_lock(pthread_mutex_t* mutex) {
    const int result = libcMutexCall(g_lock, "pthread_mutex_lock")(mutex);
    if (result == 0 && inheritsPriority(mutex)) {
        ++t_priorityLocksHeld;
        g_locksTaken.fetch_add(1, std::memory_order_relaxed);
    }
    return result;
}

int pthread_mutex_unlock(pthread_mutex_t* mutex) {
    if (inheritsPriority(mutex))
        --t_priorityLocksHeld;
    return libcMutexCall(g_unlock, "pthread_mutex_unlock")(mutex);
}
#endif
}
