#include "dash/inside.h"

#include "core/text.h"
#include "core/time.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace media {

namespace {

namespace fs = std::filesystem;

constexpr size_t longest_name = 32;  ///< of a stream, in the id of its track

/// Whether a folder is that of a context, "NAME-NUMBER-WHICH-TIME-START-END", or of one that followed, with "-1" or the
/// like behind it.
bool is_of(std::string_view folder, std::string_view number) {
    constexpr size_t least = 6;
    std::vector<std::string_view> parts;
    for (size_t end = 0; end != folder.npos; folder.remove_prefix(end == folder.npos ? 0 : end + 1)) {
        end = folder.find('-');
        parts.push_back(folder.substr(0, end));
    }
    const auto is_hex = [](std::string_view part) {
        return !part.empty() &&
               std::ranges::all_of(part, [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
    };
    return (parts.size() == least || parts.size() == least + 1) && parts[1] == number &&
           std::ranges::all_of(parts.begin() + 2, parts.end(), is_hex);
}

/// Of what is not a segment nothing is removed, nor the folder that holds it.
void remove_segments(const fs::path& folder) {
    std::error_code ignored;
    std::vector<fs::path> segments;
    for (fs::directory_iterator each(folder, ignored); each != fs::directory_iterator(); each.increment(ignored))
        if (each->path().extension() == ".m4s") segments.push_back(each->path());
    for (const fs::path& each : segments)
        fs::remove(each, ignored);
    fs::remove(folder, ignored);
}

}  // namespace

core::owned_text dash_id(const char* name, uint32_t number, uint64_t which) noexcept {
    const core::owned_text plain(core_strndup(name, longest_name, CORE_HERE));
    for (char* each = plain.get(); each && *each; ++each)
        if (!std::isalnum(static_cast<unsigned char>(*each))) *each = '_';
    return core::owned_text(core_sprintf(CORE_HERE, "%s-%u-%llu-%llx", plain ? plain.get() : "", number,
                                         static_cast<unsigned long long>(which),
                                         static_cast<unsigned long long>(time_now() / 1000)));
}

void remove_leftovers(uint32_t number) noexcept {
    try {
        std::error_code ignored;
        std::vector<fs::path> folders;
        for (fs::directory_iterator each("temp", ignored); each != fs::directory_iterator(); each.increment(ignored)) {
            const std::u8string name = each->path().filename().u8string();
            const std::string_view text(reinterpret_cast<const char*>(name.data()), name.size());
            const bool is_folder = each->is_directory(ignored) && !each->is_symlink(ignored);
            if (is_folder && is_of(text, std::to_string(number))) folders.push_back(each->path());
        }
        for (const fs::path& each : folders)
            remove_segments(each);
    } catch (const std::exception&) {
        // No memory, or a name that is no text: they stay until the next start.
    }
}

}  // namespace media
