#include "core/text.h"

#include "support/exact.h"

#include "core/hash.h"
#include "core/owned.h"
#include "core/param.h"
#include "core/template.h"
#include "core/version.h"

#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::string take(char* text) {
    const core::owned_text owner(text);
    return text ? text : "(null)";
}

std::string via_wide(const char* text) {
    const core::owned<wchar_t> wide(core_wchar(text, CORE_HERE));
    return take(core_utf8(wide.get(), CORE_HERE));
}

/// The text with '?' for each U+FFFD.
std::string marked(std::string text) {
    for (size_t at = 0; (at = text.find("\xef\xbf\xbd")) != std::string::npos;)
        text.replace(at, 3, "?");
    return text;
}

int sign(int value) { return (value > 0) - (value < 0); }

TEST(Text, Copies) {
    const std::vector<char> unterminated = {'a', 'b', 'c'};
    EXPECT_EQ(take(core_strndup(unterminated.data(), 3, CORE_HERE)), "abc");
    EXPECT_EQ(take(core_strndup("abc", 2, CORE_HERE)), "ab");
    EXPECT_EQ(take(core_strndup("abc", SIZE_MAX, CORE_HERE)), "abc");
    EXPECT_EQ(take(core_strhex("\x00\x7f\xff", 3, CORE_HERE)), "007fff");
    for (const int width : {1, 255, 256, 257, 5000})
        EXPECT_EQ(take(core_sprintf(CORE_HERE, "%*d", width, 7)),
                  std::string(static_cast<size_t>(width - 1), ' ') + "7");
}

TEST(Text, ComparesWithoutCase) {
    const struct {
        const char *a, *b;
        size_t n;
        int expected;
    } cases[] = {
        {"Content-LengthZ", "cONTENT-lENGTHz", SIZE_MAX, 0},
        {"abc", "ABD", SIZE_MAX, -1},
        {"abc", "ABD", 2, 0},
        {"abc", "ab", SIZE_MAX, 1},
        {"ab\0x", "ab\0y", 4, 0},
        {"[", "a", SIZE_MAX, -1},        // between the cases of the alphabet
        {"@", "`", SIZE_MAX, -1},        // before the letters
        {"\xc4", "\xe4", SIZE_MAX, -1},  // no letters beyond A-Z
        {"z", "\x80", SIZE_MAX, -1},     // bytes, not signed characters
        {nullptr, "", SIZE_MAX, -1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sign(core_strncasecmp(c.a, c.b, c.n)), c.expected) << c.b;
        EXPECT_EQ(sign(core_strncasecmp(c.b, c.a, c.n)), -c.expected) << c.b;
    }
}

// Every character survives both ways, and what is accepted is the one way to write it: so nothing else is accepted.
TEST(Utf8, AcceptsExactlyTheCharacters) {
    for (uint32_t code = 0; code <= 0x110000; ++code) {
        char bytes[4];
        uint32_t back = 0;
        const size_t size = utf8_encode(code, bytes);
        ASSERT_EQ(utf8_decode(bytes, size, &back), size);
        const bool is_character = code < 0x110000 && (code < 0xd800 || code > 0xdfff);
        ASSERT_EQ(back, is_character ? code : 0xfffdu);
        ASSERT_EQ(utf8_decode(bytes, size - 1, &back), 0u) << "cut short";
    }
    const std::string_view tails[] = {"\x80\x80", "\xbf\xbf", "\x80\x7f", "\x80\xc0", "\x7f\x80", "\xc0\x80"};
    for (uint32_t first_two = 0; first_two < 0x10000; ++first_two) {
        for (const std::string_view tail : tails) {
            const char bytes[4] = {static_cast<char>(first_two >> 8), static_cast<char>(first_two), tail[0], tail[1]};
            char again[4];
            uint32_t code = 0;
            const size_t size = utf8_decode(bytes, 4, &code);
            if (size == 0) continue;
            ASSERT_EQ(utf8_encode(code, again), size);
            ASSERT_EQ(std::string_view(bytes, size), std::string_view(again, size));
        }
    }
}

TEST(Utf8, ReplacesEachBadByteOfText) {
    const std::pair<const char*, const char*> cases[] = {
        {"a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z", "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80z"},
        {"\x80x", "?x"},
        {"\xed\xa0\x80", "???"},
        {"\xe2\x82", "??"},
        {"\xe2(\xa1", "?(?"}};
    for (const auto& [in, out] : cases)
        EXPECT_EQ(marked(via_wide(in)), out) << testing::PrintToString(in);
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xd800), L'b', 0};
    EXPECT_EQ(marked(take(core_utf8(surrogate, CORE_HERE))), "a?b");
}

