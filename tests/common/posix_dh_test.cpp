// Key exchange and RC4 beside OpenSSL.
#include "common/dh.h"
#include "common/digest.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/rc4.h>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;
using big = core::owned<BIGNUM, BN_free>;

big group() { return big(BN_get_rfc2409_prime_1024(nullptr)); }

bytes to_bytes(const BIGNUM* number) {
    bytes out(DHWrapper::key_size);
    EXPECT_GE(BN_bn2binpad(number, out.data(), static_cast<int>(out.size())), 0);
    return out;
}

bytes power(const bytes& base, const bytes& exponent) {
    const core::owned<BN_CTX, BN_CTX_free> room(BN_CTX_new());
    const big b(BN_bin2bn(base.data(), static_cast<int>(base.size()), nullptr));
    const big e(BN_bin2bn(exponent.data(), static_cast<int>(exponent.size()), nullptr));
    const big result(BN_new()), prime = group();
    EXPECT_EQ(BN_mod_exp(result.get(), b.get(), e.get(), prime.get(), room.get()), 1);
    return to_bytes(result.get());
}

bytes less(BN_ULONG count) {
    const big number = group();
    BN_sub_word(number.get(), count);
    return to_bytes(number.get());
}

}  // namespace

TEST(KeyExchange, AgreesWithOpenSsl) {
    std::vector<bytes> exponents = {bytes(32, 0xFF), bytes(32, 0)};
    exponents.back().back() = 1;
    for (int i = 0; i < 20; ++i)
        common_random(exponents.emplace_back(32).data(), 32);
    bytes peer(DHWrapper::key_size);
    common_random(peer.data() + 1, peer.size() - 1);
    for (const bytes& exponent : exponents) {
        DHWrapper keys;
        keys.Initialize(exponent.data());
        bytes made(DHWrapper::key_size);
        ASSERT_TRUE(keys.CopyPublicKey(made.data(), DHWrapper::key_size));
        EXPECT_EQ(made, power({2}, exponent));
        for (const bytes& other : {peer, less(2), made}) {
            ASSERT_TRUE(keys.CreateSharedKey(other.data(), DHWrapper::key_size));
            bytes shared(DHWrapper::key_size);
            ASSERT_TRUE(keys.CopySharedKey(shared.data(), DHWrapper::key_size));
            EXPECT_EQ(shared, power(other, exponent));
        }
    }
}

TEST(KeyExchange, RefusesDegenerateKeys) {
    DHWrapper keys;
    bytes one(DHWrapper::key_size), out(DHWrapper::key_size);
    EXPECT_FALSE(keys.CreateSharedKey(less(2).data(), DHWrapper::key_size));
    keys.Initialize();
    one.back() = 1;
    for (const bytes& bad : {bytes(DHWrapper::key_size), one, less(1), less(0), bytes(DHWrapper::key_size, 0xFF)})
        EXPECT_FALSE(keys.CreateSharedKey(bad.data(), DHWrapper::key_size));
    EXPECT_FALSE(keys.CreateSharedKey(less(2).data(), DHWrapper::key_size - 1));
    EXPECT_FALSE(keys.CopySharedKey(out.data(), DHWrapper::key_size));
    EXPECT_FALSE(keys.CopyPublicKey(out.data(), 64));
}

TEST(Cipher, AgreesWithOpenSsl) {
    bytes data(3000);
    common_random(data.data(), data.size());
    for (const uint32_t size : {1U, 16U, 256U}) {
        bytes expected(data.size()), made = data;
        RC4_KEY oracle;
        RC4_set_key(&oracle, static_cast<int>(size), data.data());
        RC4(&oracle, data.size(), data.data(), expected.data());
        Rc4 cipher(data.data(), size);
        cipher.skip(1000);
        cipher.apply(data.data() + 1000, made.data() + 1000, 7);
        cipher.apply(made.data() + 1007, made.data() + 1007, made.size() - 1007);
        EXPECT_TRUE(std::equal(made.begin() + 1000, made.end(), expected.begin() + 1000));
    }
}
