#include "core/json.h"

#include "support/exact.h"
#include "support/fault.h"
#include "support/linear.h"

#include "core/memory.h"
#include "core/owned.h"

#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

namespace {

struct tree_deleter {
    void operator()(json_t* root) const { yajl_tree_free(root); }
};
using tree = std::unique_ptr<json_t, tree_deleter>;

tree parse(std::string_view text) { return tree(yajl_tree_parse(test::exact_text(text).get(), nullptr, 0)); }

std::string error_of(std::string_view text) {
    char error[100] = "untouched";
    EXPECT_EQ(tree(yajl_tree_parse(test::exact_text(text).get(), error, sizeof(error))), nullptr) << text;
    return error;
}

std::string quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

/// The tree as text again: members and items in order, numbers as they are held.
std::string print(const json_t& value) {
    constexpr const char* literals[] = {"null", "false", "true"};
    switch (value.type) {
        case json_number:
            return value.is_integer ? std::to_string(value.integer) : std::to_string(value.number);
        case json_string:
            return quoted(core::owned_text(core_json_encode(value.text, CORE_HERE)).get());
        case json_array:
        case json_object:
            break;
        default:
            return literals[value.type];
    }
    std::string out;
    for (uint32_t i = 0; i < value.count; ++i) {
        if (i > 0) out += ',';
        if (value.type == json_array)
            out += print(value.items[i]);
        else
            out += quoted(value.members[i].name) + ':' + print(value.members[i].value);
    }
    return value.type == json_array ? '[' + out + ']' : '{' + out + '}';
}

TEST(Json, ReadsEveryKindOfValueInOrder) {
    constexpr struct {
        std::string_view text, tree;
    } cases[] = {
        {"null", "null"},
        {" \t\r\n[ true , false ] \n", "[true,false]"},
        {"\xef\xbb\xbf{}", "{}"},
        {"[[],{},[ ],{ }]", "[[],{},[],{}]"},
        {R"({"b":1,"a":[1,{"c":"d"},2.5],"b":2,"":[]})", R"({"b":1,"a":[1,{"c":"d"},2.500000],"b":2,"":[]})"},
        {R"([",]}[{\"","\\",[","],"x"])", R"([",]}[{\"","\\",[","],"x"])"},
        {R"("\"\\\/\b\f\n\r\tA\u00e9\u20AC\ud83d\ude00")", R"("\"\\/\b\f\n\r\tAé€😀")"},
        {"\"\x7f é€😀\"", "\"\x7f é€😀\""},
    };
    for (const auto& c : cases) {
        const tree root = parse(c.text);
        ASSERT_NE(root, nullptr) << c.text;
        EXPECT_EQ(print(*root), c.tree);
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
    } cases[] = {
        {"0", true, 0, 0},
        {"-0", true, 0, -0.0},
        {"9223372036854775807", true, highest, 0x1p63},
        {"-9223372036854775808", true, lowest, -0x1p63},
        {"9007199254740993", true, 9007199254740993, 9007199254740992.0},
        {"9223372036854775808", false, highest, 0x1p63},
        {"-9223372036854775809", false, lowest, -0x1p63},
        {"18446744073709551615", false, highest, 0x1p64},
        {"-1.75", false, -1, -1.75},
        {"1E+2", false, 100, 100},
        {"12e-1", false, 1, 1.2},
        {"0.1", false, 0, 0.1},
        {"2.2250738585072014e-308", false, 0, 2.2250738585072014e-308},
        {"5e-324", false, 0, 5e-324},
        {"1e400", false, highest, largest},
        {"-1e400", false, lowest, -largest},
        {"1e-400", false, 0, 0},
        {"0e999999999999999999999", false, 0, 0},
        {"1e999999999999999999999", false, highest, largest},
        {"1e-999999999999999999999", false, 0, 0},
        {"5e9223372036854775807", false, highest, largest},
        {"0.05e-9223372036854775808", false, 0, 0},
        {"1" + zeros, false, highest, largest},
        {"-0.0" + zeros + "1e10", false, 0, -0.0},
        {"0." + zeros + "1e401", false, 1, 1},
        {"1" + zeros + "e-400", false, 1, 1},
    };
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
    const std::string deep(129, '[');
    const struct {
        std::string text;
        const char* error;
    } cases[] = {
        {"", "1:1: value expected"},
        {"[1,\n \"é\",x]", "2:6: value expected"},
        {"1 2", "1:3: text after the value"},
        {"{}]", "1:3: text after the value"},
        {",", "1:1: value expected"},
        {"]", "1:1: value expected"},
        {"[,", "1:2: value expected"},
        {"[1,]", "1:4: value expected"},
        {"[1,,2]", "1:4: value expected"},
        {"[1 2]", "1:4: comma or ] expected"},
        {"[1}", "1:3: comma or ] expected"},
        {"[1", "1:3: comma or ] expected"},
        {"[", "1:2: value expected"},
        {"{\"a\":1]", "1:7: comma or } expected"},
        {"{\"a\" 1}", "1:6: colon expected"},
        {"{a:1}", "1:2: name expected"},
        {"{\"a\":1,}", "1:8: name expected"},
        {"{'a':1}", "1:2: name expected"},
        {"tru", "1:1: value expected"},
        {"True", "1:1: value expected"},
        {"nullx", "1:5: text after the value"},
        {"NaN", "1:1: value expected"},
        {"+1", "1:1: value expected"},
        {"-", "1:1: value expected"},
        {"01", "1:1: number with a leading zero"},
        {"-012", "1:1: number with a leading zero"},
        {"1.", "1:1: digit expected"},
        {".5", "1:1: value expected"},
        {"1.e5", "1:1: digit expected"},
        {"1e", "1:1: digit expected"},
        {"1e+", "1:1: digit expected"},
        {"0x10", "1:2: text after the value"},
        {"\"a", "1:3: string without an end"},
        {"\"a\\", "1:3: unknown escape"},
        {"\"\\x\"", "1:2: unknown escape"},
        {"\"\\u12g4\"", "1:2: four hexadecimal digits expected"},
        {"\"\\u-123\"", "1:2: four hexadecimal digits expected"},
        {"\"\\u12", "1:2: four hexadecimal digits expected"},
        {"\"\\ud800\"", "1:2: half a surrogate pair"},
        {"\"\\ud800\\n\"", "1:2: half a surrogate pair"},
        {"\"\\ud800\\ud800\"", "1:2: half a surrogate pair"},
        {"\"\\udc00\"", "1:2: half a surrogate pair"},
        {"\"a\nb\"", "1:3: control character in a string"},
        {"\"\xc0\x80\"", "1:2: not UTF-8"},
        {"\"\xed\xa0\x80\"", "1:2: not UTF-8"},
        {"\"\xf4\x90\x80\x80\"", "1:2: not UTF-8"},
        {"\"\xe2\x82\"", "1:2: not UTF-8"},
        {"\"\xe2\x82", "1:2: not UTF-8"},
        {"[1]\v", "1:4: text after the value"},
        {deep, "1:129: nested too deep"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(error_of(c.text), c.error) << c.text;
    char small[6];
    EXPECT_EQ(yajl_tree_parse("[x", small, sizeof(small)), nullptr);
    EXPECT_STREQ(small, "1:2: ");
    EXPECT_EQ(yajl_tree_parse(nullptr, nullptr, 0), nullptr);
    EXPECT_NE(parse(std::string(128, '[') + std::string(128, ']')), nullptr);
}

TEST(Json, RefusesWhatIsCutOrTooLarge) {
    const std::string whole = R"({"list":[1,-2.5e3,"a\u00e9\ud83d\ude00é",[true,false,null],{}],"name":{"x":""}})";
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(parse(whole.substr(0, size)), nullptr) << size;
    std::string large(64 << 20, ' ');
    large[0] = '1';
    EXPECT_NE(tree(yajl_tree_parse(large.c_str(), nullptr, 0)), nullptr);
    large += ' ';
    char error[32];
    EXPECT_EQ(yajl_tree_parse(large.c_str(), error, sizeof(error)), nullptr);
    EXPECT_STREQ(error, "text too large");
}

TEST(Json, FindsMembersAndConvertsOrFallsBack) {
    const tree root = parse(R"({"n":12.9,"s":"t","z":"a\u0000b","n":3,"o":{}})");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(json_integer(json_get(root.get(), "n"), -1), 12);
    EXPECT_STREQ(json_text(json_get(root.get(), "s")), "t");
    EXPECT_EQ(json_get(root.get(), "N"), nullptr);
    EXPECT_EQ(json_get(json_get(root.get(), "s"), "n"), nullptr);
    EXPECT_EQ(json_get(nullptr, "n"), nullptr);
    EXPECT_EQ(json_get(root.get(), nullptr), nullptr);
    EXPECT_EQ(json_text(json_get(root.get(), "n")), nullptr);
    EXPECT_EQ(json_integer(json_get(root.get(), "s"), -1), -1);
    const json_t* with_zero = json_get(root.get(), "z");
    EXPECT_EQ(std::string_view(with_zero->text, with_zero->length), std::string_view("a\0b", 3));
}

TEST(Json, EncodedTextComesBackAsItWas) {
    std::string every;
    for (char c = 1; c > 0; ++c)
        every += c;
    every += "é€😀/";
    const core::owned_text encoded(core_json_encode(every.c_str(), CORE_HERE));
    const tree root = parse(quoted(encoded.get()));
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->text, every);
    EXPECT_STREQ(core::owned_text(core_json_encode("\x01\x1f\n\"/\xff\xc3", CORE_HERE)).get(),
                 "\\u0001\\u001f\\n\\\"/\xef\xbf\xbd\xef\xbf\xbd");
    EXPECT_EQ(core_json_encode(nullptr, CORE_HERE), nullptr);
}

TEST(Json, LackOfMemoryIsSaidAndLeavesNothing) {
    const size_t failed = test::fail_each_allocation([] {
        char error[32];
        const tree root(yajl_tree_parse(R"([1,{"a":["b"]}])", error, sizeof(error)));
        EXPECT_STREQ(error, root ? "" : "out of memory");
        core_mfree(core_json_encode("text", CORE_HERE));
    });
    EXPECT_GE(failed, 3U);
}

TEST(Json, TakesTimeAndMemoryInProportionToTheText) {
    const std::string levels = std::string(120, '[') + std::string(120, ']') + ',';
    const char* const parts[] = {"0,",
                                 "[],",
                                 "{\"\":0},",
                                 "\"aaaaaaaaaaaaaaaa\",",
                                 "          ",
                                 ",          ",
                                 "[",
                                 "\\\"",
                                 "1234567890123456789012345678901234567890",
                                 levels.c_str()};
    for (const char* part : parts) {
        const auto text_of = test::repeating("[", part);
        const auto read = [](const std::string& text) { tree(yajl_tree_parse(text.c_str(), nullptr, 0)); };
        EXPECT_TRUE(test::takes_linear_time(text_of, read, 512 << 10)) << part;

        const std::string text = text_of(1 << 16) + "0]";
        const tree root = parse(text);
        EXPECT_LE(core_mem_size(root.get()), 32 * text.size() + sizeof(json_t)) << part;
    }
}

}  // namespace
