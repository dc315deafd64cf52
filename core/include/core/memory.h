/// Memory with the place of its allocation. Every block carries the file and line that asked for it, so blocks still
/// held at the end can be named. Any thread. A failed allocation returns null; nothing here throws.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

/// Allocates `size` bytes (0 gives a valid empty block), aligned for any type.
/// @param file  valid until the block is released: __FILE__, not a temporary
/// @return the block, or null when memory is out. Release with core_mfree().
INET_API void* core_malloc(size_t size, const char* file, int line) noexcept;

/// As core_malloc(), for `count` zeroed items of `size` bytes; null when the product overflows.
INET_API void* core_calloc(size_t count, size_t size, const char* file, int line) noexcept;

/// Changes the size of a block. The content is kept up to the smaller size. The block is then named after `file` and
/// `line`. A null block makes a new one. @return the block; null when memory is out: the old block is then as it was.
INET_API void* core_realloc(void* block, size_t size, const char* file, int line) noexcept;

/// Releases a block; null is ignored. A block of another allocator, or one that is released twice, ends the process
/// with a message.
INET_API void core_mfree(void* block) noexcept;

/// Bytes that were asked for; 0 for a null block.
INET_API size_t core_mem_size(const void* block) noexcept;

/// Where a block was allocated; null and 0 for a null block.
INET_API const char* core_mem_file(const void* block) noexcept;
INET_API int core_mem_line(const void* block) noexcept;

/// Blocks held by one allocating line.
struct mem_site_t {
    const char* file;
    int line;
    size_t blocks;
    size_t bytes;
};

/// Blocks and bytes held now. Exact when no other thread allocates meanwhile.
INET_API size_t core_mem_blocks() noexcept;
INET_API size_t core_mem_bytes() noexcept;

/// Calls `visit` once for every allocating line that still holds blocks. `visit` may not allocate.
/// @return the number of lines visited
INET_API size_t core_mem_report(void (*visit)(void* arg, const mem_site_t* site), void* arg) noexcept;

/// For tests: while set, every allocation asks `fault` first and fails when it answers true. Null takes it away.
INET_API void core_mem_set_fault(bool (*fault)(size_t size, const char* file, int line)) noexcept;
