#include "http_service/client.h"
#include "http_service/inside.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

namespace media {

namespace {

constexpr size_t longest_line = 4096;

}  // namespace

http_service_t* http_service(const http_settings_t& settings) noexcept {
    auto* made = core::create<web::service_t>(CORE_HERE, settings);
    if (!made || made->complete()) return made;
    delete made;
    return nullptr;
}

namespace web {

service_t::service_t(const http_settings_t& settings) noexcept : settings_(settings), port_(settings.port) {
    user_.reset(core_strdup(settings.user, CORE_HERE));
    password_.reset(core_strdup(settings.password, CORE_HERE));
    settings_.user = user_.get();
    settings_.password = password_.get();
    const bool complete = (!settings.user || user_) && (!settings.password || password_);
    if (complete) gate_.reset(core::create<gate>(CORE_HERE, user_.get(), password_.get()));
}

int service_t::add(route_t route) noexcept {
    try {
        routes_.push_back(std::move(route));
        return 1;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

int service_t::serve(const char* path, http_handler_t handler, void* arg, const char* methods, bool open) noexcept {
    if (!path || *path != '/' || !handler || !methods || find(path)) return 0;
    try {
        route_t route;
        route.path.assign(path);
        route.methods.assign(methods);
        route.handler = handler;
        route.arg = arg;
        route.open = open;
        return add(std::move(route));
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

int service_t::serve(const char* path, const document_t& what) noexcept {
    if (!path || *path != '/' || find(path)) return 0;
    try {
        route_t route;
        route.path.assign(path);
        route.methods.assign("GET, HEAD");
        route.document = what;
        return add(std::move(route));
    } catch (const std::bad_alloc&) {
        return 0;
    }
}

const route_t* service_t::find(std::string_view path) const noexcept {
    const auto is_below = [&](std::string_view folder) {
        if (!folder.ends_with("/*")) return false;
        folder.remove_suffix(1);
        return path.size() > folder.size() && path.starts_with(folder);
    };
    const route_t* nearest = nullptr;
    for (const route_t& each : routes_) {
        if (each.path == path) return &each;
        if (is_below(each.path) && (!nearest || each.path.size() > nearest->path.size())) nearest = &each;
    }
    return nearest;
}

/// Every request line of HTTP. What opens an RTSP tunnel is claimed before.
claim_t service_t::claims(buffer_t first) const noexcept {
    const std::string_view text(reinterpret_cast<const char*>(first.data), first.size);
    const size_t line = text.find_first_of("\r\n");
    const bool is_text = std::ranges::none_of(text.substr(0, line), [](char c) { return (c & 0xe0) == 0; });
    if (!is_text) return claim_t::no;  // as of a browser that would speak TLS
    if (line == std::string_view::npos) return text.size() < longest_line ? claim_t::more : claim_t::yes;
    const bool http = text.substr(0, line).find(" HTTP/") != std::string_view::npos;
    return http || line == 0 ? claim_t::yes : claim_t::no;
}

/// A port that was taken at an earlier start may be free now.
int service_t::open(station&, failure_t*) noexcept {
    if (port_ == 0) port_ = settings_.port;
    return 1;
}

part* service_t::make_part(thread& on, failure_t* error) noexcept {
    part* made = core::create<part_t>(CORE_HERE, on, counters_);
    if (!made) tell(error, "out of memory");
    return made;
}

client* service_t::take(thread& on, net::Tcp*& from) noexcept {
    auto* made = core::create<client_t>(CORE_HERE, on, *this);
    if (made && made->begin(from)) return made;
    delete made;
    return nullptr;
}

void service_t::addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                          void* arg) const noexcept {
    format_t format;
    if (port() == 0 || !of.format(kind_t::video, &format, nullptr) || format.fcc != av::fcc_jpeg) return;
    const core::owned_text path(uri_encode_path(of.name(), CORE_HERE));
    for (const char* kind : {"mjpeg", "jpg"}) {
        char text[512];
        const int size = std::snprintf(text, sizeof text, "http://%s:%u/%s.%s", host, unsigned{port()},
                                       path ? path.get() : of.name(), kind);
        if (size > 0 && static_cast<size_t>(size) < sizeof text) each(arg, text);
    }
}

}  // namespace web
}  // namespace media
