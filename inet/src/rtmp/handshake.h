// The server's side of the RTMP handshake, as far as it needs no session: digests and keys in packets, and the answer.
#pragma once

#include "common/dh.h"
#include "inet/rtmp_protocol.h"

#include <cstdint>
#include <optional>
#include <span>

namespace inet::rtmp {

inline constexpr uint32_t packet_size = 1536;
inline constexpr uint32_t answer_size = 3072;  // both packets of the server
inline constexpr uint32_t digest_size = 32;
inline constexpr uint8_t plain_version = 3;
inline constexpr uint8_t encrypted_version = 6;

using packet_t = std::span<const uint8_t, packet_size>;

void replace_keys(const uint8_t* client, const uint8_t* server) noexcept;

uint32_t digest_offset(const uint8_t* packet, uint8_t scheme) noexcept;
uint32_t key_offset(const uint8_t* packet, uint8_t scheme) noexcept;

// Whether the client's digest stands in its packet as the scheme says.
bool is_signed(packet_t client, uint8_t scheme) noexcept;

// The first packet without a digest: the time, and random bytes.
void put_simple_answer(std::span<uint8_t, packet_size> out) noexcept;

// Both packets. `key_exchange` puts in the public key of an encrypted connection.
void put_signed_answer(std::span<uint8_t, answer_size> out, packet_t client, uint8_t scheme,
                       const DHWrapper* key_exchange) noexcept;

// The ciphers of an encrypted connection, ready for its first byte.
struct ciphers_t {
    Rc4 in, out;
};

// Agrees on keys with the client. Nothing when its public key is a degenerate one.
std::optional<ciphers_t> agree(packet_t client, uint8_t scheme, DHWrapper& key_exchange) noexcept;

}  // namespace inet::rtmp
