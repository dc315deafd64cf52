#include "core/file.h"

#include "platform/system.h"

#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string_view>

struct file_ctx {
    std::FILE* stream;
};

namespace {

namespace platform = core::platform;

using owned_stream = core::owned<std::FILE, std::fclose>;

/// Size of the file as far as it tells; pipes and files that the system makes up as they are read say 0.
size_t size_hint(std::FILE* stream) noexcept {
    if (!platform::seek_file(stream, 0, SEEK_END)) return 0;
    const int64_t size = platform::tell_file(stream);
    platform::seek_file(stream, 0, SEEK_SET);
    return size > 0 ? static_cast<size_t>(size) : 0;
}

}  // namespace

file_ctx* core_fopen(const char* path, const char* mode, const char* file, int line) noexcept {
    if (!path || !mode) return nullptr;
    // The record first: a file that memory fails for is not created or emptied.
    core::owned_object<file_ctx> handle(core::create<file_ctx>(file, line));
    if (!handle) return nullptr;
    handle->stream = platform::open_file(path, mode);
    return handle->stream ? handle.release() : nullptr;
}

int core_fclose(file_ctx*& handle) noexcept {
    if (!handle) return 0;
    const int result = std::fclose(handle->stream) == 0;
    core::destroy(handle);
    handle = nullptr;
    return result;
}

size_t core_fwrite(file_ctx* handle, const void* data, size_t size) noexcept {
    return handle && data ? std::fwrite(data, 1, size, handle->stream) : 0;
}

size_t core_fread(file_ctx* handle, void* data, size_t size) noexcept {
    return handle && data ? std::fread(data, 1, size, handle->stream) : 0;
}

int core_fsync(file_ctx* handle) noexcept {
    return handle && std::fflush(handle->stream) == 0 && platform::sync_file(handle->stream);
}

int64_t core_ftell(file_ctx* handle) noexcept { return handle ? platform::tell_file(handle->stream) : -1; }

int core_fseek(file_ctx* handle, int64_t position) noexcept {
    return handle && position >= 0 && platform::seek_file(handle->stream, position, SEEK_SET);
}

uint8_t* core_file_load(const char* path, size_t limit, size_t* size, const char* file, int line) noexcept {
    if (!path || limit == static_cast<size_t>(-1)) return nullptr;
    const owned_stream stream(platform::open_file(path, "rb"));
    if (!stream) return nullptr;
    const size_t hint = size_hint(stream.get());
    if (hint > limit) return nullptr;
    core::owned<uint8_t> content;
    size_t room = std::min(limit, std::max<size_t>(hint, 4096));
    size_t length = 0;
    // One byte more than there is room for: it takes the NUL, and shows the end of the file or that there is more.
    while (true) {
        auto* const grown = static_cast<uint8_t*>(core_realloc(content.get(), room + 1, file, line));
        if (!grown) return nullptr;
        static_cast<void>(content.release());
        content.reset(grown);
        length += std::fread(grown + length, 1, room + 1 - length, stream.get());
        if (std::ferror(stream.get())) return nullptr;
        if (length <= room) break;
        if (room == limit) return nullptr;
        room = room > limit / 2 ? limit : room * 2;
    }
    content.get()[length] = 0;
    if (size) *size = length;
    return content.release();
}

int core_fremove(const char* path) noexcept { return path && platform::remove_file(path); }

int core_frename(const char* from, const char* to) noexcept { return from && to && platform::rename_file(from, to); }

int core_mkdir(const char* path) noexcept { return path && platform::make_directory(path); }

int core_rmdir(const char* path) noexcept { return path && platform::remove_directory(path); }

char* lib_path(const char* file, int line) noexcept {
    std::array<char, 4096> path{};
    if (!platform::this_library(path.data(), path.size())) return nullptr;
    const std::string_view whole = path.data();
    const size_t separator = whole.find_last_of(platform::path_separators);
    if (separator == std::string_view::npos) return nullptr;
    // The root keeps its separator, which is all there is of it.
    return core_strndup(path.data(), std::max(separator, platform::root_length), file, line);
}
