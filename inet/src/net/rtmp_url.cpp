#include "net/rtmp_url.h"

#include "scan.h"

#include <algorithm>
#include <charconv>

namespace net::rtmp {

namespace {

struct scheme_t {
    const char* name;
    int protocol;
};

constexpr scheme_t schemes[] = {{"rtmp", 0},  {"rtmpt", 1},  {"rtmpe", 2}, {"rtmpte", 3},
                                {"rtmps", 4}, {"rtmpts", 5}, {"rtmfp", 8}};

int protocol_of(std::string_view scheme) noexcept {
    const auto found =
        std::ranges::find_if(schemes, [&](const scheme_t& each) { return scan::same_name(each.name, scheme); });
    return found != std::end(schemes) ? found->protocol : 0;
}

/// Nothing, or digits alone.
bool read_port(std::string_view text, uint16_t& out) noexcept {
    if (text.empty()) return true;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
    return error == std::errc() && end == text.data() + text.size();
}

/// How servers of recorded files name one: by its kind in front, and without the extension where that is its default.
struct kind_t {
    std::string_view extension;
    std::string_view prefix;
    bool keeps_extension;
};

constexpr kind_t kinds[] = {
    {".mp4", "mp4:", true}, {".m4v", "mp4:", true},  {".mov", "mp4:", true}, {".f4v", "mp4:", true},
    {".3gp", "mp4:", true}, {".mp3", "mp3:", false}, {".flv", "", false},
};

place_t recorded(std::string_view application, std::string_view file) noexcept {
    const std::string_view name = file.substr(0, file.find('?'));
    for (const kind_t& each : kinds) {
        const size_t size = each.extension.size();
        if (name.size() <= size || !scan::same_name(name.substr(name.size() - size), each.extension)) continue;
        const bool named = file.starts_with("mp4:") || file.starts_with("mp3:") || file.starts_with("flv:");
        if (named || each.keeps_extension) return {application, named ? std::string_view() : each.prefix, file};
        // What follows the name would not fit behind a name that was cut.
        if (name.size() == file.size()) return {application, each.prefix, file.substr(0, file.size() - size)};
    }
    return {application, {}, file};
}

/// The value of "slist" in a query, which is a part of it also when it is empty; null for none.
std::string_view list_of(std::string_view query) noexcept {
    while (!query.empty()) {
        const std::string_view each = scan::take(query, '&');
        if (each.starts_with("slist=")) return each.substr(6);
    }
    return {};
}

}  // namespace

const char* scheme_of(int protocol) noexcept { return std::ranges::find(schemes, protocol, &scheme_t::protocol)->name; }

bool read_url(std::string_view text, url_t& out) noexcept {
    const size_t colon = text.find("://");
    if (colon == std::string_view::npos || colon + 3 == text.size()) return false;
    out.protocol = protocol_of(text.substr(0, colon));
    const std::string_view rest = text.substr(colon + 3);
    const size_t slash = std::min(rest.find('/'), rest.size());
    const scan::pair place = scan::split(rest.substr(0, slash), ':');
    out.host = place.key;
    out.port = 0;
    out.path = slash < rest.size() ? rest.substr(slash + 1) : std::string_view();
    return out.host.size() <= longest_host && read_port(place.value, out.port);
}

place_t split_path(std::string_view path) noexcept {
    constexpr std::string_view on_demand = "ondemand/";
    const scan::pair query = scan::split(path, '?');
    const std::string_view list = list_of(query.value);
    if (list.data()) {
        std::string_view application = query.key;
        while (application.ends_with('/'))
            application.remove_suffix(1);
        return {application, {}, list};
    }
    if (path.starts_with(on_demand)) {
        return recorded(path.substr(0, on_demand.size() - 1), path.substr(on_demand.size()));
    }
    const scan::pair parts = scan::split(path, '/');
    return {parts.key, {}, parts.value};
}

core::owned_text joined(std::string_view front, std::string_view back, const char* file, int line) noexcept {
    core::owned_text text(static_cast<char*>(core_malloc(front.size() + back.size() + 1, file, line)));
    if (!text) return text;
    char* end = text.get() + front.copy(text.get(), front.size());
    end += back.copy(end, back.size());
    *end = '\0';
    return text;
}

}  // namespace net::rtmp
