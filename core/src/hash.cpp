#include "core/hash.h"

#include "hash/tables.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr size_t block_size = 64;

/// A number of 512 bits, its least significant word first.
using block = std::array<uint64_t, block_size / sizeof(uint64_t)>;

/// What a byte at each place of a word adds to the word that substitution and matrix make of it.
constexpr auto contributions = [] {
    std::array<std::array<uint64_t, 256>, 8> table{};
    for (size_t place = 0; place < table.size(); ++place) {
        for (size_t byte = 0; byte < 256; ++byte) {
            for (size_t bit = 0; bit < 8; ++bit) {
                if (core::gost::pi[byte] >> bit & 1) table[place][byte] ^= core::gost::matrix[63 - 8 * place - bit];
            }
        }
    }
    return table;
}();

constexpr auto schedule = [] {
    std::array<block, 12> blocks = core::gost::constants;
    for (block& words : blocks)
        std::ranges::reverse(words);
    return blocks;
}();

block load(const uint8_t* bytes) noexcept {
    block words{};
    for (size_t i = 0; i < block_size; ++i)
        words[i / 8] |= static_cast<uint64_t>(bytes[i]) << 8 * (i % 8);
    return words;
}

block operator^(const block& a, const block& b) noexcept {
    block words;
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = a[i] ^ b[i];
    return words;
}

/// Sum modulo 2^512.
block operator+(const block& a, const block& b) noexcept {
    block words;
    uint64_t carry = 0;
    for (size_t i = 0; i < words.size(); ++i) {
        const uint64_t carried = a[i] + carry;
        words[i] = carried + b[i];
        carry = static_cast<uint64_t>(carried < carry) | static_cast<uint64_t>(words[i] < b[i]);
    }
    return words;
}

/// Word `I` of what S, P and L of RFC 6986, section 7 make of a block: P transposes the 8 x 8 bytes, so that byte `I`
/// of each word comes here. Not a loop: compilers leave it rolled, with variable shifts, and clearly slower.
template <size_t I>
uint64_t transformed(const block& in) noexcept {
    const auto part = [&in](size_t place) { return contributions[place][in[place] >> 8 * I & 0xff]; };
    return part(0) ^ part(1) ^ part(2) ^ part(3) ^ part(4) ^ part(5) ^ part(6) ^ part(7);
}

block transform(const block& in) noexcept {
    return {transformed<0>(in), transformed<1>(in), transformed<2>(in), transformed<3>(in),
            transformed<4>(in), transformed<5>(in), transformed<6>(in), transformed<7>(in)};
}

/// The compression function g_N(h, m) (section 8).
block compress(const block& hash, const block& length, const block& message) noexcept {
    block key = transform(hash ^ length);
    block state = message;
    for (const block& constant : schedule) {
        state = transform(state ^ key);
        key = transform(key ^ constant);
    }
    return state ^ key ^ hash ^ message;
}

/// The three numbers that a message goes through (section 9).
struct progress {
    block hash;
    block length{};  // in bits
    block sum{};

    void add(const block& message, uint64_t bits) noexcept {
        hash = compress(hash, length, message);
        length = length + block{bits};
        sum = sum + message;
    }
};

}  // namespace

int core_hash_gost(const void* data, size_t size, uint8_t out[32]) noexcept {
    if (!out || (!data && size > 0)) return 0;
    progress message;
    message.hash.fill(0x0101010101010101);  // marks the result as one of 256 bits
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (; size >= block_size; size -= block_size, bytes += block_size)
        message.add(load(bytes), 8 * block_size);

    uint8_t tail[block_size] = {};
    if (size > 0) std::memcpy(tail, bytes, size);
    tail[size] = 1;
    message.add(load(tail), 8 * size);

    block hash = compress(message.hash, block{}, message.length);
    hash = compress(hash, block{}, message.sum);
    for (size_t i = 0; i < 32; ++i)
        out[i] = static_cast<uint8_t>(hash[4 + i / 8] >> 8 * (i % 8));
    return 1;
}
