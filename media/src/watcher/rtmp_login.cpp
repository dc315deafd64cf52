#include "watcher/rtmp_login.h"

#include "common/digest.h"
#include "core/text.h"

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

int size_of(std::string_view text) noexcept { return static_cast<int>(text.size()); }

/// Base64 of the MD5 of three texts, one behind the other.
core::owned_text digest(const char* first, std::string_view second, const char* third) noexcept {
    const core::owned_text all(first ? core_sprintf(CORE_HERE, "%s%.*s%s", first, size_of(second), second.data(), third)
                                     : nullptr);
    if (!all) return nullptr;
    uint8_t sum[16];
    common_md5_bytes(all.get(), std::string_view(all.get()).size(), sum);
    return core::owned_text(b64(sum, sizeof sum, CORE_HERE));
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
    const core::owned_text secret = digest(user, value_of(parameters, "salt"), password ? password : "");
    const core::owned_text response = own ? digest(secret.get(), challenge, own.get()) : nullptr;
    if (!response) return nullptr;
    return core::owned_text(core_sprintf(CORE_HERE, "?authmod=adobe&user=%s&challenge=%s&response=%s&opaque=%.*s", user,
                                         own.get(), response.get(), size_of(opaque), opaque.data()));
}

}  // namespace media::fetch
