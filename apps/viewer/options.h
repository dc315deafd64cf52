// What the command line of inet-viewer says.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace viewer {

/// How the media travels.
enum class transport : uint8_t {
    tcp,        ///< inside the RTSP connection
    udp,        ///< UDP unicast
    multicast,  ///< UDP multicast
    http,       ///< inside RTSP, which is inside two HTTP connections
};

struct options {
    static constexpr unsigned forever = std::numeric_limits<unsigned>::max();

    std::string uri;
    std::string host;     ///< of the URI, and
    uint16_t port = 554;  ///< its port, or that of RTSP
    transport way = transport::tcp;
    std::vector<std::string> outputs;
    uint64_t duration = 0;   ///< microseconds of media; 0 is without end
    unsigned reconnect = 0;  ///< attempts in a row, or `forever`
    unsigned timeout = 10;   ///< seconds
    bool stats = false;
    std::string log;
    bool help = false;
};

/// The options; on a mistake nothing, with the reason in `error`.
std::optional<options> parse_options(std::span<const std::string> arguments, std::string& error);

/// The text of --help.
std::string usage();

}  // namespace viewer
