#include "recording.h"

#include "program.h"

#include "core/memory.h"
#include "core/time.h"

#include <algorithm>
#include <array>
#include <system_error>

namespace apps {
namespace {

constexpr char stamp[] = "-%Y%m%dT%H%M%S.%sZ.mp4";
constexpr std::string_view ending = ".mp4";
constexpr size_t stamp_size = std::string_view("20261122T103117.042Z").size();

}  // namespace

bool is_recording_name(std::string_view stream) {
    constexpr size_t longest = 128;
    return !stream.empty() && stream.size() <= longest && stream.front() != '.' &&
           std::ranges::none_of(stream, [](char c) {
               return static_cast<unsigned char>(c) < 0x20 ||
                      std::string_view("/\\:*?\"<>|").find(c) != std::string_view::npos;
           });
}

std::string recording_file(std::string_view stream, uint64_t start) {
    std::array<char, 64> text{};
    time_format(start, stamp, text.data(), static_cast<uint32_t>(text.size()));
    return std::string(stream) + text.data();
}

std::optional<uint64_t> recording_start(std::string_view stream, std::string_view file) {
    if (!file.starts_with(stream) || !file.ends_with(ending)) return std::nullopt;
    file = file.substr(stream.size());
    uint64_t start = 0;
    const bool fits = file.size() == 1 + stamp_size + ending.size() && file.front() == '-' &&
                      core_time_from_stamp(file.data() + 1, stamp_size, &start);
    return fits ? std::optional(start) : std::nullopt;
}

std::vector<recording> recordings_of(const std::filesystem::path& folder, std::string_view stream) {
    std::vector<recording> found;
    std::error_code ignored;
    std::filesystem::directory_iterator entries(folder, ignored);
    for (; entries != std::filesystem::directory_iterator(); entries.increment(ignored)) {
        if (const auto start = recording_start(stream, utf8_text(entries->path().filename())))
            found.push_back({entries->path(), *start});
    }
    std::ranges::sort(found, {}, &recording::start);
    return found;
}

}  // namespace apps
