// What a Digest answer is computed from and with (RFC 7616, 3.4).
#pragma once

#include "core/owned.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>

namespace auth {

enum class hash_t : uint8_t { md5, sha256 };

/// A digest in hexadecimal; empty when memory is out.
struct hex_t {
    char text[65] = {};

    explicit operator bool() const noexcept { return text[0] != '\0'; }
    operator std::string_view() const noexcept { return text; }
};

/// Texts with ':' between them; null when memory is out. There is one at least.
core::owned_text join(std::initializer_list<std::string_view> parts) noexcept;

struct digest_input {
    std::string_view user;
    std::string_view password;
    std::string_view realm;
    std::string_view nonce;
    std::string_view method;
    std::string_view uri;
    std::optional<std::string_view> qop;
    std::string_view nc;
    std::string_view cnonce;

    hash_t hash = hash_t::md5;
    bool session = false;        ///< one of the algorithms named "-sess"
    bool covers_body = false;    ///< of "auth-int": the body counts
    std::string_view body = {};  ///< a text
};

hex_t digest_response(const digest_input& in) noexcept;

}  // namespace auth
