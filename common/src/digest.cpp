#include "common/digest.h"

#include "platform/system.h"

#include "core/memory.h"
#include "core/text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t block_size = 64;  // of all three hashes

enum class order : uint8_t { little, big };

/// Position in a word of its byte `i`, in bits.
template <order O>
constexpr size_t shift_of(size_t i, size_t word_size) noexcept {
    return 8 * (O == order::little ? i : word_size - 1 - i);
}

template <order O>
uint32_t load(const uint8_t* bytes) noexcept {
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i)
        word |= static_cast<uint32_t>(bytes[i]) << shift_of<O>(i, 4);
    return word;
}

template <order O, class Word>
void store(Word word, uint8_t* out) noexcept {
    for (size_t i = 0; i < sizeof(Word); ++i)
        out[i] = static_cast<uint8_t>(word >> shift_of<O>(i, sizeof(Word)));
}

/// RFC 1321, section 3.4: a function of three words, and for each step a constant (2^32 times the sine of its number)
/// and a turn.
class md5 {
public:
    static constexpr order byte_order = order::little;
    std::array<uint32_t, 4> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

    void add_block(const uint8_t* block) noexcept {
        uint32_t words[16];
        for (size_t i = 0; i < 16; ++i)
            words[i] = load<byte_order>(block + 4 * i);
        const auto before = state;
        round<0, 1, 0>(words, [](uint32_t x, uint32_t y, uint32_t z) { return z ^ (x & (y ^ z)); });
        round<1, 5, 1>(words, [](uint32_t x, uint32_t y, uint32_t z) { return y ^ (z & (x ^ y)); });
        round<2, 3, 5>(words, [](uint32_t x, uint32_t y, uint32_t z) { return x ^ y ^ z; });
        round<3, 7, 0>(words, [](uint32_t x, uint32_t y, uint32_t z) { return y ^ (x | ~z); });
        for (size_t i = 0; i < 4; ++i)
            state[i] += before[i];
    }

private:
    /// Sixteen steps; they take the words in strides of `Stride` from `First` on.
    template <size_t Round, size_t Stride, size_t First, class Mix>
    void round(const uint32_t* words, Mix mix) noexcept {
        auto [a, b, c, d] = state;
        for (size_t i = 0; i < 16; ++i) {
            const uint32_t sum = a + mix(b, c, d) + words[(First + Stride * i) % 16] + sines[16 * Round + i];
            a = d;
            d = c;
            c = b;
            b += std::rotl(sum, turns[Round][i % 4]);
        }
        state = {a, b, c, d};
    }

    static constexpr int turns[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
    static constexpr uint32_t sines[64] = {
        0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
        0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
        0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
        0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
        0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
        0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
        0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
        0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
    };
};

/// FIPS 180-4, section 6.1.
class sha1 {
public:
    static constexpr order byte_order = order::big;
    std::array<uint32_t, 5> state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476, 0xc3d2e1f0};

    void add_block(const uint8_t* block) noexcept {
        uint32_t words[80];
        for (size_t i = 0; i < 16; ++i)
            words[i] = load<byte_order>(block + 4 * i);
        for (size_t i = 16; i < 80; ++i)
            words[i] = std::rotl(words[i - 3] ^ words[i - 8] ^ words[i - 14] ^ words[i - 16], 1);
        auto [a, b, c, d, e] = state;
        for (size_t i = 0; i < 80; ++i) {
            const uint32_t sum = std::rotl(a, 5) + mix(i / 20, b, c, d) + e + constants[i / 20] + words[i];
            e = d;
            d = c;
            c = std::rotl(b, 30);
            b = a;
            a = sum;
        }
        const std::array<uint32_t, 5> added = {a, b, c, d, e};
        for (size_t i = 0; i < 5; ++i)
            state[i] += added[i];
    }

private:
    static uint32_t mix(size_t round, uint32_t x, uint32_t y, uint32_t z) noexcept {
        if (round == 0) return z ^ (x & (y ^ z));
        return round == 2 ? (x & y) ^ (x & z) ^ (y & z) : x ^ y ^ z;
    }

