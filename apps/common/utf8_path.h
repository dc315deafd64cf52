// Paths are UTF-8 texts; a std::filesystem::path made from one finds the file on every system.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace apps {

inline std::filesystem::path utf8_path(std::string_view text) { return std::u8string(text.begin(), text.end()); }

inline std::string utf8_text(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

}  // namespace apps
