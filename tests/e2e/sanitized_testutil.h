// Whether this build runs under a sanitizer: the end-to-end tests then run fewer, shorter scenes.
#pragma once

namespace omra::tools {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace omra::tools
