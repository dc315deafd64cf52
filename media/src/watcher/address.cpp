#include "watcher/address.h"

#include "core/text.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace media::fetch {

namespace {

constexpr std::string_view scheme = "rtsp://";
constexpr uint16_t rtsp_port = 554;

bool take_port(std::string_view text, uint16_t& port) noexcept {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

}  // namespace

// The user-info ends where the RTSP session ends it, at the last '@'.
bool address_t::set(const char* url, const char* user, const char* password) noexcept {
    if (!url || core_strncasecmp(url, scheme.data(), static_cast<uint32_t>(scheme.size())) != 0) return false;
    const std::string_view place = std::string_view(url).substr(scheme.size());
    const size_t authority_size = std::min(place.find_first_of("/?"), place.size());
    const std::string_view authority = place.substr(0, authority_size);
    const std::string_view server = authority.substr(authority.rfind('@') + 1);
    const size_t colon = std::min(server.find(':'), server.size());
    port = rtsp_port;
    if (colon == 0 || colon >= sizeof host || server.front() == '[') return false;
    if (colon < server.size() && !take_port(server.substr(colon + 1), port)) return false;
    *std::copy_n(server.begin(), colon, host) = 0;
    if (!user) {
        uri.reset(core_strdup(url, CORE_HERE));
        return uri != nullptr;
    }
    const core::owned_text name(uri_encode(user, CORE_HERE));
    const core::owned_text secret(uri_encode(password ? password : "", CORE_HERE));
    if (!name || !secret) return false;
    uri.reset(core_sprintf(CORE_HERE, "%s%s:%s@%s", scheme.data(), name.get(), secret.get(), server.data()));
    return uri != nullptr;
}

}  // namespace media::fetch
