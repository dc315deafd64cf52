/// Text: copies, formatting, comparison without case, UTF-8 and wide text. All text is NUL-terminated UTF-8. Any
/// thread. Every returned text is a new block for the caller to release with core_mfree(); null when memory is out.
#pragma once

#include "core/api.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>

/// Copies a text; null for null.
INET_API char* core_strdup(const char* text, const char* file, int line) noexcept;

/// Copies at most `n` bytes of a text (fewer when it ends before); null for null.
INET_API char* core_strndup(const char* text, size_t n, const char* file, int line) noexcept;

/// Formats as printf does into a new text; null for a null or unusable format.
INET_PRINTF(3, 4) INET_API char* core_sprintf(const char* file, int line, const char* format, ...) noexcept;
INET_PRINTF(3, 0) INET_API char* core_vsprintf(const char* file, int line, const char* format, va_list args) noexcept;

/// Compares without regard to the case of A-Z, in any locale. @return a number below, at or above 0. A null text sorts
/// before all others.
INET_API int core_strcasecmp(const char* a, const char* b) noexcept;
INET_API int core_strncasecmp(const char* a, const char* b, size_t n) noexcept;

/// Length in bytes; 0 for null.
INET_API size_t core_strlen(const char* text) noexcept;

/// Bytes as lower-case hexadecimal text, two digits each; null for null.
INET_API char* core_strhex(const void* data, size_t size, const char* file, int line) noexcept;

/// Reads one character of UTF-8 (RFC 3629) from the first `size` bytes. @return the bytes that it takes, 1 to 4: `code`
/// is then its code point. 0 when the bytes do not start with a whole character: `code` is then untouched.
INET_API size_t utf8_decode(const char* text, size_t size, uint32_t* code) noexcept;

/// Writes a code point as UTF-8, without a terminator. A surrogate, or a value above U+10FFFF, is written as U+FFFD.
/// @return the bytes written, 1 to 4.
INET_API size_t utf8_encode(uint32_t code, char out[4]) noexcept;

/// Wide text to UTF-8. Unpaired surrogates and values above U+10FFFF become U+FFFD. Null for null.
INET_API char* core_utf8(const wchar_t* text, const char* file, int line) noexcept;

/// UTF-8 to wide text (UTF-16 where wchar_t has 16 bits). Each byte that is not UTF-8 (RFC 3629) becomes U+FFFD.
INET_API wchar_t* core_wchar(const char* text, const char* file, int line) noexcept;
