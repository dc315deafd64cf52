// Recordings of a stream: files of fragmented MP4 in one folder, each named after the stream and the moment at which
// its first picture was decoded: "yard-20261122T103117.042Z.mp4".
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace apps {

struct recording {
    std::filesystem::path path;
    uint64_t start;  ///< microseconds since 1970-01-01 UTC
};

/// Whether a stream of that name can have recordings: the name stays within the folder.
bool is_recording_name(std::string_view stream);

std::string recording_file(std::string_view stream, uint64_t start);

/// When a file of a stream's recording begins; nothing when it is none.
std::optional<uint64_t> recording_start(std::string_view stream, std::string_view file);

/// Recordings of a stream in a folder, the oldest first; none when it cannot be read.
std::vector<recording> recordings_of(const std::filesystem::path& folder, std::string_view stream);

}  // namespace apps
