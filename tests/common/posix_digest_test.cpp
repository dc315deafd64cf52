// Digests and Base64 beside OpenSSL.
#include "common/digest.h"
#include "core/memory.h"
#include "core/owned.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::array<uint8_t, 16> md5(std::string_view text) {
    std::array<uint8_t, 16> out;
    common_md5_bytes(text.data(), text.size(), out.data());
    return out;
}

std::array<uint8_t, 32> sha256(std::string_view text) {
    std::array<uint8_t, 32> out;
    common_sha256(text.data(), text.size(), out.data());
    return out;
}

std::array<uint8_t, 32> hmac(std::string_view key, std::string_view text) {
    std::array<uint8_t, 32> out;
    HMACsha256(key.data(), key.size(), text.data(), text.size(), out.data());
    return out;
}

std::string encode(std::string_view bytes) {
    return core::owned_text(b64(bytes.data(), bytes.size(), CORE_HERE)).get();
}

std::string decode(std::string_view text) {
    buf_t out;
    const uint32_t appended = b64_decode(text.data(), text.size(), &out, CORE_HERE);
    EXPECT_EQ(appended, out.length);
    std::string bytes(reinterpret_cast<char*>(out.data), out.length);
    core_buf_free(&out);
    return bytes;
}

TEST(Digest, AgreesWithOpenSslAtEveryLength) {
    std::mt19937 random(7);
    for (size_t size = 0; size < 400; ++size) {
        const size_t length = size < 300 ? size : random() % 100000;
        std::string input(length, '\0');
        std::ranges::generate(input, [&] { return static_cast<char>(random()); });
        std::array<uint8_t, 16> want_md5;
        std::array<uint8_t, 32> want_sha, want_hmac;
        unsigned written = 0;
        EVP_Digest(input.data(), length, want_md5.data(), nullptr, EVP_md5(), nullptr);
        EVP_Digest(input.data(), length, want_sha.data(), nullptr, EVP_sha256(), nullptr);
        const std::string_view key = std::string_view(input).substr(0, length / 2);
        HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(input.data()), length, want_hmac.data(), &written);
        ASSERT_EQ(md5(input), want_md5) << length;
        ASSERT_EQ(sha256(input), want_sha) << length;
        ASSERT_EQ(hmac(key, input), want_hmac) << length;

        std::vector<unsigned char> want_b64(length * 4 / 3 + 5);
        EVP_EncodeBlock(want_b64.data(), reinterpret_cast<const unsigned char*>(input.data()),
                        static_cast<int>(length));
        const std::string text = encode(input);
        ASSERT_EQ(text, reinterpret_cast<const char*>(want_b64.data())) << length;
        ASSERT_EQ(decode(text), input) << length;
    }
}

}  // namespace
