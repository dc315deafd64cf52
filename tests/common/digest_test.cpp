// Base64 and random text. posix_digest_test.cpp sets digests and Base64 beside OpenSSL.
#include "common/digest.h"

#include "core/owned.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace std::string_view_literals;

TEST(Base64, StopsAtPaddingAndAtForeignCharacters) {
    constexpr std::pair<std::string_view, std::string_view> cases[] = {
        {"Zm9vYg", "foob"},   {"\xff", ""},          {"Zm 9v\r\n\tYg", "foob"}, {"Zm9vYmE", "fooba"},
        {"Zm9v!YmFy", "foo"}, {"Zg-_", "f"},         {"Zm9vYg==Zm9v", "foob"},  {"", ""},
        {"Zm9vY", "foo"},     {"Zm9v\0Yg"sv, "foo"}, {"Zm9vYg==", "foob"},      {"=", ""},
    };
    for (const auto& [text, bytes] : cases) {
        const std::vector<char> exact(text.begin(), text.end());  // so that the first byte read behind it is seen
        buf_t out;
        core_buf_read(&out, "ab", 2);
        EXPECT_EQ(b64_decode(exact.data(), exact.size(), &out, CORE_HERE), bytes.size()) << text;
        EXPECT_EQ(std::string(out.data, out.data + out.length), "ab" + std::string(bytes)) << text;
        core_buf_free(&out);
    }
}

TEST(Random, HasEveryLetterAboutAsOften) {
    constexpr uint32_t length = 620000;
    const core::owned_text text(common_srand(length, CORE_HERE));
    EXPECT_STRNE(core::owned_text(common_srand(length, CORE_HERE)).get(), text.get());
    double letters = 0;
    for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")) {
        const auto n = static_cast<double>(std::count(text.get(), text.get() + length, c));
        EXPECT_NEAR(n, 10000, 800)
            << c;  // eight times the deviation; a plain remainder would give the first eight 12109
        letters += n;
    }
    EXPECT_EQ(letters, length);
}
