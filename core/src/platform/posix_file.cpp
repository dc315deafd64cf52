#include "system.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace core::platform {

const char* const path_separators = "/";
const size_t root_length = 1;

std::FILE* open_file(const char* path, const char* mode) noexcept {
    std::array<char, 16> full{};
    if (std::strlen(mode) + 2 > full.size()) return nullptr;
    std::snprintf(full.data(), full.size(), "%se", mode);  // 'e': close on exec
    return std::fopen(path, full.data());
}

bool seek_file(std::FILE* file, int64_t position, int whence) noexcept { return fseeko(file, position, whence) == 0; }

int64_t tell_file(std::FILE* file) noexcept { return ftello(file); }

bool sync_file(std::FILE* file) noexcept { return fsync(fileno(file)) == 0; }

void adopt_rights(std::FILE* file, const char* path) noexcept {
    struct stat info {};
    if (stat(path, &info) != 0) return;
    // Without the right to do so the file keeps its own rights, which the caller's umask has chosen.
    [[maybe_unused]] const int refused = fchmod(fileno(file), info.st_mode & 0777);
}

bool is_terminal(std::FILE* file) noexcept { return isatty(fileno(file)) == 1; }

bool remove_file(const char* path) noexcept { return unlink(path) == 0; }

bool rename_file(const char* from, const char* to) noexcept { return std::rename(from, to) == 0; }

bool follow_links(const char* path, char* out, size_t size) noexcept {
    constexpr int most_links = 40;  // as many as the kernel follows
    const auto put = [&](size_t at, const char* text, size_t length) {
        if (at + length >= size) return false;
        std::memcpy(out + at, text, length);
        out[at + length] = 0;
        return true;
    };
    if (!put(0, path, std::strlen(path))) return false;
    char target[4096];
    for (int links = 0; links < most_links; ++links) {
        const ssize_t length = readlink(out, target, sizeof target);
        if (length < 0) return true;
        const char* const slash = std::strrchr(out, '/');
        const size_t directory = slash && target[0] != '/' ? static_cast<size_t>(slash - out) + 1 : 0;
        if (!put(directory, target, static_cast<size_t>(length))) return false;
    }
    return false;
}

void sync_entry(const char* path) noexcept {
    const char* slash = std::strrchr(path, '/');
    char directory[4096] = ".";
    if (slash) {
        const size_t length = slash == path ? 1 : static_cast<size_t>(slash - path);
        if (length >= sizeof directory) return;
        std::memcpy(directory, path, length);
        directory[length] = 0;
    }
    const int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    fsync(fd);
    close(fd);
}

bool make_directory(const char* path) noexcept {
    if (mkdir(path, 0777) == 0) return true;
    struct stat info {};
    return errno == EEXIST && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool remove_directory(const char* path) noexcept { return rmdir(path) == 0; }

}  // namespace core::platform