    static constexpr uint32_t constants[4] = {0x5a827999, 0x6ed9eba1, 0x8f1bbcdc, 0xca62c1d6};
};

/// FIPS 180-4, section 6.2.
class sha256 {
public:
    static constexpr order byte_order = order::big;
    std::array<uint32_t, 8> state = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

    void add_block(const uint8_t* block) noexcept {
        uint32_t schedule[64];
        expand(block, schedule);
        auto [a, b, c, d, e, f, g, h] = state;
        for (size_t i = 0; i < 64; ++i) {
            const uint32_t sum1 = std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25);
            const uint32_t first = h + sum1 + (g ^ (e & (f ^ g))) + constants[i] + schedule[i];
            const uint32_t sum0 = std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22);
            const uint32_t second = sum0 + ((a & b) ^ (a & c) ^ (b & c));
            h = g;
            g = f;
            f = e;
            e = d + first;
            d = c;
            c = b;
            b = a;
            a = first + second;
        }
        const std::array<uint32_t, 8> added = {a, b, c, d, e, f, g, h};
        for (size_t i = 0; i < 8; ++i)
            state[i] += added[i];
    }

private:
    static void expand(const uint8_t* block, uint32_t (&schedule)[64]) noexcept {
        for (size_t i = 0; i < 16; ++i)
            schedule[i] = load<byte_order>(block + 4 * i);
        for (size_t i = 16; i < 64; ++i) {
            const uint32_t w15 = schedule[i - 15];
            const uint32_t w2 = schedule[i - 2];
            const uint32_t sigma0 = std::rotr(w15, 7) ^ std::rotr(w15, 18) ^ (w15 >> 3);
            const uint32_t sigma1 = std::rotr(w2, 17) ^ std::rotr(w2, 19) ^ (w2 >> 10);
            schedule[i] = schedule[i - 16] + sigma0 + schedule[i - 7] + sigma1;
        }
    }

    static constexpr uint32_t constants[64] = {
        0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
        0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
        0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
        0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
        0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
        0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
        0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
        0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2,
    };
};

/// Adds the rest of a message to a hash that took `before` bytes, whole blocks, and writes the digest. All hashes pad
/// alike: a one bit, zeros, and the message's length in bits in the last eight bytes.
template <class Hash>
void finish(Hash hash, const void* data, size_t size, uint64_t before, uint8_t* out) noexcept {
    const auto* bytes = static_cast<const uint8_t*>(data);
    const uint64_t bits = (before + size) * 8;
    for (; size >= block_size; size -= block_size, bytes += block_size)
        hash.add_block(bytes);

    uint8_t tail[2 * block_size] = {};
    if (size > 0) std::memcpy(tail, bytes, size);
    tail[size] = 0x80;
    const size_t padded = size + 1 + sizeof(bits) <= block_size ? block_size : 2 * block_size;
    store<Hash::byte_order>(bits, tail + padded - sizeof(bits));
    for (size_t at = 0; at < padded; at += block_size)
        hash.add_block(tail + at);

    for (size_t i = 0; i < hash.state.size(); ++i)
        store<Hash::byte_order>(hash.state[i], out + 4 * i);
}

/// A hash that has taken the key with every byte changed by `pad` (RFC 2104, section 2).
sha256 keyed(const uint8_t* key, uint8_t pad) noexcept {
    uint8_t block[block_size];
    for (size_t i = 0; i < block_size; ++i)
        block[i] = key[i] ^ pad;
    sha256 hash;
    hash.add_block(block);
    return hash;
}

constexpr std::string_view base64_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t base64_end = 64;
constexpr uint8_t base64_blank = 65;

/// What a character is to the decoder: its six bits, a blank, or the end.
constexpr auto base64_values = [] {
    std::array<uint8_t, 256> values{};
    values.fill(base64_end);
    for (size_t i = 0; i < base64_digits.size(); ++i)
        values[static_cast<uint8_t>(base64_digits[i])] = static_cast<uint8_t>(i);
    for (const char blank : {' ', '\t', '\r', '\n'})
        values[static_cast<uint8_t>(blank)] = base64_blank;
    return values;
}();

