#include "sip_address.h"

#include "command_line.h"

#include <algorithm>

namespace apps {

bool is_sip_name(std::string_view text) {
    return !text.empty() && std::ranges::none_of(text, [](char c) {
        return static_cast<unsigned char>(c) <= ' ' ||
               std::string_view("<>\"@:;,\x7f").find(c) != std::string_view::npos;
    });
}

bool sip_address::parse(std::string_view text, bool takes_password) {
    constexpr std::string_view scheme = "sip:";
    constexpr std::string_view parameter = ";transport=tcp", transport = ";tcp";
    const size_t at = text.rfind('@');
    if (at == text.npos) return false;
    std::string_view login = text.substr(0, at);
    std::string_view place = text.substr(at + 1);
    const bool is_uri = place.ends_with(parameter);
    const bool is_scheme =
        !takes_password || is_uri || login.find(':') != login.rfind(':');  // else "sip" may be a user with a password
    if (login.starts_with(scheme) && is_scheme) login.remove_prefix(scheme.size());
    user = login.substr(0, login.find(':'));
    password = login.substr(std::min(user.size() + 1, login.size()));
    tcp = is_uri || place.ends_with(transport);
    if (tcp) place.remove_suffix(is_uri ? parameter.size() : transport.size());
    server = place.substr(0, place.find(':'));
    const bool has_port = server.size() < place.size();
    const auto no_control = [](char c) { return static_cast<unsigned char>(c) >= ' '; };
    return is_sip_name(user) && is_sip_name(server) && (takes_password || password.empty()) &&
           std::ranges::all_of(password, no_control) &&
           (!has_port || take_number(port, place.substr(server.size() + 1), 1, 65535));
}

const char* words_of(media::sip_reason_t reason) {
    using r = media::sip_reason_t;
    switch (reason) {
        case r::none:
            return "";
        case r::hung_up:
            return "hung up";
        case r::busy:
            return "busy, or declined";
        case r::unreachable:
            return "cannot be reached";
        case r::refused:
            return "the server refuses the account";
        case r::no_server:
            return "the server does not answer";
        case r::silent:
            return "nothing comes any more";
        case r::no_place:
            return "no place for another call";
    }
    return "";
}

}  // namespace apps
