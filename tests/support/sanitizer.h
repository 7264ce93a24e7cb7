#pragma once
// Whether the tests run under AddressSanitizer, which makes every build many times slower:
// property tests then take fewer seeds.

namespace fwforge::testing {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace fwforge::testing
