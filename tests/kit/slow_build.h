#ifndef TESTS_KIT_SLOW_BUILD_H
#define TESTS_KIT_SLOW_BUILD_H

namespace kit {

/// Under the address sanitizer all takes several times as long. What a test repeats thousands of times it may then do less
/// often, as other builds do it all.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kIsSlowBuild = true;
#elif defined(__has_feature)
inline constexpr bool kIsSlowBuild = __has_feature(address_sanitizer);
#else
inline constexpr bool kIsSlowBuild = false;
#endif

} // namespace kit

#endif
