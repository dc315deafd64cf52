// Digests and Base64 beside OpenSSL.
#include "common/digest.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <random>

TEST(Digest, AgreesWithOpenSslAtEveryLength) {
    std::mt19937 random(7);
    for (size_t i = 0; i < 400; ++i) {
        const size_t size = i < 300 ? i : random() % 30000;
        std::vector<uint8_t> in(size);
        in.reserve(1);  // the other one takes no null
        std::ranges::generate(in, [&random] { return static_cast<uint8_t>(random()); });
        uint8_t ours[100] = {}, theirs[100] = {};
        common_md5_bytes(in.data(), size, ours);
        common_sha256(in.data(), size, ours + 16);
        HMACsha256(in.data(), size / 2, in.data(), size, ours + 48);
        common_sha1(in.data(), size, ours + 80);
        EVP_Digest(in.data(), size, theirs, nullptr, EVP_md5(), nullptr);
        EVP_Digest(in.data(), size, theirs + 16, nullptr, EVP_sha256(), nullptr);
        HMAC(EVP_sha256(), in.data(), static_cast<int>(size / 2), in.data(), size, theirs + 48, nullptr);
        EVP_Digest(in.data(), size, theirs + 80, nullptr, EVP_sha1(), nullptr);
        ASSERT_TRUE(std::ranges::equal(ours, theirs)) << size;

        std::vector<uint8_t> coded((size + 2) / 3 * 4 + 1);
        EVP_EncodeBlock(coded.data(), in.data(), static_cast<int>(size));
        std::vector<uint8_t> place = in;  // the code may take the place of what it codes
        place.resize(coded.size());
        b64_encode(place.data(), size, reinterpret_cast<char*>(place.data()));
        ASSERT_EQ(place, coded);
        buf_t decoded;
        b64_decode(reinterpret_cast<char*>(coded.data()), coded.size() - 1, &decoded, CORE_HERE);
        ASSERT_EQ(std::vector(decoded.data, decoded.data + decoded.length), in);
        core_buf_free(&decoded);
    }
}
