#include "support/exact.h"
#include "support/held.h"

#include "core/json_print.h"
#include "core/memory.h"
#include "core/owned.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <string_view>

namespace {

using tree = test::held<json_t, yajl_tree_free>;

tree parse(std::string_view text, char* error = nullptr, size_t size = 0) {
    return tree(yajl_tree_parse(test::exact_text(text).get(), error, size));
}

TEST(Json, ReadsEveryKindOfValueInOrder) {
    constexpr struct {
        std::string_view text, tree;
    } cases[] = {
        {" \t\r\n[ true , false,null ] \n", "[true,false,null]"},
        {"\xef\xbb\xbf[[],{},[ ],{ }]", "[[],{},[],{}]"},
        {R"({"b":1,"a":[1,{"c":"d"},2.5],"b":2,"":[]})",
         R"({"b":1,"a":[1,{"c":"d"},2.50000000000000000e+00],"b":2,"":[]})"},
        {R"([",]}[{\"","\\",[","],"x"])", R"([",]}[{\"","\\",[","],"x"])"},
        {R"("\"\\\/\b\f\n\r\tA\u00e9\u20AC\ud83d\ude00\udbff\udfff")", "\"\\\"\\\\/\\b\\f\\n\\r\\tAé€😀\U0010ffff\""},
        {"\"\x7f é€😀\"", "\"\x7f é€😀\""},
    };
    for (const auto& c : cases) {
        const tree root = parse(c.text);
        ASSERT_NE(root, nullptr) << c.text;
        EXPECT_EQ(test::print(*root), c.tree);
    }
}

TEST(Json, KeepsNumbersAsExactlyAsTheyFit) {
    constexpr int64_t highest = std::numeric_limits<int64_t>::max();
    constexpr int64_t lowest = std::numeric_limits<int64_t>::min();
    constexpr double largest = std::numeric_limits<double>::max();
    const std::string zeros(400, '0');
    const struct {
        std::string text;
        bool is_integer;
        int64_t integer;
        double number;
    } cases[] = {{"0", true, 0, 0},
                 {"-0", true, 0, -0.0},
                 {"9223372036854775807", true, highest, 0x1p63},
                 {"-9223372036854775808", true, lowest, -0x1p63},
                 {"9223372036854775808", false, highest, 0x1p63},
                 {"-9223372036854775809", false, lowest, -0x1p63},
                 {"-1.75", false, -1, -1.75},
                 {"1E+2", false, 100, 100},
                 {"12e-1", false, 1, 1.2},
                 {"5e-324", false, 0, 5e-324},
                 {"1e400", false, highest, largest},
                 {"-1e400", false, lowest, -largest},
                 {"1e-400", false, 0, 0},
                 {"0e999999999999999999999", false, 0, 0},
                 {"1e999999999999999999999", false, highest, largest},
                 {"5e9223372036854775807", false, highest, largest},
                 {"0.05e-9223372036854775808", false, 0, 0},
                 {"1" + zeros, false, highest, largest},
                 {"-0.0" + zeros + "1e10", false, 0, -0.0},
                 {"0." + zeros + "1e401", false, 1, 1}};
    for (const auto& c : cases) {
        const tree root = parse(c.text);
        ASSERT_NE(root, nullptr) << c.text;
        EXPECT_EQ(root->type, json_number);
        EXPECT_EQ(root->is_integer, c.is_integer) << c.text;
        EXPECT_EQ(root->integer, c.integer) << c.text;
        EXPECT_EQ(root->number, c.number) << c.text;
        EXPECT_EQ(std::signbit(root->number), std::signbit(c.number)) << c.text;
    }
}

