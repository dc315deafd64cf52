// The gate of the service: Digest answers to nonces that need no memory.
#pragma once

#include "core/owned.h"
#include "inet/net_http_header.h"

#include <array>
#include <cstdint>

namespace media::web {

/// A nonce tells when it was made, and is signed: any thread knows its own again. One is good for five minutes.
class gate {
public:
    enum class result_t : uint8_t { passes, refused, stale };

    /// The texts are valid as long as the gate. Without a user everything passes.
    gate(const char* user, const char* password) noexcept;

    result_t judge(const net::http::header_s& request) const noexcept;
    /// The value of a WWW-Authenticate field; null when memory is out.
    core::owned_text challenge(bool stale) const noexcept;

private:
    using nonce_t = std::array<char, 49>;  ///< 16 digits of the time, 32 of the signature
    nonce_t nonce_of(uint64_t seconds) const noexcept;

    const char* user_;
    const char* password_;
    uint8_t secret_[32];
};

}  // namespace media::web
