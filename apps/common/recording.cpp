#include "recording.h"

#include "program.h"

#include "core/memory.h"
#include "core/time.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>

namespace apps {
namespace {

constexpr char stamp[] = "-%Y%m%dT%H%M%S.%sZ.mp4";
constexpr std::string_view stamp_form = "-00000000T000000.000Z.mp4";

/// The digits of a stamp, in the places in which its form has them.
std::optional<uint64_t> read_stamp(std::string_view text) {
    if (text.size() != stamp_form.size()) return std::nullopt;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool is_digit = text[i] >= '0' && text[i] <= '9';
        if (stamp_form[i] == '0' ? !is_digit : text[i] != stamp_form[i]) return std::nullopt;
    }
    const auto number = [&](size_t at, size_t size) {
        int value = 0;
        std::from_chars(text.data() + at, text.data() + at + size, value);
        return value;
    };
    tm fields{};
    fields.tm_year = number(1, 4) - 1900;
    fields.tm_mon = number(5, 2) - 1;
    fields.tm_mday = number(7, 2);
    fields.tm_hour = number(10, 2);
    fields.tm_min = number(12, 2);
    fields.tm_sec = number(14, 2);
    const int64_t seconds = core_timegm(&fields);
    if (seconds < 0) return std::nullopt;
    return static_cast<uint64_t>(seconds) * 1'000'000 + static_cast<uint64_t>(number(17, 3)) * 1000;
}

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
    if (!file.starts_with(stream)) return std::nullopt;
    return read_stamp(file.substr(stream.size()));
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
