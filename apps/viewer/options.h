// What the command line of inet-viewer says.
#pragma once

#include "media/watcher.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace viewer {

struct options {
    std::string uri;
    media::transport_t way = media::transport_t::tcp;
    std::vector<std::string> outputs;
    uint64_t duration = 0;   ///< microseconds of media; 0 is without end
    unsigned reconnect = 0;  ///< attempts in a row, or media::watcher::forever
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
