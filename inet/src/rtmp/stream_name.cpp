// Which stream a player means.
#include "scan.h"

#include "core/owned.h"
#include "inet/net_uri.h"
#include "inet/rtmp_protocol.h"

#include <algorithm>

namespace inet::rtmp {

namespace {

constexpr uint32_t most_names = 8;  // a path of a thousand segments is not sought a thousand times

std::string_view without_query(std::string_view text) noexcept {
    return scan::trim(text.substr(0, text.find('?')), "/");
}

/// Path of a URL: what stands behind its host.
std::string_view path_of(std::string_view url) noexcept {
    const size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return {};
    url.remove_prefix(scheme + 3);
    return url.substr(std::min(url.find('/'), url.size()));
}

std::string_view without_prefix(std::string_view name) noexcept {
    for (const std::string_view prefix : {"mp4:", "flv:", "mp3:"})
        if (name.starts_with(prefix)) return name.substr(prefix.size());
    return name;
}

/// Drops everything up to the first '/'. @return false when there is none
bool drop_segment(std::string_view& path) noexcept {
    const size_t at = path.find('/');
    if (at == std::string_view::npos) return false;
    path = scan::trim(path.substr(at), "/");
    return !path.empty();
}

}  // namespace

uint32_t stream_name(const play_t& play, uint32_t which, char* out, uint32_t size) noexcept {
    std::string_view app = without_query(scan::text(play.app));
    std::string_view name = without_query(without_prefix(scan::text(play.name)));
    if (app.empty()) app = without_query(path_of(scan::text(play.tc_url)));
    if (which >= most_names) return 0;
    // The longer names begin in the application, the shorter ones are parts of the stream name.
    for (; which > 0; --which) {
        if (app.empty() && !drop_segment(name)) return 0;
        if (!app.empty() && !drop_segment(app)) app = {};
    }
    const bool both = !app.empty() && !name.empty();
    const core::owned_text raw(core_sprintf(CORE_HERE, "%.*s%s%.*s", static_cast<int>(app.size()), app.data(),
                                            both ? "/" : "", static_cast<int>(name.size()), name.data()));
    const core::owned_text decoded(raw ? uri_decode_part(raw.get(), nullptr, CORE_HERE) : nullptr);
    const std::string_view made = scan::text(decoded.get());
    if (made.empty() || made.size() >= size) return 0;
    *std::copy(made.begin(), made.end(), out) = '\0';
    return static_cast<uint32_t>(made.size());
}

}  // namespace inet::rtmp
