// Digests and Base64 beside OpenSSL.
#include "common/digest.h"
#include "core/memory.h"
#include "core/owned.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <random>
#include <string>

namespace {

TEST(Digest, AgreesWithOpenSslAtEveryLength) {
    std::mt19937 random(7);
    for (size_t i = 0; i < 400; ++i) {
        const size_t size = i < 300 ? i : random() % 30000;
        SCOPED_TRACE(size);
        std::string input(size, '\0');
        std::ranges::generate(input, [&] { return static_cast<char>(random()); });
        const auto* bytes = reinterpret_cast<const unsigned char*>(input.data());
        const size_t key_size = size / 2;
        unsigned char ours[80] = {};
        common_md5_bytes(input.data(), size, ours);
        common_sha256(input.data(), size, ours + 16);
        HMACsha256(input.data(), key_size, input.data(), size, ours + 48);
        unsigned char theirs[80] = {};
        EVP_Digest(input.data(), size, theirs, nullptr, EVP_md5(), nullptr);
        EVP_Digest(input.data(), size, theirs + 16, nullptr, EVP_sha256(), nullptr);
        HMAC(EVP_sha256(), bytes, static_cast<int>(key_size), bytes, size, theirs + 48, nullptr);
        ASSERT_TRUE(std::ranges::equal(ours, theirs));

        std::string coded(size * 4 / 3 + 5, '\0');
        coded.resize(static_cast<size_t>(
            EVP_EncodeBlock(reinterpret_cast<unsigned char*>(coded.data()), bytes, static_cast<int>(size))));
        ASSERT_EQ(core::owned_text(b64(input.data(), size, CORE_HERE)).get(), coded);
        buf_t decoded;
        ASSERT_EQ(b64_decode(coded.data(), coded.size(), &decoded, CORE_HERE), size);
        ASSERT_TRUE(std::equal(bytes, bytes + size, decoded.data));
        core_buf_free(&decoded);
        // The code may take the place of what it codes.
        input.resize(coded.size());
        b64_encode(input.data(), size, input.data());
        ASSERT_EQ(input, coded);
    }
}

}  // namespace
