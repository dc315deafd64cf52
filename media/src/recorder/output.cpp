#include "recorder/file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace media::record {

namespace {

constexpr auto writing = std::ios::binary | std::ios::out;

/// What people can do something about; the rest as the system says it.
core::string words_for(int error) {
    switch (error) {
        case 0:
            return "it cannot be written";
        case ENOENT:
        case ENOTDIR:
            return "there is no such folder";
        case EISDIR:
            return "it is a folder";
        case EACCES:
        case EPERM:
            return "permission denied";
        case EROFS:
            return "the disk is read-only";
        case ENOSPC:
            return "the disk is full";
        case EPIPE:
            return "nobody reads it any more";
        default: {
            const std::string text = std::generic_category().message(error);
            return {text.begin(), text.end()};
        }
    }
}

}  // namespace

std::filesystem::path utf8_path(std::string_view text) { return std::u8string(text.begin(), text.end()); }

bool output::is_standard() const noexcept {
    return path_.starts_with("-") && (path_.size() == 1 || (path_[1] == '.' && path_.find('.', 2) == path_.npos));
}

/// Call it with errno zeroed before what is noted.
bool output::note(bool done) {
    if (!done) cause_ = words_for(errno);
    return done;
}

bool output::check() {
    if (is_standard()) return true;
    const std::filesystem::path path = utf8_path(path_);
    std::error_code ignored;
    const std::filesystem::file_status found = std::filesystem::status(path, ignored);
    errno = EISDIR;
    if (std::filesystem::is_directory(found)) return note(false);
    if (std::filesystem::exists(found) && !std::filesystem::is_regular_file(found)) return true;
    errno = 0;
    const bool is_there = std::filesystem::exists(found);
    const bool can = std::ofstream(path, is_there ? writing | std::ios::in : writing | std::ios::app).is_open();
    if (!note(can)) return false;
    if (!is_there) std::filesystem::remove(path, ignored);
    return true;
}

bool output::open() {
    errno = 0;
    if (!is_standard()) file_.open(utf8_path(path_), writing | std::ios::trunc);
    open_ = is_standard() || file_.is_open();
    return note(open_);
}

bool output::put(const void* data, size_t size) {
    errno = 0;
    if (is_standard()) return note(std::fwrite(data, 1, size, stdout) == size);
    file_.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    return note(file_.good());
}

bool output::flush() {
    errno = 0;
    return note(is_standard() ? std::fflush(stdout) == 0 : file_.flush().good());
}

bool output::rewind() {
    errno = 0;
    return note(file_.seekp(0).good());
}

bool output::close() {
    if (is_standard()) return flush();
    errno = 0;
    file_.close();
    open_ = false;
    return note(file_.good());
}

}  // namespace media::record
