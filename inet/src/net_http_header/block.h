// Cuts a header block in place: each text of it ends with a NUL where its separator stood.
#pragma once

#include "scan.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

namespace net::http {

/// What a parser knows of start lines.
struct dialect {
    std::span<const std::string_view> protocols;  ///< literals
    std::span<const std::string_view> status_starts;
};

inline constexpr std::string_view known_protocols[] = {"RTSP/1.0", "HTTP/1.0", "HTTP/1.1", "SIP/2.0"};
inline constexpr std::string_view known_status_starts[] = {"RTSP/", "HTTP/", "SIP/"};
inline constexpr dialect all_protocols = {known_protocols, known_status_starts};
inline constexpr dialect without_sip = {std::span(known_protocols).first<3>(),
                                        std::span(known_status_starts).first<2>()};

/// The status code of "RTSP/1.0 200 OK": a known start, a version token, a number. The version is whatever stands
/// there.
inline std::optional<uint32_t> status_of(std::string_view line, const dialect& known) noexcept {
    for (const std::string_view start : known.status_starts) {
        if (line.empty() || line[0] != start[0] || !line.starts_with(start)) continue;
        const std::string_view version = scan::skip(line.substr(start.size()), scan::spaces);
        const size_t end = version.find_first_of(scan::spaces);
        if (end == 0 || end == std::string_view::npos) return std::nullopt;
        return scan::number(version.substr(end));
    }
    return std::nullopt;
}

/// `into` takes what the first line says: status(number), or method(text), uri(text) and protocol(text) as far as they
/// are there. @return what `into` returned last: false ends the reading
template <class Into>
bool cut_start(char* line, size_t size, const dialect& known, Into& into) noexcept {
    if (const auto status = status_of({line, size}, known)) return into.status(*status);
    char* const target = std::strchr(line, ' ');
    if (!target) return true;
    *target = '\0';
    char* const protocol = std::strchr(target + 1, ' ');
    if (protocol) {
        *protocol = '\0';
        const auto found = std::ranges::find(known.protocols, std::string_view(protocol + 1));
        into.protocol(found == known.protocols.end() ? nullptr : found->data());
    }
    return into.method(line) && (!protocol || into.uri(target + 1));
}

/// Cuts a whole block, which ends with a NUL. `into` also takes field(name, value).
template <class Into>
bool cut_block(char* text, const dialect& known, Into& into) noexcept {
    text += std::strspn(text, "\r\n");
    bool first = true;
    for (char* end; (end = std::strstr(text, "\r\n")) != nullptr; text = end + 2) {
        *end = '\0';
        char* const colon = first ? nullptr : std::strchr(text, ':');
        if (first && !cut_start(text, static_cast<size_t>(end - text), known, into)) return false;
        first = false;
        if (!colon) continue;
        *colon = '\0';
        char* value = colon + 1;
        while (*value == ' ')
            ++value;
        if (!into.field(text, value)) return false;
    }
    return true;
}

}  // namespace net::http