TEST(Json, RefusesWithThePlaceAndTheReason) {
    const struct {
        const char* error;
        std::vector<std::string> texts;
    } cases[] = {
        {"1:1: value expected", {"", ",", "]", "tru", "True", "NaN", "+1", "-", ".5", "x"}},
        {"1:2: value expected", {"[", "[,", "[-"}},
        {"1:4: value expected", {"[1,]", "[1,,2]"}},
        {"2:6: value expected", {"[1,\n \"é\",x]"}},
        {"1:3: text after the value", {"1 2", "{}]"}},
        {"1:4: text after the value", {"[1]\v"}},
        {"1:3: comma or ] expected", {"[1}", "[1"}},
        {"1:7: comma or } expected", {"{\"a\":1]"}},
        {"1:6: colon expected", {"{\"a\" 1}"}},
        {"1:2: name expected", {"{a:1}", "{'a':1}"}},
        {"1:8: name expected", {"{\"a\":1,}"}},
        {"1:1: number with a leading zero", {"01", "-012"}},
        {"1:1: digit expected", {"1.", "1.e5", "1e", "1e+"}},
        {"1:3: string without an end", {"\"a"}},
        {"1:2: unknown escape", {"\"\\x\"", "\"\\"}},
        {"1:2: four hexadecimal digits expected",
         {"\"\\u12g4\"", "\"\\u12", "\"\\u-123\"", "\"\\u00@0\"", "\"\\u00/0\"", "\"\\u000:\""}},
        {"1:2: half a surrogate pair",
         {"\"\\ud800\"", "\"\\udbff\\n\"", "\"\\ud800\\ud800\"", "\"\\ud800\\udbff\"", "\"\\ud800\\ue000\"",
          "\"\\udc00\"", "\"\\udfff\""}},
        {"1:3: control character in a string", {"\"a\nb\"", "\"a\x1f\""}},
        {"1:2: not UTF-8", {"\"\xc0\x80\"", "\"\xe2\x82"}},
        {"1:129: nested too deep", {std::string(129, '[')}},
    };
    for (const auto& [expected, texts] : cases) {
        for (const std::string& text : texts) {
            char error[100] = "untouched";
            EXPECT_EQ(parse(text, error, sizeof error), nullptr) << text;
            EXPECT_STREQ(error, expected) << text;
        }
    }
    char small[6];
    EXPECT_EQ(parse("[x", small, sizeof small), nullptr);
    EXPECT_STREQ(small, "1:2: ");
    EXPECT_NE(parse(std::string(128, '[') + std::string(128, ']')), nullptr);
}

TEST(Json, ReadsAsMuchAs64MiB) {
    std::string large(64 << 20, ' ');
    large[0] = '1';
    EXPECT_NE(tree(yajl_tree_parse(large.c_str(), nullptr, 0)), nullptr);
    large += ' ';
    char error[32];
    EXPECT_EQ(yajl_tree_parse(large.c_str(), error, sizeof error), nullptr);
    EXPECT_STREQ(error, "text too large");
}

TEST(Json, FindsMembersAndConvertsOrFallsBack) {
    const tree root = parse(R"({"n":12.9,"s":"t","z":"a\u0000b","n":3})");
    const json_t* number = json_get(root.get(), "n");
    const json_t* text = json_get(root.get(), "s");
    EXPECT_EQ(json_integer(number, -1), 12);
    EXPECT_EQ(json_text(number), nullptr);
    EXPECT_STREQ(json_text(text), "t");
    EXPECT_EQ(json_integer(text, -1), -1);
    EXPECT_EQ(json_get(root.get(), "N"), nullptr);
    EXPECT_EQ(json_get(text, "n"), nullptr);
    const json_t* with_zero = json_get(root.get(), "z");
    EXPECT_EQ(std::string_view(with_zero->text, with_zero->length), std::string_view("a\0b", 3));
}

TEST(Json, EncodesWhatHasToBeEscapedAndNothingElse) {
    EXPECT_STREQ(core::owned_text(core_json_encode("\x01\x1f \b\n\"/\\\x7fé😀\xff\xc3", CORE_HERE)).get(),
                 "\\u0001\\u001f \\b\\n\\\"/\\\\\x7fé😀\xef\xbf\xbd\xef\xbf\xbd");
}

}  // namespace
