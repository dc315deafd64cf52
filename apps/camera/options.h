// What the command line of inet-camera says.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace camera {

/// The picture that a new viewer begins with.
enum class start_t : uint8_t {
    key,   ///< the last key picture that was played
    next,  ///< the next one to come
};

struct options {
    std::string video;
    std::string audio;
    std::vector<std::string> jpeg;
    std::string analytics;
    std::string bind = "127.0.0.1";
    uint16_t rtsp_port = 8554;
    std::string multicast;           ///< group; empty for no multicast
    uint16_t multicast_port = 5004;  ///< of the first track's RTP; the others follow
    uint8_t ttl = 1;                 ///< hops that multicast goes
    std::string user;
    std::string password;
    unsigned threads = 1;
    start_t start = start_t::key;
    uint32_t backlog = 2 * 1024 * 1024;  ///< bytes that may wait for a viewer
    unsigned stall = 10;                 ///< seconds after which a viewer that takes next to nothing is dropped
    unsigned timeout = 60;               ///< seconds without request or report after which a session ends
    std::string log;
    bool help = false;
};

/// The options; on a mistake nothing, with the reason in `error`.
std::optional<options> parse_options(std::span<const std::string> arguments, std::string& error);

/// The text of --help.
std::string usage();

}  // namespace camera
