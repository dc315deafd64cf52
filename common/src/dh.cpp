#include "common/dh.h"

#include "common/digest.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <numeric>
#include <utility>

namespace {

// Numbers of 1024 bits, least significant word first. Products are made in Montgomery form (x * 2^1024 modulo the
// prime): reducing a product then needs only products and a shift, no division. The least significant word of the prime
// is 2^32 - 1, so the factor that clears a word is that word itself.
constexpr size_t words = DHWrapper::key_size / 4;
using number = std::array<uint32_t, words>;

constexpr number prime = {
    0xFFFFFFFF, 0xFFFFFFFF, 0xECE65381, 0x49286651, 0x7C4B1FE6, 0xAE9F2411, 0x5A899FA5, 0xEE386BFB,
    0xF406B7ED, 0x0BFF5CB6, 0xA637ED6B, 0xF44C42E9, 0x625E7EC6, 0xE485B576, 0x6D51C245, 0x4FE1356D,
    0xF25F1437, 0x302B0A6D, 0xCD3A431B, 0xEF9519B3, 0x8E3404DD, 0x514A0879, 0x3B139B22, 0x020BBEA6,
    0x8A67CC74, 0x29024E08, 0x80DC1CD1, 0xC4C6628B, 0x2168C234, 0xC90FDAA2, 0xFFFFFFFF, 0xFFFFFFFF,
};

number load(const uint8_t* bytes) noexcept {
    number x;
    for (size_t i = 0; i < words; ++i) {
        const uint8_t* at = bytes + 4 * (words - 1 - i);
        x[i] = uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
    }
    return x;
}

void store(const number& x, uint8_t* bytes) noexcept {
    for (size_t i = 0; i < DHWrapper::key_size; ++i)
        bytes[i] = static_cast<uint8_t>(x[words - 1 - i / 4] >> (24 - 8 * (i % 4)));
}

/// x less y into `out`. @return 1 when y is larger
uint32_t subtract(const number& x, const number& y, number& out) noexcept {
    uint64_t borrow = 0;
    for (size_t i = 0; i < words; ++i) {
        const uint64_t difference = uint64_t{x[i]} - y[i] - borrow;
        out[i] = static_cast<uint32_t>(difference);
        borrow = difference >> 63;
    }
    return static_cast<uint32_t>(borrow);
}

/// `yes` where `choice` is 1, else `no`, without a branch: which one it is is secret.
number choose(uint32_t choice, const number& yes, const number& no) noexcept {
    const uint32_t mask = 0U - choice;
    number out;
    for (size_t i = 0; i < words; ++i)
        out[i] = (yes[i] & mask) | (no[i] & ~mask);
    return out;
}

/// A sum below twice the prime, whose bit 1024 is `carry`, modulo the prime.
number reduce(const number& sum, uint32_t carry) noexcept {
    number less;
    const uint32_t borrow = subtract(sum, prime, less);
    return choose(carry | (borrow ^ 1), less, sum);
}

number twice(const number& x) noexcept {
    number sum;
    uint32_t carry = 0;
    for (size_t i = 0; i < words; ++i) {
        sum[i] = x[i] << 1 | carry;
        carry = x[i] >> 31;
    }
    return reduce(sum, carry);
}

/// x * y / 2^1024 modulo the prime.
number multiply(const number& x, const number& y) noexcept {
    std::array<uint32_t, words + 2> sum{};
    const auto add_product = [&](uint32_t factor, const number& other) {
        uint64_t carry = 0;
        for (size_t i = 0; i < words; ++i) {
            carry += uint64_t{factor} * other[i] + sum[i];
            sum[i] = static_cast<uint32_t>(carry);
            carry >>= 32;
        }
        carry += sum[words];
        sum[words] = static_cast<uint32_t>(carry);
        sum[words + 1] += static_cast<uint32_t>(carry >> 32);
    };
    for (const uint32_t word : x) {
        add_product(word, y);
        add_product(sum[0], prime);
        std::shift_left(sum.begin(), sum.end(), 1);  // the lowest word has become 0
        sum[words + 1] = 0;
    }
    number low;
    std::copy_n(sum.begin(), words, low.begin());
    return reduce(low, sum[words]);
}

number to_montgomery(number x) noexcept {
    for (size_t i = 0; i < 32 * words; ++i)
        x = twice(x);
    return x;
}

/// A power of a number below the prime, in steps that do not depend on the bits of the exponent.
number power(const number& base, const uint8_t (&exponent)[32]) noexcept {
    const number factor = to_montgomery(base);
    number result = to_montgomery({1});
    for (size_t i = 0; i < 8 * sizeof exponent; ++i) {
        result = multiply(result, result);
        const uint32_t bit = exponent[i / 8] >> (7 - i % 8) & 1U;
        result = choose(bit, multiply(result, factor), result);
    }
    return multiply(result, {1});
}

/// Overwrites secrets, also where the compiler sees that nobody reads them any more.
void wipe(void* bytes, size_t size) noexcept {
    auto* at = static_cast<volatile uint8_t*>(bytes);
    for (size_t i = 0; i < size; ++i)
        at[i] = 0;
}

}  // namespace

