// What the command line of inet-camera says.
#pragma once

#include "command_line.h"
#include "program.h"
#include "sip_address.h"

#include "media/watcher.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace camera {

/// How the program is called in its messages.
inline constexpr const char* program_name = "inet-camera";

/// The picture that a new viewer begins with.
enum class start_t : uint8_t {
    key,   ///< the last key picture that was played
    next,  ///< the next one to come
};

/// What is fetched and served on.
struct source {
    std::string name = "live";  ///< of its path
    std::string url;            ///< "-" is the standard input
};

struct options {
    std::string video;
    std::string audio;
    std::vector<std::string> jpeg;
    std::string analytics;
    std::vector<source> sources;
    media::transport_t transport = media::transport_t::tcp;  ///< of the sources
    bool on_demand = false;                                  ///< sources are fetched only while somebody watches
    std::string bind = "127.0.0.1";
    uint16_t rtsp_port = 8554;
    std::optional<uint16_t> http_port = uint16_t{8080};  ///< none: nothing is served over HTTP
    bool http_asked = false;                             ///< without its port the camera does not start
    bool discovery = true;                               ///< by WS-Discovery, with HTTP
    std::optional<uint16_t> rtmp_port = uint16_t{1935};  ///< none: nothing is served over RTMP
    bool rtmp_asked = false;                             ///< without its port the camera does not start
    std::optional<apps::sip_address> sip;                ///< none: it takes no calls
    uint16_t sip_port = 5060;                            ///< of the relay
    bool sip_server = false;                             ///< its port was named
    std::string sip_users;                               ///< of the relay, separated by ','; empty for no relay
    std::string multicast;                               ///< group; empty for no multicast
    uint16_t multicast_port = 5004;                      ///< of the first track's RTP; the others follow
    uint8_t ttl = 1;                                     ///< hops that multicast goes
    apps::credentials login;                             ///< that viewers need
    unsigned threads = 1;
    start_t start = start_t::key;
    uint32_t backlog = 2 * 1024 * 1024;  ///< bytes that may wait for a viewer
    unsigned stall = 10;                 ///< seconds after which a viewer that takes next to nothing is dropped
    unsigned timeout = 60;               ///< seconds without request or report after which a session ends
    std::string record;                  ///< folder; empty: nothing is recorded
    uint64_t keep = uint64_t{10} << 30;  ///< bytes of recordings
    std::string log;
    apps::about_t about = apps::about_t::nothing;
};

/// The options; on a mistake nothing, with the reason in `error`.
std::optional<options> parse_options(std::span<const std::string> arguments, std::string& error);

/// The text of --help.
std::string usage();

}  // namespace camera
