#include "net_http/download.h"

#include "core/text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace net::http {

// ':' ends a drive, or the name of a stream of a file; Windows drops dots and blanks at the end, so that ".. " is "..".
bool is_plain_name(const char* name) noexcept {
    if (!name || !*name) return false;
    const std::string_view text = name;
    const auto refused = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || std::strchr("/\\:*?\"<>|", c);
    };
    return std::ranges::none_of(text, refused) && text.back() != '.' && text.back() != ' ';
}

download::download(const char* directory, const char* name) noexcept {
    if (std::strncmp(directory, "./", 2) == 0) {
        const core::owned_text base(lib_path(CORE_HERE));
        if (base) directory_.reset(core_sprintf(CORE_HERE, "%s%s", base.get(), directory + 1));
    } else {
        directory_.reset(core_strdup(directory, CORE_HERE));
    }
    if (directory_) path_.reset(core_sprintf(CORE_HERE, "%s/%s", directory_.get(), name));
}

download::~download() {
    if (!file_) return;
    core_fclose(file_);
    core_fremove(path_.get());
}

bool download::open() noexcept {
    core_mkdir(directory_.get());
    file_ = core_fopen(path_.get(), "wb", CORE_HERE);
    return file_ != nullptr;
}

bool download::write(std::span<const uint8_t> bytes) noexcept {
    return core_fwrite(file_, bytes.data(), bytes.size()) == bytes.size();
}

bool download::finish() noexcept {
    if (core_fclose(file_)) return true;
    core_fremove(path_.get());
    return false;
}

}  // namespace net::http
