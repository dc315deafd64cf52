#include "common/digest.h"

#include "support/exact.h"
#include "support/fault.h"

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

template <class Bytes>
std::string hex(const Bytes& bytes) {
    const buffer_t span{const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())};
    return core::owned_text(core_buffer_hex(&span, CORE_HERE)).get();
}

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
    const test::exact_bytes exact(text);
    buf_t out;
    const uint32_t appended = b64_decode(exact.data(), exact.size(), &out, CORE_HERE);
    EXPECT_EQ(appended, out.length);
    std::string bytes(reinterpret_cast<char*>(out.data), out.length);
    core_buf_free(&out);
    return bytes;
}

TEST(Digest, GivesTheVectorsOfTheStandards) {
    // RFC 1321, A.5
    constexpr struct {
        const char* text;
        const char* digest;
    } md5_cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& c : md5_cases) {
        EXPECT_STREQ(core::owned_text(common_md5(c.text, CORE_HERE)).get(), c.digest) << c.text;
        EXPECT_EQ(hex(md5(c.text)), c.digest);
    }
    // FIPS 180-4 examples
    EXPECT_EQ(hex(sha256("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hex(sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    // RFC 4231, 4.2 and 4.3, and 4.7 with a key longer than a block
    EXPECT_EQ(hex(hmac(std::string(20, '\x0b'), "Hi There")),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(hex(hmac("Jefe", "what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hex(hmac(std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First")),
              "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
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

TEST(Base64, StopsAtPaddingAndAtForeignCharacters) {
    constexpr struct {
        std::string_view text;
        std::string_view bytes;
    } cases[] = {
        {"Zm9vYmFy", "foobar"},
        {"Zm9vYmE=", "fooba"},
        {"Zm9vYg==", "foob"},  // RFC 4648, section 10
        {"Zm9vYmE", "fooba"},
        {"Zm9vYg", "foob"},
        {"Zm9vY", "foo"},  // cut short
        {"Zm 9v\r\n\tYg", "foob"},
        {"Zm9v!YmFy", "foo"},
        {"Zm9vYg==Zm9v", "foob"},
        {"Zg-_", "f"},
        {"", ""},
        {"=", ""},
        {"\xff", ""},
        {{"Zm9v\0Yg", 7}, "foo"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(decode(c.text), c.bytes) << c.text;
}

TEST(Base64, AppendsBehindWhatIsHeld) {
    buf_t out;
    core_buf_read(&out, "ab", 2);
    EXPECT_EQ(b64_decode("Y2Q=", 4, &out, CORE_HERE), 2U);
    EXPECT_EQ(std::string_view(reinterpret_cast<char*>(out.data), out.length), "abcd");
    core_buf_free(&out);
}

TEST(Random, TextHasEveryLetterAboutAsOften) {
    constexpr uint32_t length = 620000;
    const core::owned_text text(common_srand(length, CORE_HERE));
    const core::owned_text other(common_srand(32, CORE_HERE));
    ASSERT_EQ(std::string_view(text.get()).size(), length);
    EXPECT_NE(std::string_view(text.get()).substr(0, 32), other.get());
    std::array<uint32_t, 256> count{};
    for (const char c : std::string_view(text.get()))
        ++count[static_cast<uint8_t>(c)];
    uint32_t letters = 0;
    for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")) {
        // 10000 are expected, 100 is the standard deviation; a plain remainder would give the first eight 12109.
        EXPECT_NEAR(count[static_cast<uint8_t>(c)], 10000, 800) << c;
        letters += count[static_cast<uint8_t>(c)];
    }
    EXPECT_EQ(letters, length);
}

TEST(Random, FillsMoreThanTheSystemGivesAtOnce) {
    std::vector<uint8_t> bytes(100000);
    common_random(bytes.data(), bytes.size());
    std::array<uint32_t, 256> count{};
    for (const uint8_t byte : bytes)
        ++count[byte];
    for (const uint32_t n : count)
        EXPECT_NEAR(n, 390, 180);
}

TEST(Digest, SurvivesLackOfMemoryAndOfArguments) {
    const size_t failed = test::fail_each_allocation([] {
        core_mfree(common_md5("text", CORE_HERE));
        core_mfree(b64("bytes", 5, CORE_HERE));
        core_mfree(common_srand(300, CORE_HERE));
        buf_t out;
        const uint32_t appended = b64_decode("Zm9v", 4, &out, CORE_HERE);
        EXPECT_EQ(appended, out.length);
        core_buf_free(&out);
    });
    EXPECT_EQ(failed, 4U);
    EXPECT_EQ(common_md5(nullptr, CORE_HERE), nullptr);
    EXPECT_EQ(b64(nullptr, 1, CORE_HERE), nullptr);
    EXPECT_STREQ(core::owned_text(b64(nullptr, 0, CORE_HERE)).get(), "");
    EXPECT_EQ(b64_decode("Zm9v", 4, nullptr, CORE_HERE), 0U);
}

}  // namespace
