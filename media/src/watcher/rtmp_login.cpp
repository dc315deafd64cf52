#include "watcher/rtmp_login.h"

#include "common/digest.h"
#include "core/text.h"
#include "inet/rtmp_protocol.h"

#include <algorithm>

namespace media::fetch {

namespace {

/// The value of a parameter; empty without it.
std::string_view value_of(std::string_view parameters, std::string_view name) noexcept {
    while (!parameters.empty()) {
        const std::string_view each = parameters.substr(0, parameters.find_first_of("& "));
        parameters.remove_prefix(std::min(each.size() + 1, parameters.size()));
        if (each.starts_with(name) && each.substr(name.size(), 1) == "=") return each.substr(name.size() + 1);
    }
    return {};
}

}  // namespace

core::owned_text rtmp_login(std::string_view said, const char* user, const char* password) noexcept {
    if (!user || said.find("authmod=adobe") == said.npos) return nullptr;
    const size_t begin = said.find("?reason=");
    if (begin == said.npos) return core::owned_text(core_sprintf(CORE_HERE, "?authmod=adobe&user=%s", user));
    const std::string_view parameters = said.substr(begin + 1);
    if (value_of(parameters, "reason") != "needauth") return nullptr;
    const std::string_view opaque = value_of(parameters, "opaque");
    const std::string_view challenge = opaque.empty() ? value_of(parameters, "challenge") : opaque;
    uint32_t number = 0;
    common_random(&number, sizeof number);
    const core::owned_text own(core_sprintf(CORE_HERE, "%08x", static_cast<unsigned>(number)));
    const core::owned_text response(own ? inet::rtmp::login_response(user, value_of(parameters, "salt"),
                                                                     password ? password : "", challenge, own.get(),
                                                                     CORE_HERE)
                                        : nullptr);
    if (!response) return nullptr;
    return core::owned_text(core_sprintf(CORE_HERE, "?authmod=adobe&user=%s&challenge=%s&response=%s&opaque=%.*s", user,
                                         own.get(), response.get(), static_cast<int>(opaque.size()), opaque.data()));
}

}  // namespace media::fetch
