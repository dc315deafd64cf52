/// Options: named texts and numbers kept in one file of "key=value" lines. A save replaces the file in one step, so a
/// crash leaves the old or the new content, never a torn one. One lock inside: any thread.
#pragma once

#include "core/api.h"

#include <cstdint>

struct opt_ctx;

/// Opens the options of a file, reading it when it is there. Of one above 1 MiB nothing is read, and the handle does not
/// save. Keys are 1 to 255 bytes without '=' or line ends; values may hold anything (line ends and backslashes are
/// escaped in the file). Of equal keys in the file the last one counts; lines of another form are passed over, and gone
/// with the next save.
/// @return null for a null path, when memory is out, or when the file cannot be read for any other reason than that it
/// is missing. Release with core_opt_free().
INET_API opt_ctx* core_opt_create(const char* path, const char* file, int line) noexcept;

/// Path the options were opened with; lives as long as the handle.
INET_API const char* core_opt_path(opt_ctx* opt) noexcept;

/// Copy of a value, for core_mfree(); when the key is missing a copy of `missing` (null for null).
INET_API char* core_opt_get(opt_ctx* opt, const char* key, const char* missing, const char* file, int line) noexcept;

/// Value as a number; `missing` when the key is missing or its value is no decimal number that fits.
INET_API int32_t core_opt_get_int(opt_ctx* opt, const char* key, int32_t missing) noexcept;
INET_API int64_t core_opt_get_int64(opt_ctx* opt, const char* key, int64_t missing) noexcept;

/// Sets a value in memory; a null value removes the key. @return 1, or 0 for an unusable key or when memory is out.
INET_API int core_opt_set(opt_ctx* opt, const char* key, const char* value) noexcept;
INET_API int core_opt_set_int(opt_ctx* opt, const char* key, int32_t value) noexcept;
INET_API int core_opt_set_int64(opt_ctx* opt, const char* key, int64_t value) noexcept;

/// Writes the file: a new one beside it ("<path>.new"), flushed to the disk, then renamed over it; it keeps the access
/// rights. Where the path is a symbolic link, "it" is the file that the link leads to. One handle at a time saves to a
/// path. @return 1, or 0 when that failed or the file was or would be above 1 MiB; the old file is then untouched.
INET_API int core_opt_save(opt_ctx* opt) noexcept;

/// Releases the handle without saving and nulls it.
INET_API void core_opt_free(opt_ctx*& opt) noexcept;
