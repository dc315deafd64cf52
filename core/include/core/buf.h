/// Bytes. A `buf_t` grows at its end and is consumed from its front. A `buffer_t` is a span of data and size, and may
/// own its bytes. Records are plain and start zeroed. A record belongs to one thread at a time.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

/// Growable byte buffer. Release its bytes with core_buf_free().
struct buf_t {
    uint8_t* data = nullptr;  ///< start of the held bytes
    uint32_t size = 0;        ///< bytes that fit from `data`
    uint32_t length = 0;      ///< bytes held from `data`
};

/// Span of bytes. Functions that copy bytes into it make it own them: release these with core_buffer_free().
struct buffer_t {
    uint8_t* data = nullptr;
    uint32_t size = 0;
};

/// Appends `n` bytes. The buffer grows as needed (growth is geometric). `src` may not lie in the buffer. @return n; 0
/// when nothing was appended:
///   - memory is out,
///   - an argument is null, or
///   - the buffer would pass 2^32 - 1 bytes.
INET_API uint32_t core_buf_read(buf_t* buf, const void* src, uint32_t n) noexcept;

/// Drops `n` bytes from the front (all of them when fewer are held); what remains starts at `data`.
INET_API void core_buf_ignore(buf_t* buf, uint32_t n) noexcept;

/// Makes room for at least `n` more bytes after `length`. @return 1, or 0 when memory is out; the buffer is then as
/// before.
INET_API int core_buf_respace(buf_t* buf, uint32_t n, const char* file, int line) noexcept;

/// Sets the allocation to `n` bytes; `length` is cut to it. 0 releases the bytes. @return as core_buf_respace().
INET_API int core_buf_resize(buf_t* buf, uint32_t n, const char* file, int line) noexcept;

/// Writes the held bytes to a file, replacing it. @return 1, or 0 when it cannot be written.
INET_API int core_buf_dump(const buf_t* buf, const char* path) noexcept;

/// Releases the bytes and zeroes the record; null is ignored.
INET_API void core_buf_free(buf_t* buf) noexcept;

/// Copies bytes in, releasing what the span owned. @return 1, or 0 when memory is out; the span is then as before.
INET_API int core_buffer_set(buffer_t* b, const void* data, uint32_t size, const char* file, int line) noexcept;

/// Copies one span's bytes into another. @return as core_buffer_set().
INET_API int core_buffer_copy(buffer_t* dst, const buffer_t* src, const char* file, int line) noexcept;

/// Sets the owned size; new bytes are zero. @return as core_buffer_set().
INET_API int buffer_resize(buffer_t* b, uint32_t size, const char* file, int line) noexcept;

/// First occurrence of `needle` in `hay`; null when there is none, or when either is empty.
INET_API uint8_t* core_buffer_find(const buffer_t* hay, const buffer_t* needle) noexcept;

/// The bytes as lower-case hexadecimal text, for the caller to release with core_mfree(); null when memory is out.
INET_API char* core_buffer_hex(const buffer_t* b, const char* file, int line) noexcept;

/// Reads hexadecimal text (either case) into the span. @return 1; 0 when the text has an odd length, when it has
/// another character, or when memory is out. After 0 the span is as before.
INET_API int core_buffer_unhex(buffer_t* b, const char* text, const char* file, int line) noexcept;

/// Releases bytes that core_buffer_set(), _copy(), _unhex() or buffer_resize() put in; null is ignored.
INET_API void core_buffer_free(buffer_t* b) noexcept;