DHWrapper::~DHWrapper() {
    wipe(private_, sizeof private_);
    wipe(shared_, sizeof shared_);
}

void DHWrapper::Initialize() noexcept {
    uint8_t random[sizeof private_];
    common_random(random, sizeof random);
    Initialize(random);
    wipe(random, sizeof random);
}

void DHWrapper::Initialize(const uint8_t private_key[32]) noexcept {
    std::memcpy(private_, private_key, sizeof private_);
    store(power({2}, private_), public_);
    has_public_ = true;
    has_shared_ = false;
}

bool DHWrapper::CreateSharedKey(const uint8_t* peer_public_key, uint32_t size) noexcept {
    has_shared_ = false;
    if (!has_public_ || !peer_public_key || size != key_size) return false;
    const number key = load(peer_public_key);
    number last = prime;
    --last[0];
    number ignored;
    const bool in_range = subtract(key, {2}, ignored) == 0 && subtract(key, last, ignored) == 1;
    if (!in_range) return false;
    store(power(key, private_), shared_);
    has_shared_ = true;
    return true;
}

bool DHWrapper::CopyPublicKey(uint8_t* out, uint32_t size) const noexcept {
    if (!has_public_ || !out || size != key_size) return false;
    std::memcpy(out, public_, key_size);
    return true;
}

bool DHWrapper::CopySharedKey(uint8_t* out, uint32_t size) const noexcept {
    if (!has_shared_ || !out || size != key_size) return false;
    std::memcpy(out, shared_, key_size);
    return true;
}

Rc4::Rc4(const uint8_t* key, uint32_t size) noexcept {
    std::iota(std::begin(state_), std::end(state_), 0U);
    if (!key || size == 0 || size > std::size(state_)) return;
    keyed_ = true;
    uint32_t j = 0;
    for (uint32_t i = 0; i < std::size(state_); ++i) {
        j = (j + state_[i] + key[i % size]) & 0xFF;
        std::swap(state_[i], state_[j]);
    }
}

// The indexes are kept in locals: written through bytes, members would be stored and loaded for each.
template <class Use>
void Rc4::run(uint64_t count, Use use) noexcept {
    if (!keyed_) return;
    uint32_t i = i_, j = j_;
    for (uint64_t n = 0; n < count; ++n) {
        i = (i + 1) & 0xFF;
        const uint32_t a = state_[i];
        j = (j + a) & 0xFF;
        const uint32_t b = state_[j];
        state_[i] = b;
        state_[j] = a;
        use(n, static_cast<uint8_t>(state_[(a + b) & 0xFF]));
    }
    i_ = i;
    j_ = j;
}

void Rc4::apply(const uint8_t* data, uint8_t* out, uint64_t size) noexcept {
    if (!keyed_ && out != data && size > 0) std::memmove(out, data, size);
    run(size, [&](uint64_t n, uint8_t byte) { out[n] = static_cast<uint8_t>(data[n] ^ byte); });
}

void Rc4::skip(uint32_t count) noexcept {
    run(count, [](uint64_t, uint8_t) {});
}
