// Whether a test runs under a sanitizer that slows it down too much for its usual number of steps.
#pragma once

namespace TestSupport {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool threadSanitized = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
inline constexpr bool threadSanitized = true;
#else
inline constexpr bool threadSanitized = false;
#endif
#else
inline constexpr bool threadSanitized = false;
#endif

}  // namespace TestSupport
