#pragma once
// Whether this build carries AddressSanitizer or ThreadSanitizer, whichever compiler built it
// (gcc says so with __SANITIZE_*__, clang with __has_feature), so that tests can shrink work
// the sanitizers slow down or skip what a sanitizer's own machinery defeats.

namespace TestSupport {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#else
inline constexpr bool kAddressSanitizer = false;
#endif

#if defined(__SANITIZE_THREAD__)
inline constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#else
inline constexpr bool kThreadSanitizer = false;
#endif

inline constexpr bool kSanitized = kAddressSanitizer || kThreadSanitizer;

}  // namespace TestSupport
