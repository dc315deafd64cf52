#include "auth/digest.h"

#include "common/digest.h"
#include "core/memory.h"

#include <cstring>
#include <span>

namespace auth {

namespace {

hex_t hash(hash_t with, std::initializer_list<std::string_view> parts) noexcept {
    constexpr std::string_view digits = "0123456789abcdef";
    hex_t out;
    const core::owned_text text = join(parts);
    if (!text) return out;
    uint8_t bytes[32];
    const bool is_md5 = with == hash_t::md5;
    if (is_md5) {
        common_md5_bytes(text.get(), std::strlen(text.get()), bytes);
    } else {
        common_sha256(text.get(), std::strlen(text.get()), bytes);
    }
    char* at = out.text;
    for (const uint8_t byte : std::span(bytes, is_md5 ? 16 : 32)) {
        *at++ = digits[byte >> 4];
        *at++ = digits[byte & 15];
    }
    return out;
}

}  // namespace

core::owned_text join(std::initializer_list<std::string_view> parts) noexcept {
    size_t size = 0;
    for (const std::string_view part : parts)
        size += part.size() + 1;
    core::owned_text joined(static_cast<char*>(core_malloc(size, CORE_HERE)));
    if (!joined) return joined;
    char* out = joined.get();
    for (const std::string_view part : parts) {
        out += part.copy(out, part.size());
        *out++ = ':';
    }
    out[-1] = '\0';
    return joined;
}

hex_t digest_response(const digest_input& in) noexcept {
    hex_t secret = hash(in.hash, {in.user, in.realm, in.password});
    if (secret && in.session) secret = hash(in.hash, {secret, in.nonce, in.cnonce});
    const hex_t body = in.covers_body ? hash(in.hash, {in.body}) : hex_t();
    const hex_t request =
        in.covers_body ? hash(in.hash, {in.method, in.uri, body}) : hash(in.hash, {in.method, in.uri});
    if (!secret || !request || (in.covers_body && !body)) return {};
    if (!in.qop) return hash(in.hash, {secret, in.nonce, request});
    return hash(in.hash, {secret, in.nonce, in.nc, in.cnonce, *in.qop, request});
}

}  // namespace auth
