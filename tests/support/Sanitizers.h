#pragma once
// Whether this build carries AddressSanitizer or ThreadSanitizer, whichever compiler built it
// (gcc says so with __SANITIZE_*__, clang with __has_feature), so that tests can shrink work
// the sanitizers slow down or skip what a sanitizer's own machinery defeats.

#if defined(__has_feature)
#define TEST_SUPPORT_HAS_FEATURE(x) __has_feature(x)
#else
#define TEST_SUPPORT_HAS_FEATURE(x) 0
#endif

namespace TestSupport {

#if defined(__SANITIZE_ADDRESS__) || TEST_SUPPORT_HAS_FEATURE(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__) || TEST_SUPPORT_HAS_FEATURE(thread_sanitizer)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif

inline constexpr bool kSanitized = kAddressSanitizer || kThreadSanitizer;

}  // namespace TestSupport
