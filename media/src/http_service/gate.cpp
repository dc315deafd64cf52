#include "http_service/gate.h"

#include "common/digest.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/time.h"
#include "core/value.h"
#include "inet/net_http_auth.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace media::web {

namespace {

constexpr const char* realm = "inet";
constexpr uint64_t lifetime = 300;  // seconds

uint64_t seconds_now() noexcept { return core_timer() / 1'000'000; }

}  // namespace

gate::gate(const char* user, const char* password) noexcept : user_(user), password_(password) {
    common_random(secret_, sizeof secret_);
}

gate::nonce_t gate::nonce_of(uint64_t seconds) const noexcept {
    nonce_t text{};
    std::snprintf(text.data(), text.size(), "%016llx", static_cast<unsigned long long>(seconds));
    uint8_t signature[32];
    HMACsha256(secret_, sizeof secret_, text.data(), 16, signature);
    for (size_t i = 0; i < 16; ++i)
        std::snprintf(text.data() + 16 + 2 * i, 3, "%02x", signature[i]);
    return text;
}

gate::result_t gate::judge(const net::http::header_s& request) const noexcept {
    if (!user_) return result_t::passes;
    const char* value = value_geti(request.fields, "Authorization");
    if (!value) return result_t::refused;
    // The name of a scheme has no case (RFC 9110, 11.1).
    constexpr std::string_view scheme = "Digest";
    const core::owned_text usual(core_strdup(value, CORE_HERE));
    if (usual && core_strncasecmp(value, scheme.data(), scheme.size()) == 0) scheme.copy(usual.get(), scheme.size());
    value = usual.get();
    const core::owned<authenticate_ctx, net_http_authenticate_free> answer(
        net_http_authenticate_parse(value, CORE_HERE));
    if (!answer || !answer->nonce) return result_t::refused;
    uint64_t made = 0;
    std::from_chars(answer->nonce, answer->nonce + std::min<size_t>(16, std::strlen(answer->nonce)), made, 16);
    if (!net_http_authenticate_check(value, request.method, request.uri, user_, password_, realm, answer->nonce))
        return result_t::refused;
    // A browser that knows the password asks for it again, unless it is told that the nonce alone is at fault. That is
    // so after a restart, too.
    const bool is_own = std::strcmp(nonce_of(made).data(), answer->nonce) == 0;
    return is_own && seconds_now() - made <= lifetime ? result_t::passes : result_t::stale;
}

core::owned_text gate::challenge(bool stale) const noexcept {
    return core::owned_text(core_sprintf(CORE_HERE, "Digest realm=\"%s\", nonce=\"%s\", qop=\"auth\", algorithm=MD5%s",
                                         realm, nonce_of(seconds_now()).data(), stale ? ", stale=true" : ""));
}

}  // namespace media::web
