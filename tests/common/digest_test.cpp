// Digests, Base64 and random text on every system. posix_digest_test.cpp sets them beside OpenSSL.
#include "common/digest.h"

#include "support/exact.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

TEST(Digest, IsThatOfTheStandards) {
    uint8_t digest[32];
    const auto hex = [&digest] { return core::owned_text(core_strhex(digest, sizeof digest, CORE_HERE)); };
    common_sha256("abc", 3, digest);  // FIPS 180-4
    EXPECT_STREQ(hex().get(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    HMACsha256("Jefe", 4, "what do ya want for nothing?", 28, digest);  // RFC 4231, test case 2
    EXPECT_STREQ(hex().get(), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    // RFC 1321, A.5
    EXPECT_STREQ(core::owned_text(common_md5("message digest", CORE_HERE)).get(), "f96b697d7cb7938d525a2f31aaf161d0");
}

TEST(Base64, StopsAtPaddingAndAtForeignCharacters) {
    constexpr struct {
        std::string_view text, bytes;
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
    for (const auto& c : cases) {
        const test::exact_bytes text(c.text);
        buf_t out;
        core_buf_read(&out, "ab", 2);
        EXPECT_EQ(b64_decode(text.data(), text.size(), &out, CORE_HERE), c.bytes.size()) << c.text;
        EXPECT_EQ(std::string(out.data, out.data + out.length), "ab" + std::string(c.bytes)) << c.text;
        core_buf_free(&out);
    }
}

/// How often each byte stands among them.
std::array<uint32_t, 256> counted(std::string_view bytes) {
    std::array<uint32_t, 256> count{};
    for (const char c : bytes)
        ++count[static_cast<uint8_t>(c)];
    return count;
}

TEST(Random, TextHasEveryLetterAboutAsOften) {
    constexpr uint32_t length = 620000;
    const core::owned_text text(common_srand(length, CORE_HERE));
    const core::owned_text other(common_srand(32, CORE_HERE));
    ASSERT_EQ(std::string_view(text.get()).size(), length);
    EXPECT_NE(std::string_view(text.get()).substr(0, 32), other.get());
    const auto count = counted(text.get());
    uint32_t letters = 0;
    for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")) {
        // 10000 are expected, 100 is the standard deviation; a plain remainder would give the first eight 12109.
        EXPECT_NEAR(count[static_cast<uint8_t>(c)], 10000, 800) << c;
        letters += count[static_cast<uint8_t>(c)];
    }
    EXPECT_EQ(letters, length);
}

TEST(Random, FillsMoreThanTheSystemGivesAtOnce) {
    std::string bytes(100000, '\0');
    common_random(bytes.data(), bytes.size());
    for (const uint32_t n : counted(bytes))
        EXPECT_NEAR(n, 390, 180);
}

}  // namespace
