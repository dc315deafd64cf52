#include "inet/net_uri.h"

#include "support/exact.h"
#include "support/fault.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(const char* value) { return value ? value : "-"; }

/// "user|password|host|port|path|query", "-" for what is absent; "null" for no record.
std::string parts_of(const std::string& input) {
    const test::exact_text exact(input);
    net::uri_s* uri = uri_parse(exact.get(), CORE_HERE);
    if (!uri) return "null";
    EXPECT_EQ(uri->text, input);
    std::string parts = text(uri->user) + "|" + text(uri->password) + "|" + text(uri->host) + "|" +
                        std::to_string(uri->port) + "|" + text(uri->path) + "|" + text(uri->query);
    uri_free(uri);
    return parts;
}

/// "name=value;" for each argument, without '=' when it has no value.
std::string args_of(const std::string& query) {
    const test::exact_text exact(query);
    net::uri_arg_s** args = uri_parse_args(exact.get(), CORE_HERE);
    if (!args) return "null";
    std::string all;
    for (net::uri_arg_s** arg = args; *arg; ++arg)
        all += text((*arg)->name) + ((*arg)->value ? "=" + text((*arg)->value) : "") + ";";
    uri_free_args(args);
    return all;
}

std::string decode(const std::string& input) {
    const test::exact_bytes exact(input);
    return core::owned_text(uri_decode(exact.data(), exact.data() + exact.size(), CORE_HERE)).get();
}

}  // namespace

