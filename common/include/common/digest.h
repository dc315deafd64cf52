/// MD5 (RFC 1321), SHA-1 and SHA-256 (FIPS 180-4), HMAC-SHA-256 (RFC 2104), Base64 (RFC 4648) and random text. Any
/// thread. Returned texts are for the caller to release with core_mfree(); null for a null argument or when memory is
/// out. Bytes may be null when their size is 0.
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstddef>
#include <cstdint>

/// MD5 of bytes, and of a text as 32 lower-case hexadecimal digits.
INET_API void common_md5_bytes(const void* data, size_t size, uint8_t out[16]) noexcept;
INET_API char* common_md5(const char* text, const char* file, int line) noexcept;

/// For protocols that demand it: it is no longer safe against forged twins.
INET_API void common_sha1(const void* data, size_t size, uint8_t out[20]) noexcept;

INET_API void common_sha256(const void* data, size_t size, uint8_t out[32]) noexcept;
INET_API void HMACsha256(const void* key, size_t key_size, const void* data, size_t size, uint8_t out[32]) noexcept;

/// Bytes as Base64 with padding, without line ends.
INET_API char* b64(const void* data, size_t size, const char* file, int line) noexcept;
/// The same into the caller's `text`: (size + 2) / 3 * 4 characters, without a terminator. `text` may be `data`.
INET_API void b64_encode(const void* data, size_t size, char* text) noexcept;

/// Appends decoded bytes to `out`, stopping at the padding or at the first character that is neither Base64 nor blank
/// (space, tab, CR, LF). Bits at the end that make no whole byte are dropped.
/// @return the bytes appended; 0, with `out` as before, also when memory is out
INET_API uint32_t b64_decode(const char* text, size_t size, buf_t* out, const char* file, int line) noexcept;

/// Text of `length` random letters and digits from the system's generator. Each of the 62 is equally likely.
INET_API char* common_srand(uint32_t length, const char* file, int line) noexcept;

/// Fills bytes from the system's generator. The process ends when the system has no random bytes, so no nonce or key is
/// ever predictable.
INET_API void common_random(void* out, size_t size) noexcept;
