// Text, UTF-8, templates, digests, JSON.
#include "core/text.h"

#include "core/hash.h"
#include "core/json_print.h"
#include "core/owned.h"
#include "core/template.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string take(char* text) {
    const core::owned_text owner(text);
    return text ? text : "(null)";
}

TEST(Text, IsCopiedAsFarAsItGoesAndFormattedInAnyLength) {
    EXPECT_EQ(take(core_strndup(std::vector{'a', 'b', 'c'}.data(), 3, CORE_HERE)), "abc");
    EXPECT_EQ(take(core_strndup("abc", SIZE_MAX, CORE_HERE)), "abc");
    for (const int width : {1, 255, 256, 257, 5000})
        EXPECT_EQ(take(core_sprintf(CORE_HERE, "%*d", width, 7)),
                  std::string(static_cast<size_t>(width - 1), ' ') + "7");
}

TEST(Text, IsComparedWithoutTheCaseOfLetters) {
    EXPECT_EQ(core_strncasecmp("Content-LengthZ", "cONTENT-lENGTHz", SIZE_MAX), 0);
    EXPECT_EQ(core_strncasecmp("abc", "ABD", 2), 0);
    EXPECT_EQ(core_strncasecmp("ab\0x", "ab\0y", 4), 0);
    // Neither what stands before and behind the letters nor what is beyond A-Z has a case.
    const std::pair<const char*, const char*> cases[] = {{"abc", "ABD"}, {"AB", "abc"},    {"[", "a"},
                                                         {"@", "`"},     {"\xc4", "\xe4"}, {nullptr, ""}};
    for (const auto& [less, more] : cases) {
        EXPECT_LT(core_strncasecmp(less, more, SIZE_MAX), 0) << more;
        EXPECT_GT(core_strncasecmp(more, less, SIZE_MAX), 0) << more;
    }
}

// Every character survives both ways, and what is accepted is the one way to write it: so nothing else is accepted.
TEST(Utf8, AcceptsExactlyTheCharacters) {
    uint32_t back = 0;
    char again[4];
    for (uint32_t code = 0; code <= 0x110000; ++code) {
        const size_t size = utf8_encode(code, again);
        ASSERT_EQ(utf8_decode(again, size, &back), size);
        const bool is_character = code < 0x110000 && (code < 0xd800 || code > 0xdfff);
        ASSERT_EQ(back, is_character ? code : 0xfffdu);
        ASSERT_EQ(utf8_decode(again, size - 1, &back), 0u) << "cut short";
    }
    for (uint32_t first_two = 0; first_two < 0x10000; ++first_two) {
        for (const char* tail : {"\x80\x80", "\xbf\xbf", "\x80\x7f", "\x80\xc0", "\x7f\x80", "\xc0\x80"}) {
            const char bytes[4] = {static_cast<char>(first_two >> 8), static_cast<char>(first_two), tail[0], tail[1]};
            const size_t size = utf8_decode(bytes, 4, &back);
            if (size == 0) continue;
            ASSERT_EQ(utf8_encode(back, again), size);
            ASSERT_EQ(std::string_view(bytes, size), std::string_view(again, size));
        }
    }
}

TEST(Utf8, BecomesWideTextAndBackWithEachBadByteReplaced) {
    const std::pair<const char*, const char*> cases[] = {
        {"aé€😀z", "aé€😀z"}, {"\x80x\xed\xa0\x80", "�x���"}, {"\xe2\x82", "��"}, {"\xe2(\xa1", "�(�"}};
    for (const auto& [in, out] : cases) {
        const core::owned<wchar_t> wide(core_wchar(in, CORE_HERE));
        EXPECT_EQ(take(core_utf8(wide.get(), CORE_HERE)), out) << testing::PrintToString(in);
    }
    const wchar_t surrogate[] = {L'a', static_cast<wchar_t>(0xd800), L'b', 0};
    EXPECT_EQ(take(core_utf8(surrogate, CORE_HERE)), "a�b");
}

TEST(Template, FillsItsPlaces) {
    const param_t params[] = {{"user", "a<${n}"}, {"n", INT64_MIN}, {"user", "not the first"}, {"", "empty"}, {}};
    const std::pair<const char*, const char*> cases[] = {{"$ { } $${user}}", "$ { } $a<${n}}"},
                                                         {"${n}${missing}${}", "-9223372036854775808empty"},
                                                         {"${user ${n} ${user", " ${user"}};
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(take(core_template_parse(text, params, CORE_HERE)), expected) << text;
}

TEST(Gost, GivesTheVectorOfAnotherImplementation) {
    // The sum of the blocks carries through every word; digest as libgcrypt 1.10 gives it.
    uint8_t digest[32];
    core_hash_gost(std::string(192, '\xff').data(), 192, digest);
    EXPECT_EQ(take(core_strhex(digest, sizeof digest, CORE_HERE)),
              "d3ce7eb4da9ad01a0b929025486a2fd99e84f188069f9e5f47f11d1a949be991");
}

using tree = core::owned<json_t, yajl_tree_free>;

tree parse(std::string_view text, char* error = nullptr, size_t size = 0) {
    std::vector<char> exact(text.size() + 1);  // so that the first byte read behind it is seen
    std::ranges::copy(text, exact.begin());
    return tree(yajl_tree_parse(exact.data(), error, size));
}

