// How the media of a source travels, by its name on the command line.
#pragma once

#include "media/watcher.h"

#include <iterator>
#include <string_view>

namespace apps {

inline bool take_transport(media::transport_t& out, std::string_view text) {
    constexpr std::string_view names[] = {"tcp", "udp", "multicast", "http"};
    for (size_t i = 0; i < std::size(names); ++i) {
        if (text != names[i]) continue;
        out = static_cast<media::transport_t>(i);
        return true;
    }
    return false;
}

}  // namespace apps
