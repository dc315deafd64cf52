/// Options: named texts and numbers kept in one file of "key=value" lines. A save replaces the file in one step, so
/// after a crash the file holds the old content or the new. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>

struct opt_ctx;

/// Opens the options of a file. The file is read if it exists.
///
/// Bounds:
///     file   1 MiB; a larger one is not read, and the handle does not save
///     key    1 to 255 bytes, without '=' or line ends
///     value  any text; line ends and backslashes are escaped in the file
/// Of equal keys in the file the last one counts. Lines of another form are skipped, and the next save drops them.
/// @return null for a null path, when memory is out, or when the file exists and cannot be read. Release with
/// core_opt_free().
INET_API opt_ctx* core_opt_create(const char* path, const char* file, int line) noexcept;

/// Path the options were opened with; valid until core_opt_free().
INET_API const char* core_opt_path(opt_ctx* opt) noexcept;

/// Copy of a value, for core_mfree(). When the key is missing, it is a copy of `missing`, which may be null.
INET_API char* core_opt_get(opt_ctx* opt, const char* key, const char* missing, const char* file, int line) noexcept;

/// Value as a number; `missing` when the key is missing or its value is no decimal number that fits.
INET_API int32_t core_opt_get_int(opt_ctx* opt, const char* key, int32_t missing) noexcept;
INET_API int64_t core_opt_get_int64(opt_ctx* opt, const char* key, int64_t missing) noexcept;

/// Sets a value in memory; a null value removes the key. @return 1, or 0 for an unusable key or when memory is out.
INET_API int core_opt_set(opt_ctx* opt, const char* key, const char* value) noexcept;
INET_API int core_opt_set_int(opt_ctx* opt, const char* key, int32_t value) noexcept;
INET_API int core_opt_set_int64(opt_ctx* opt, const char* key, int64_t value) noexcept;

/// Saves the options. A new file ("<path>.new") is written, flushed to the disk, and renamed over the old one. It keeps
/// the access rights. Where the path is a symbolic link, the file that the link leads to is replaced. Only one handle
/// at a time may save to a path. @return 1; 0 when the save failed, or when the file was or would be above 1 MiB. After
/// 0 the old file is untouched.
INET_API int core_opt_save(opt_ctx* opt) noexcept;

/// Releases the handle without saving and nulls it.
INET_API void core_opt_free(opt_ctx*& opt) noexcept;
