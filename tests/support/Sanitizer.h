#pragma once

// Whether this build runs under AddressSanitizer (`make test SANITIZE=1`): its own allocator
// replaces malloc (so allocations cannot be counted by ours) and keeps freed memory in
// quarantine (so resident memory says little of what the program holds).
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif
