/// Files by UTF-8 path. A file belongs to one thread at a time.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>

struct file_ctx;

/// Opens a file. @param mode is that of fopen; always binary. @return null when it cannot be opened.
INET_API file_ctx* core_fopen(const char* path, const char* mode, const char* file, int line) noexcept;

/// Closes a file and nulls the handle. @return 1, or 0 when buffered bytes could not be written.
INET_API int core_fclose(file_ctx*& handle) noexcept;

/// Write or read at the current position. @return the bytes moved
INET_API size_t core_fwrite(file_ctx* handle, const void* data, size_t size) noexcept;
INET_API size_t core_fread(file_ctx* handle, void* data, size_t size) noexcept;

/// Flushes the written bytes to the disk. @return 1, or 0 when it failed.
INET_API int core_fsync(file_ctx* handle) noexcept;

/// Position from the start of the file, -1 when unknown.
INET_API int64_t core_ftell(file_ctx* handle) noexcept;

/// Moves to a position from the start. @return 1, or 0 when it failed.
INET_API int core_fseek(file_ctx* handle, int64_t position) noexcept;

/// Reads the whole content of a file of at most `limit` bytes. A NUL follows the content. @param size may be null.
/// @return a block for core_mfree(); null when the file cannot be read, when it is larger, or when memory is out.
INET_API uint8_t* core_file_load(const char* path, size_t limit, size_t* size, const char* file, int line) noexcept;

/// Each returns 1, or 0 when it failed. core_mkdir() succeeds when the directory exists already.
///
/// core_frename() replaces its target in one step, even when the target is open. Whoever has the target open keeps
/// reading the old content. On Windows:
///   - The open target must be shared for deletion. core_fopen() shares it so. For a target that is not shared,
///     core_frename() waits up to 0.2 seconds.
///   - Where the file system has no such step (FAT, or Windows before 10 1709), replacing an open target takes two
///     steps.
INET_API int core_fremove(const char* path) noexcept;
INET_API int core_frename(const char* from, const char* to) noexcept;
INET_API int core_mkdir(const char* path) noexcept;
INET_API int core_rmdir(const char* path) noexcept;

/// Directory of this library, without a closing separator. Where the library is linked into the program, it is the
/// program's directory.
/// @return a new text for core_mfree(), or null.
INET_API char* lib_path(const char* file, int line) noexcept;