/// Four digits of up to three bytes, padded.
void encode_group(const uint8_t* bytes, size_t size, char* out) noexcept {
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i)
        bits = bits << 8 | (i < size ? bytes[i] : 0u);
    for (size_t i = 0; i < 4; ++i)
        out[i] = i <= size ? base64_digits[bits >> (18 - 6 * i) & 63] : '=';
}

}  // namespace

void common_md5_bytes(const void* data, size_t size, uint8_t out[16]) noexcept { finish(md5(), data, size, 0, out); }

char* common_md5(const char* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    uint8_t digest[16];
    common_md5_bytes(text, std::strlen(text), digest);
    return core_strhex(digest, sizeof(digest), file, line);
}

void common_sha1(const void* data, size_t size, uint8_t out[20]) noexcept { finish(sha1(), data, size, 0, out); }

void common_sha256(const void* data, size_t size, uint8_t out[32]) noexcept { finish(sha256(), data, size, 0, out); }

void HMACsha256(const void* key, size_t key_size, const void* data, size_t size, uint8_t out[32]) noexcept {
    uint8_t block[block_size] = {};
    if (key_size > block_size)
        common_sha256(key, key_size, block);
    else if (key_size > 0)
        std::memcpy(block, key, key_size);
    uint8_t inner[32];
    finish(keyed(block, 0x36), data, size, block_size, inner);
    finish(keyed(block, 0x5c), inner, sizeof(inner), block_size, out);
}

char* b64(const void* data, size_t size, const char* file, int line) noexcept {
    if ((!data && size > 0) || size > SIZE_MAX / 2) return nullptr;
    const size_t length = (size + 2) / 3 * 4;
    auto* text = static_cast<char*>(core_malloc(length + 1, file, line));
    if (!text) return nullptr;
    b64_encode(data, size, text);
    text[length] = '\0';
    return text;
}

// From the back, so that what is read is not yet written over.
void b64_encode(const void* data, size_t size, char* text) noexcept {
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t group = (size + 2) / 3; group-- > 0;)
        encode_group(bytes + 3 * group, std::min<size_t>(size - 3 * group, 3), text + 4 * group);
}

uint32_t b64_decode(const char* text, size_t size, buf_t* out, const char* file, int line) noexcept {
    if (!text || !out || size == 0 || size / 4 >= UINT32_MAX / 3) return 0;
    if (!core_buf_respace(out, static_cast<uint32_t>((size / 4 + 1) * 3), file, line)) return 0;
    uint8_t* const start = out->data + out->length;
    uint8_t* at = start;
    uint32_t bits = 0;
    int held = 0;  // of `bits`, those not written yet
    for (size_t i = 0; i < size; ++i) {
        const uint8_t value = base64_values[static_cast<uint8_t>(text[i])];
        if (value == base64_blank) continue;
        if (value == base64_end) break;
        bits = bits << 6 | value;
        held += 6;
        if (held < 8) continue;
        held -= 8;
        *at++ = static_cast<uint8_t>(bits >> held);
    }
    const auto appended = static_cast<uint32_t>(at - start);
    out->length += appended;
    return appended;
}

char* common_srand(uint32_t length, const char* file, int line) noexcept {
    constexpr size_t letters = 62;  // the digits of Base64 but for the last two
    auto* text = static_cast<char*>(core_malloc(size_t{length} + 1, file, line));
    if (!text) return nullptr;
    uint8_t random[256];
    for (size_t made = 0; made < length;) {
        const size_t wanted = std::min<size_t>(sizeof(random), length - made);
        common_random(random, wanted);
        for (size_t i = 0; i < wanted; ++i) {
            // 248 to 255 would make the first letters likelier than the others.
            if (random[i] < 256 / letters * letters) text[made++] = base64_digits[random[i] % letters];
        }
    }
    text[length] = '\0';
    return text;
}

void common_random(void* out, size_t size) noexcept {
    if (common::platform::fill_random(out, size)) return;
    std::fputs("inet: the system gives no random bytes\n", stderr);
    std::abort();
}
