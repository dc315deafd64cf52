// What a client makes of challenges as servers mean them (RFC 7235, 2.1 and RFC 7616, 3.3).
#pragma once

#include "auth/digest.h"

#include "inet/net_http_header.h"

#include <cstdint>
#include <string_view>

namespace auth {

struct algorithm_t {
    std::string_view name;
    hash_t hash;
    bool session;
};

struct qop_t {
    std::string_view name;
    bool covers_body;
};

/// The challenge of a server that is answered: with each request, until the next one comes.
class challenge {
public:
    /// Takes one of those in the WWW-Authenticate fields: the first Digest that can be computed, else Basic.
    /// @return false when there is neither, or memory is out; what was taken before then stays
    bool take(const net::http::header_s* header) noexcept;

    bool is_taken() const noexcept { return text_ != nullptr; }
    /// Whether it came for an answer that was right but for the age of its nonce.
    bool is_stale() const noexcept { return stale_; }

    /// The value of an Authorization field; null when memory is out.
    /// @param body  of the request, a text
    core::owned_text answer(std::string_view user, std::string_view password, std::string_view method,
                            std::string_view uri, std::string_view body = {}) noexcept;

private:
    struct said_t;
    class fields_reader;

    bool choose(const said_t& said) noexcept;

    core::owned_text text_;                   // of the field; what follows points into it
    const algorithm_t* algorithm_ = nullptr;  // null: Basic
    const qop_t* qop_ = nullptr;              // null: none was offered
    std::string_view realm_;
    std::string_view nonce_;
    std::string_view opaque_;
    bool has_opaque_ = false;
    bool stale_ = false;
    core::owned_text cnonce_;
    uint32_t count_ = 0;  // of answers to this nonce
};

}  // namespace auth
