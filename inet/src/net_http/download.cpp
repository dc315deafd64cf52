#include "net_http/download.h"

#include "scan.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace net::http {

namespace {

/// What Windows opens as a device in every directory, whatever extension follows. The last three digits are
/// superscript.
bool is_device(std::string_view name) noexcept {
    constexpr std::string_view devices[] = {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"};
    constexpr std::string_view ports[] = {"COM", "LPT"};
    constexpr std::string_view numbers[] = {"0", "1", "2", "3",        "4",        "5",       "6",
                                            "7", "8", "9", "\xc2\xb9", "\xc2\xb2", "\xc2\xb3"};
    const std::string_view base = scan::trim(name.substr(0, name.find('.')), " ");
    const auto is_base = [&](std::string_view each) { return scan::same_name(base, each); };
    const bool is_port = std::ranges::any_of(ports, [&](std::string_view port) {
        return scan::same_name(base.substr(0, port.size()), port) &&
               std::ranges::find(numbers, base.substr(std::min(base.size(), port.size()))) != std::end(numbers);
    });
    return is_port || std::ranges::any_of(devices, is_base);
}

}  // namespace

// ':' ends a drive, or the name of a stream of a file; Windows drops dots and blanks at the end, so that ".. " is "..".
bool is_plain_name(const char* name) noexcept {
    if (!name || !*name) return false;
    const std::string_view text = name;
    const auto refused = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || std::strchr("/\\:*?\"<>|", c);
    };
    return std::ranges::none_of(text, refused) && text.back() != '.' && text.back() != ' ' && !is_device(text);
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
