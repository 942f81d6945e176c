// Whether a sanitizer watches this program.
#pragma once

// Sanitizers open files for their checks, or map memory; without either they report what is not there.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif
