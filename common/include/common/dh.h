/// Diffie-Hellman key exchange (RFC 2631) in the 1024-bit group 2 of RFC 2409, section 6.2, with the generator 2; and
/// the stream cipher RC4. Both are what encrypted RTMP asks for, and too weak for anything new. Any thread; an object
/// belongs to one thread at a time.
#pragma once

#include "core/api.h"

#include <cstdint>

class INET_API DHWrapper {
public:
    /// Bytes of a public key and of the shared key: big-endian, with leading zeros.
    static constexpr uint32_t key_size = 128;

    DHWrapper() noexcept = default;
    /// Wipes the keys.
    ~DHWrapper();
    DHWrapper(const DHWrapper&) = delete;
    DHWrapper& operator=(const DHWrapper&) = delete;

    /// Makes a private key of 256 random bits, and its public key. Takes about a millisecond, as does
    /// CreateSharedKey().
    void Initialize() noexcept;
    /// The same with a given private key: 32 bytes, big-endian.
    void Initialize(const uint8_t private_key[32]) noexcept;

    /// Computes the shared key from the public key of the peer. @return false without Initialize(), for a size other
    /// than key_size, and for a public key that is 0, 1, or the prime less one or above: it would make a shared key
    /// that everybody knows.
    bool CreateSharedKey(const uint8_t* peer_public_key, uint32_t size) noexcept;

    /// Copy `key_size` bytes. @return false for another size, or before there is a key.
    bool CopyPublicKey(uint8_t* out, uint32_t size) const noexcept;
    bool CopySharedKey(uint8_t* out, uint32_t size) const noexcept;

private:
    uint8_t private_[32] = {};
    uint8_t public_[key_size] = {};
    uint8_t shared_[key_size] = {};
    bool has_public_ = false;
    bool has_shared_ = false;
};

/// The key stream of RC4.
class INET_API Rc4 {
public:
    /// @param size  1 to 256 bytes; for another size the cipher changes nothing
    Rc4(const uint8_t* key, uint32_t size) noexcept;

    /// Ciphers bytes into `out`, which may be `data`. The same call deciphers.
    void apply(const uint8_t* data, uint8_t* out, uint64_t size) noexcept;
    /// Runs off bytes of the key stream.
    void skip(uint32_t count) noexcept;

private:
    template <class Use>
    void run(uint64_t count, Use use) noexcept;

    uint32_t state_[256];  // bytes; words are quicker
    uint32_t i_ = 0, j_ = 0;
    bool keyed_ = false;
};
