#include "common/digest.h"

#include "support/exact.h"
#include "support/fault.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::string decode(std::string_view text) {
    const test::exact_bytes exact(text);
    buf_t out;
    const uint32_t appended = b64_decode(exact.data(), exact.size(), &out, CORE_HERE);
    EXPECT_EQ(appended, out.length);
    std::string bytes(reinterpret_cast<char*>(out.data), out.length);
    core_buf_free(&out);
    return bytes;
}

TEST(Digest, Sha256AndHmacOfTheStandards) {
    const auto hex = [](const uint8_t(&digest)[32]) {
        return std::string(core::owned_text(core_strhex(digest, sizeof digest, CORE_HERE)).get());
    };
    uint8_t digest[32];
    common_sha256("abc", 3, digest);  // FIPS 180-4
    EXPECT_EQ(hex(digest), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    HMACsha256("Jefe", 4, "what do ya want for nothing?", 28, digest);  // RFC 4231, test case 2
    EXPECT_EQ(hex(digest), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(Digest, Md5IsWrittenAsText) {
    // RFC 1321, A.5
    EXPECT_STREQ(core::owned_text(common_md5("message digest", CORE_HERE)).get(), "f96b697d7cb7938d525a2f31aaf161d0");
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