TEST(Json, ReadsEveryKindOfValueInOrder) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"\xef\xbb\xbf \t\r\n[ true , false,null,[],{},[ ],{ }] \n", "[true,false,null,[],{},[],{}]"},
        {R"({"b":1,"a":[2,{"c":"d"},3],"b":4,"":[",]}[{\"","\\",[","],"x"]})",
         R"({"b":1,"a":[2,{"c":"d"},3],"b":4,"":[",]}[{\"","\\",[","],"x"]})"},
        {R"("\"\\\/\b\f\n\r\tA\u00e9\u20AC\ud83d\ude00\udbff\udfff")", "\"\\\"\\\\/\\b\\f\\n\\r\\tAé€😀\U0010ffff\""},
        {"\"\x7f é€😀\"", "\"\x7f é€😀\""}};
    for (const auto& [text, printed] : cases) {
        const tree root = parse(text);
        ASSERT_NE(root, nullptr) << text;
        EXPECT_EQ(test::print(*root), printed);
    }
}

TEST(Json, KeepsNumbersAsExactlyAsTheyFit) {
    const std::string zeros(400, '0');
    const std::tuple<std::string, bool, int64_t, double> cases[] = {
        {"-0", true, 0, -0.0},
        {"9223372036854775807", true, INT64_MAX, 0x1p63},
        {"-9223372036854775808", true, INT64_MIN, -0x1p63},
        {"9223372036854775808", false, INT64_MAX, 0x1p63},
        {"-9223372036854775809", false, INT64_MIN, -0x1p63},
        {"-1e400", false, INT64_MIN, -DBL_MAX},
        {"5e9223372036854775807", false, INT64_MAX, DBL_MAX},
        {"0.05e-9223372036854775808", false, 0, 0},
        {"1" + zeros, false, INT64_MAX, DBL_MAX},
        {"-0.0" + zeros + "1e10", false, 0, -0.0},
        {"0." + zeros + "1e401", false, 1, 1}};
    for (const auto& [text, is_integer, integer, number] : cases) {
        const tree root = parse(text);
        ASSERT_TRUE(root && root->type == json_number) << text;
        EXPECT_EQ(std::tuple(root->is_integer, root->integer), std::tuple(is_integer, integer)) << text;
        EXPECT_EQ(root->number, number) << text;
        EXPECT_EQ(std::signbit(root->number), std::signbit(number)) << text;
    }
}

/// An array of so many numbers.
std::string values(size_t count) {
    std::string text = "[0";
    while (--count)
        text += ",0";
    return text + ']';
}

TEST(Json, RefusesWithThePlaceAndTheReason) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"1:1: value expected", {"", ",", "]", "tru", "NaN", "+1", "-", ".5"}},
        {"1:4: value expected", {"[1,]", "[1,,2]"}},
        {"2:6: value expected", {"[1,\n \"é\",x]"}},
        {"1:3: text after the value", {"1 2", "{}]"}},
        {"1:3: comma or ] expected", {"[1}", "[1"}},
        {"1:7: comma or } expected", {"{\"a\":1]"}},
        {"1:6: colon expected", {"{\"a\" 1}"}},
        {"1:8: name expected", {"{\"a\":1,}", "{\"a\":1,b"}},
        {"1:1: number with a leading zero", {"01", "-012"}},
        {"1:1: digit expected", {"1.", "1.e5", "1e", "1e+"}},
        {"1:3: string without an end", {"\"a"}},
        {"1:2: unknown escape", {"\"\\x\"", "\"\\"}},
        {"1:2: four hexadecimal digits expected",
         {"\"\\u12g4\"", "\"\\u12", "\"\\u00@0\"", "\"\\u00/0\"", "\"\\u000:\""}},
        {"1:2: half a surrogate pair",
         {"\"\\ud800\"", "\"\\udbff\\n\"", "\"\\ud800\\udbff\"", "\"\\ud800\\ue000\"", "\"\\udc00\"", "\"\\udfff\""}},
        {"1:3: control character in a string", {"\"a\nb\"", "\"a\x1f\""}},
        {"1:2: not UTF-8", {"\"\xc0\x80\"", "\"\xe2\x82"}},
        {"1:129: nested too deep", {std::string(129, '[')}},
        {"text too large", {std::string((64 << 20) + 1, ' ')}},
        {"tree too large", {values((64 << 20) / sizeof(json_t) + 1)}}};
    for (const auto& [expected, texts] : cases) {
        for (const std::string& text : texts) {
            char error[100] = "untouched";
            EXPECT_EQ(parse(text, error, sizeof error), nullptr) << expected;
            EXPECT_STREQ(error, expected);
        }
    }
    EXPECT_NE(parse(std::string(128, '[') + std::string(128, ']')), nullptr);
    for (const std::string& largest :
         {'1' + std::string((64 << 20) - 1, ' '), '"' + std::string((64 << 20) - 2, 'x') + '"',
          values((64 << 20) / sizeof(json_t))})
        EXPECT_NE(parse(largest), nullptr) << largest.size();
}

TEST(Json, KeepsTheFirstOfAMemberAndZerosAndEncodesWhatHasToBeEscaped) {
    const tree root = parse(R"({"n":"a\u0000b","n":3})");
    const json_t* const text = json_get(root.get(), "n");
    EXPECT_EQ(std::string_view(text->text, text->length), std::string_view("a\0b", 3));
    EXPECT_EQ(take(core_json_encode("\x01\x1f \b\n\"/\\\x7fé😀\xff\xc3", CORE_HERE)),
              "\\u0001\\u001f \\b\\n\\\"/\\\\\x7fé😀��");
}

}  // namespace
