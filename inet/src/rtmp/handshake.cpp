#include "rtmp/handshake.h"

#include "common/digest.h"
#include "core/time.h"

#include <algorithm>
#include <cstring>

namespace inet::rtmp {

namespace {

// Only the beginnings of the keys sign: the client's text and the server's text.
constexpr uint32_t client_text_size = 30;
constexpr uint32_t server_text_size = 36;

struct keys_t {
    uint8_t client[client_key_size];
    uint8_t server[server_key_size];
};

template <size_t Key, size_t Text>
constexpr void put(uint8_t (&key)[Key], const char (&text)[Text], const uint8_t (&binary)[32]) {
    static_assert(Key == Text - 1 + 32);
    std::copy_n(text, Text - 1, key);
    std::copy_n(binary, 32, key + Text - 1);
}

constexpr keys_t first_keys = [] {
    keys_t keys{};
    put(keys.client, "inet.rtmp.player.handshake.key",
        {0x3d, 0x91, 0x5e, 0xc4, 0x07, 0xfa, 0x68, 0x1b, 0xd2, 0x2c, 0x85, 0x79, 0xe0, 0x4f, 0xb6, 0x13,
         0xa8, 0x60, 0xcd, 0x36, 0x9b, 0x52, 0xf7, 0x0e, 0x81, 0x44, 0xda, 0x2f, 0x76, 0xbb, 0x18, 0xe5});
    put(keys.server, "inet.rtmp.station.handshake.key.0001",
        {0xc7, 0x12, 0x6b, 0xfe, 0x50, 0x99, 0x04, 0xad, 0x3b, 0xe8, 0x71, 0x26, 0xdf, 0x8c, 0x45, 0xb3,
         0x1a, 0xf4, 0x67, 0x9e, 0xc0, 0x2d, 0x58, 0x83, 0xea, 0x35, 0x7c, 0x0b, 0x96, 0xd1, 0x4e, 0xa2});
    return keys;
}();

keys_t keys_in_use = first_keys;

uint32_t offset(const uint8_t* packet, uint32_t sum_at, uint32_t places, uint32_t base) noexcept {
    const uint8_t* at = packet + sum_at;
    return (uint32_t{at[0]} + at[1] + at[2] + at[3]) % places + base;
}

/// HMAC of a packet without the digest that stands at `at`.
void digest_of(const uint8_t* packet, uint32_t at, const uint8_t* key, uint32_t key_bytes,
               uint8_t (&out)[digest_size]) noexcept {
    uint8_t rest[packet_size - digest_size];
    std::memcpy(rest, packet, at);
    std::memcpy(rest + at, packet + at + digest_size, sizeof rest - at);
    HMACsha256(key, key_bytes, rest, sizeof rest, out);
}

void put_time(uint8_t* packet) noexcept {
    const auto seconds = static_cast<uint32_t>(time_now() / 1000000);
    for (uint32_t i = 0; i < 4; ++i)
        packet[i] = static_cast<uint8_t>(seconds >> (24 - 8 * i));
    std::memset(packet + 4, 0, 4);
}

Rc4 cipher(const uint8_t (&shared)[DHWrapper::key_size], const uint8_t* public_key) noexcept {
    uint8_t key[digest_size];
    HMACsha256(shared, sizeof shared, public_key, DHWrapper::key_size, key);
    Rc4 made(key, 16);
    made.skip(packet_size);
    return made;
}

}  // namespace

void replace_keys(const uint8_t* client, const uint8_t* server) noexcept {
    std::memcpy(keys_in_use.client, client ? client : first_keys.client, client_key_size);
    std::memcpy(keys_in_use.server, server ? server : first_keys.server, server_key_size);
}

uint32_t digest_offset(const uint8_t* packet, uint8_t scheme) noexcept {
    return scheme == 0 ? offset(packet, 8, 728, 12) : offset(packet, 772, 728, 776);
}

uint32_t key_offset(const uint8_t* packet, uint8_t scheme) noexcept {
    return scheme == 0 ? offset(packet, 1532, 632, 772) : offset(packet, 768, 632, 8);
}

bool is_signed(packet_t client, uint8_t scheme) noexcept {
    const uint32_t at = digest_offset(client.data(), scheme);
    uint8_t digest[digest_size];
    digest_of(client.data(), at, keys_in_use.client, client_text_size, digest);
    return std::memcmp(digest, client.data() + at, digest_size) == 0;
}

void put_simple_answer(std::span<uint8_t, packet_size> out) noexcept {
    put_time(out.data());
    common_random(out.data() + 8, out.size() - 8);
}

void put_signed_answer(std::span<uint8_t, answer_size> out, packet_t client, uint8_t scheme,
                       const DHWrapper* key_exchange) noexcept {
    put_time(out.data());
    common_random(out.data() + 8, out.size() - 8);
    if (key_exchange) key_exchange->CopyPublicKey(out.data() + key_offset(out.data(), scheme), DHWrapper::key_size);

    const uint32_t at = digest_offset(out.data(), scheme);
    uint8_t digest[digest_size];
    digest_of(out.data(), at, keys_in_use.server, server_text_size, digest);
    std::memcpy(out.data() + at, digest, digest_size);

    // The second packet is signed with a key that depends on the client's digest.
    uint8_t key[digest_size];
    HMACsha256(keys_in_use.server, server_key_size, client.data() + digest_offset(client.data(), scheme), digest_size,
               key);
    uint8_t* const second = out.data() + packet_size;
    HMACsha256(key, sizeof key, second, packet_size - digest_size, second + packet_size - digest_size);
}

std::optional<ciphers_t> agree(packet_t client, uint8_t scheme, DHWrapper& key_exchange) noexcept {
    const uint8_t* const theirs = client.data() + key_offset(client.data(), scheme);
    uint8_t shared[DHWrapper::key_size], ours[DHWrapper::key_size];
    key_exchange.Initialize();
    if (!key_exchange.CreateSharedKey(theirs, DHWrapper::key_size)) return std::nullopt;
    key_exchange.CopySharedKey(shared, sizeof shared);
    key_exchange.CopyPublicKey(ours, sizeof ours);
    return ciphers_t{cipher(shared, ours), cipher(shared, theirs)};
}

}  // namespace inet::rtmp
