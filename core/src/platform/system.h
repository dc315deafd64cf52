// What the core asks of the operating system. posix_*.cpp and windows_*.cpp implement the same functions; nothing
// outside this folder knows on which system it runs. Paths and names are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <thread>

namespace core::platform {

/// Names a running thread, cut to what the system holds.
void name_thread(std::thread::native_handle_type thread, const char* name) noexcept;
void name_this_thread(const char* name) noexcept;

/// A function to call on a thread that nobody waits for.
struct invocation {
    void (*function)(void* arg);
    void* arg;
};
/// What that thread does: it destroys the invocation, then calls the function.
void carry_out(invocation* call) noexcept;
/// Starts a thread for an invocation of core::create(). @return false when there is none; the invocation stays the
/// caller's then
bool start_detached(invocation* call) noexcept;

/// Microseconds since 1970-01-01 UTC, as finely as the system tells.
uint64_t utc_now() noexcept;
/// Seconds to add to UTC for local time at that moment (seconds since 1970-01-01 UTC).
int64_t local_offset(int64_t seconds) noexcept;

/// fopen() in binary mode; the descriptor is not inherited by child processes. Null sets errno: ENOENT alone when there
/// is no such file.
std::FILE* open_file(const char* path, const char* mode) noexcept;
/// 64-bit fseek() from SEEK_SET or SEEK_END and ftell().
bool seek_file(std::FILE* file, int64_t position, int whence) noexcept;
int64_t tell_file(std::FILE* file) noexcept;
/// Flushes the file's data, which stdio has handed over already, to the disk.
bool sync_file(std::FILE* file) noexcept;
/// Gives an open file the access rights of the file at `path`, if there is one.
void adopt_rights(std::FILE* file, const char* path) noexcept;
/// True for a terminal, which takes UTF-8 and escape sequences from then on.
bool is_terminal(std::FILE* file) noexcept;

bool remove_file(const char* path) noexcept;
/// Replaces `to` in one step.
bool rename_file(const char* from, const char* to) noexcept;
/// The file that a path leads to when it is a symbolic link, also one that is not there yet; else the path as it is.
/// @return false when links lead in a circle or the result does not fit
bool follow_links(const char* path, char* out, size_t size) noexcept;
/// Puts the directory entry of `path` onto the disk, where the file system can.
void sync_entry(const char* path) noexcept;
/// True also when the directory is there already.
bool make_directory(const char* path) noexcept;
bool remove_directory(const char* path) noexcept;

/// Characters that separate the parts of a path; the first one is for joining.
extern const char* const path_separators;
/// Length of a path that is a root, whose separator belongs to it.
extern const size_t root_length;
/// What stands before and after the bare name of a dynamic library.
extern const char* const library_prefix;
extern const char* const library_suffix;
/// Full path of the file that holds this code: the library, or the program it is linked into.
bool this_library(char* out, size_t size) noexcept;
void* open_library(const char* path) noexcept;
void* find_symbol(void* library, const char* name) noexcept;
void close_library(void* library) noexcept;

}  // namespace core::platform