TEST(Param, IsTheFirstOfItsNameAndTextOrInteger) {
    const param_t params[] = {{"name", "first"}, {"size", int64_t{-5}}, {"name", "second"}, {nullptr, "no key"}, {}};
    EXPECT_STREQ(param_get_text(params, "name"), "first");
    EXPECT_EQ(param_get_text(params, "size"), nullptr);
    EXPECT_EQ(param_get_integer(params, "size", 1), -5);
    EXPECT_EQ(param_get_integer(params, "name", 1), 1);
    EXPECT_EQ(param_find(params, "Name"), nullptr);
}

TEST(Template, FillsPlaces) {
    const param_t params[] = {{"user", "a<b"},           {"n", INT64_MIN},
                              {"again", "${user}"},      {"data", static_cast<const void*>("x")},
                              {"", "empty key"},         {"null", static_cast<const char*>(nullptr)},
                              {"user", "not the first"}, {}};
    const std::pair<const char*, const char*> cases[] = {
        {"plain $ { } text", "plain $ { } text"},
        {"<${user}${user}>", "<a<ba<b>"},
        {"${n}|${null}|${missing}|${data}|", "-9223372036854775808||||"},
        {"${again}", "${user}"},
        {"${}", "empty key"},
        {"$${user}}", "$a<b}"},
        {"${user} ${user", "a<b ${user"},
        {"${use${user}", ""},
        {"${", "${"}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(take(core_template_parse(text, params, CORE_HERE)), expected) << text;
    EXPECT_EQ(take(core_template_parse("a${user}b", nullptr, CORE_HERE)), "ab");
}

TEST(Version, IsFormedFromTheBuildDateAndTime) {
    const struct {
        const char *date, *time, *version;
    } cases[] = {{"Nov 25 2015", "15:47:30", "2015.11.25.154730"},
                 {"Jan  5 2026", "00:00:00", "2026.01.05.000000"},
                 {"anF 25 2015", "15:47:30", ""},  // found in the table of months, but not at a month
                 {"Nov 25 15", "15:47:30", ""},
                 {"Nov 25 2015", "15:47", ""},
                 {"Nov 2x 2015", "15:47:30", ""}};
    for (const auto& c : cases) {
        char out[32] = "old";
        EXPECT_STREQ(core_get_version(c.date, c.time, out), c.version);
    }
}

/// Bytes 0, 1, 2 and so on.
std::string counting(size_t size) {
    std::string bytes(size, '\0');
    std::iota(bytes.begin(), bytes.end(), '\0');
    return bytes;
}

TEST(Gost, GivesTheVectorsOfTheStandardAndOfAnotherImplementation) {
    const struct {
        std::string message;
        const char* digest;
    } cases[] = {
        // RFC 6986, section 10, first byte first
        {"012345678901234567890123456789012345678901234567890123456789012",
         "9d151eefd8590b89daa6ba6cb74af9275dd051026bb149a452fd84e5e57b5500"},
        // Around the ends of blocks, as libgcrypt 1.10 gives them
        {"", "3f539a213e97c802cc229d474c6aa32a825a360b2a933a949fd925208d9ce1bb"},
        {counting(63), "937c66cf8c151d92d5acac335d951073c69711727172443c93aba97071b8f48b"},
        {counting(64), "1bce2366e4aecd63c75f972bfc6a514e03e2125920bea5b59cbd8ce0be56b8f3"},
        {counting(129), "7373f7d09afe51640d2dfdb9a2d8bd293455340c35f252906503170eb3e6a37d"},
        // The sum of the blocks carries through every word.
        {std::string(192, '\xff'), "d3ce7eb4da9ad01a0b929025486a2fd99e84f188069f9e5f47f11d1a949be991"},
    };
    for (const auto& c : cases) {
        const test::exact_bytes exact(c.message);
        uint8_t digest[32];
        EXPECT_EQ(core_hash_gost(exact.data(), exact.size(), digest), 1);
        EXPECT_STREQ(core::owned_text(core_strhex(digest, sizeof digest, CORE_HERE)).get(), c.digest);
    }
}

}  // namespace
