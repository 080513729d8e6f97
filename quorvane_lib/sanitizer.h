// Whether the program is compiled with a sanitizer. GCC and clang say it in different ways.
#pragma once

#ifdef __has_feature
#define QUORVANE_HAS_FEATURE(feature) __has_feature(feature)
#else
#define QUORVANE_HAS_FEATURE(feature) 0
#endif

namespace qv {

#if defined(__SANITIZE_ADDRESS__) || QUORVANE_HAS_FEATURE(address_sanitizer)
inline constexpr bool ADDRESS_SANITIZER = true;
#else
inline constexpr bool ADDRESS_SANITIZER = false;
#endif

#if defined(__SANITIZE_THREAD__) || QUORVANE_HAS_FEATURE(thread_sanitizer)
inline constexpr bool THREAD_SANITIZER = true;
#else
inline constexpr bool THREAD_SANITIZER = false;
#endif

}  // namespace qv

#undef QUORVANE_HAS_FEATURE