TEST(Uri, IsSplitIntoItsParts) {
    const std::string long_host(300, 'h');
    const std::string longest_host(255, 'h');
    struct {
        std::string input;
        std::string parts;
    } const cases[] = {
        {"rtsp://admin:pw@10.1.2.3:554/stream1?x=1", "admin|pw|10.1.2.3|554|stream1|?x=1"},
        {"http://user@host/", "user|-|host|0||-"},
        {"http://u:p:q@host/a", "u|p:q|host|0|a|-"},
        {"http://:@host/a", "||host|0|a|-"},
        {"http://host/a@b/c", "host/a|-|b|0|c|-"},
        {"http://host:80/a:b", "-|-|host|80|a:b|-"},
        {"x://host:70000/a", "-|-|host|0|a|-"},
        {"x://host:65535/a", "-|-|host|65535|a|-"},
        {"x://host:65536/a", "-|-|host|0|a|-"},
        {"x://host:99999999999999999999/a", "-|-|host|0|a|-"},
        {"x://host:-1/a", "-|-|host|0|a|-"},
        {"x://host:/a", "-|-|host|0|a|-"},
        {"x://" + long_host + "/a?b", "-|-|-|0|a|?b"},
        {"x://" + longest_host + "/a", "-|-|" + longest_host + "|0|a|-"},
        {"x:///a", "-|-||0|a|-"},
        {"x://host", "-|-|host|0|-|-"},
        {"x://host:8?a=b", "-|-|host|8|-|-"},
        {"x://host?a=/b", "-|-|host?a=|0|-|?a=/b"},
        {"x://u@", "u|-||0|-|-"},
        {"x://", "null"},
        {"/a/b/c", "-|-|-|0|a/b/c|-"},
        {"a", "-|-|-|0|a|-"},
        {"a/b?c?d", "-|-|-|0|b|?c?d"},
        {"?a", "-|-|-|0||?a"},
        {"", "-|-|-|0||-"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(parts_of(each.input), each.parts) << each.input;
    EXPECT_EQ(uri_parse(nullptr, CORE_HERE), nullptr);
    uri_free(nullptr);
}

TEST(UriSubpath, CopiesWhatFits) {
    struct {
        const char* path;
        int index;
        int size;
        const char* out;
    } const segments[] = {
        {"a/b/c", 0, 9, "a"}, {"a/b/c", 1, 9, "b"},  {"a/b/c", 2, 9, "c"},      {"a/b/c", 3, 9, nullptr},
        {"/x", 0, 9, ""},     {"x/", 1, 9, ""},      {"long/path", 1, 3, "pa"}, {"a", 0, 1, ""},
        {"a", 0, 0, nullptr}, {"a", -1, 9, nullptr}, {nullptr, 0, 9, nullptr},
    };
    for (const auto& each : segments) {
        char out[10];
        EXPECT_EQ(text(uri_subpath(each.path, each.index, out, each.size)), text(each.out));
    }
    struct {
        const char* path;
        const char* prefix;
        int size;
        const char* out;
    } const rests[] = {
        {"api/v1/cam", "api", 9, "v1/cam"},
        {"api/v1", "api/", 9, "v1"},
        {"x/api//v1", "api", 9, "/v1"},
        {"api", "api", 9, nullptr},
        {"api/", "api", 9, nullptr},
        {"abc", "x", 9, nullptr},
        {"abc", "", 3, "ab"},
        {"abc", "a", 0, nullptr},
        {"abc", nullptr, 9, nullptr},
        {nullptr, "a", 9, nullptr},
    };
    for (const auto& each : rests) {
        char out[10];
        EXPECT_EQ(text(uri_get_subpath(each.path, each.prefix, out, each.size)), text(each.out));
    }
    EXPECT_EQ(uri_subpath("a", 0, nullptr, 9), nullptr);
    EXPECT_EQ(uri_get_subpath("a", "a", nullptr, 9), nullptr);
}

TEST(UriArgs, AreReadInOrder) {
    const std::string longest(uri_max_arg, 'n');
    struct {
        std::string query;
        std::string args;
    } const cases[] = {
        {"??a=1&b=x+%41&flag", "a=1;b=x A;flag;"},
        {"a=1&& & b=2=3&", "a=1;b=2=3;"},
        {"&a", ";a;"},
        {"%41=%41&a=", "%41=A;a=;"},
        {"a=1&" + longest + "x&b=2", "a=1;b=2;"},
        {longest, longest + ";"},
        {"?", "null"},
        {"", "null"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(args_of(each.query), each.args) << each.query;
    EXPECT_EQ(uri_parse_args(nullptr, CORE_HERE), nullptr);

    std::string many;
    for (uint32_t i = 0; i < uri_max_args + 5; ++i)
        many += "a&";
    EXPECT_EQ(args_of(many).size(), 2 * uri_max_args);
}

TEST(UriCoding, DecodesWhatIsCoded) {
    const std::pair<std::string, std::string> cases[] = {
        {"%41%u00e9+%zz", "A\xc3\xa9 %zz"},
        {"%u20AC", "\xe2\x82\xac"},
        {"%u12", "%u12"},
        {"%u4", "%u4"},
        {"%u41xx", "A"},
        {"%4", "%4"},
        {"%", "%"},
        {"%%41", "%A"},
        {"%u004", "%u004"},
        {"\xff+", "\xff "},
        {"%ud800", "\xef\xbf\xbd"},
        {"", ""},
    };
    for (const auto& [input, decoded] : cases)
        EXPECT_EQ(decode(input), decoded) << input;
    EXPECT_STREQ(core::owned_text(uri_decode("a%20b", nullptr, CORE_HERE)).get(), "a b");
    const core::owned_text nul(uri_decode("a%00b%uzzzzc", nullptr, CORE_HERE));
    EXPECT_EQ(std::string(nul.get(), 5), std::string("a\0b\0c", 5));
    EXPECT_EQ(uri_decode(nullptr, nullptr, CORE_HERE), nullptr);
}

TEST(UriCoding, EncodesAllButASmallAlphabet) {
    const std::pair<const char*, const char*> cases[] = {
        {"a-b_c", "a%2Db%5Fc"}, {"AZaz09!'()*.~", "AZaz09!'()*.~"}, {" \xff/%", "%20%FF%2F%25"}, {"", ""}};
    for (const auto& [input, encoded] : cases)
        EXPECT_STREQ(core::owned_text(uri_encode(input, CORE_HERE)).get(), encoded);
    EXPECT_EQ(uri_encode(nullptr, CORE_HERE), nullptr);

    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    EXPECT_EQ(decode(core::owned_text(uri_encode(all.c_str(), CORE_HERE)).get()), all);
}

TEST(Uri, SurvivesEveryFailedAllocation) {
    const size_t failed = test::fail_each_allocation([] {
        uri_free(uri_parse("x://u:p@h:1/path?a=1", CORE_HERE));
        uri_free_args(uri_parse_args("a=1&b=2&c=3&d=4&e", CORE_HERE));
        core_mfree(uri_encode("a b", CORE_HERE));
    });
    EXPECT_GT(failed, 20U);
}
