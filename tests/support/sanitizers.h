/* Which sanitizer the tests were built with, for those that can't hold under one. */
#ifndef KZE_TESTS_SUPPORT_SANITIZERS_H
#define KZE_TESTS_SUPPORT_SANITIZERS_H

namespace kze_test {

#ifdef __has_feature
inline constexpr bool address_sanitizer = __has_feature(address_sanitizer);
inline constexpr bool thread_sanitizer = __has_feature(thread_sanitizer);
#else /* GCC, which the presets don't sanitize with */
inline constexpr bool address_sanitizer = false;
inline constexpr bool thread_sanitizer = false;
#endif

} /* namespace kze_test */

#endif
