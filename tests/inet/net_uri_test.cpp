// URIs and their parts. That nothing is lost, cut or starved, is for the fuzz target.
#include "inet/net_uri.h"

#include "support/exact.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string text(const char* value) { return value ? value : "-"; }

/// "user|password|host|port|path|query", "-" for what is absent; "null" for no record.
std::string parts_of(const std::string& input) {
    net::uri_s* uri = uri_parse(test::exact_text(input).get(), CORE_HERE);
    if (!uri) return "null";
    EXPECT_EQ(uri->text, input);
    std::string parts = text(uri->user) + "|" + text(uri->password) + "|" + text(uri->host) + "|" +
                        std::to_string(uri->port) + "|" + text(uri->path) + "|" + text(uri->query);
    uri_free(uri);
    return parts;
}

/// "name=value;" for each argument, without '=' when it has no value.
std::string args_of(const std::string& query) {
    net::uri_arg_s** args = uri_parse_args(test::exact_text(query).get(), CORE_HERE);
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
    const std::string longest_host(255, 'h');
    const std::pair<std::string, std::string> cases[] = {
        {"rtsp://admin:pw@10.1.2.3:554/stream1?x=1", "admin|pw|10.1.2.3|554|stream1|?x=1"},
        {"http://user@host/", "user|-|host|0||-"},
        {"http://u:p:q@host/a", "u|p:q|host|0|a|-"},
        {"http://:@host/a", "||host|0|a|-"},
        {"http://host/a@b/c", "host/a|-|b|0|c|-"},
        {"x://host:65535/a", "-|-|host|65535|a|-"},
        {"x://host:65536/a", "-|-|host|0|a|-"},
        {"x://host:99999999999999999999/a", "-|-|host|0|a|-"},
        {"x://h" + longest_host + "/a?b", "-|-|-|0|a|?b"},
        {"x://" + longest_host + "/a", "-|-|" + longest_host + "|0|a|-"},
        {"x://host", "-|-|host|0|-|-"},
        {"x://host:8?a=b", "-|-|host|8|-|-"},
        {"x://host?a=/b", "-|-|host?a=|0|-|?a=/b"},
        {"x://u@", "u|-||0|-|-"},
        {"x://", "null"},
        {"/a/b/c", "-|-|-|0|a/b/c|-"},
        {"a/b?c?d", "-|-|-|0|b|?c?d"},
        {"?a", "-|-|-|0||?a"},
        {"", "-|-|-|0||-"},
    };
    for (const auto& [input, parts] : cases)
        EXPECT_EQ(parts_of(input), parts) << input;
}

TEST(UriSubpath, CopiesWhatFits) {
    constexpr struct {
        const char* path;
        int index, size;
        const char* out;
    } segments[] = {
        {"a/b/c", 0, 9, "a"}, {"a/b/c", 1, 9, "b"},      {"a/b/c", 2, 9, "c"}, {"a/b/c", 3, 9, "-"}, {"/x", 0, 9, ""},
        {"x/", 1, 9, ""},     {"long/path", 1, 3, "pa"}, {"a", 0, 1, ""},      {"a", 0, 0, "-"},     {"a", -1, 9, "-"},
    };
    char out[10];
    for (const auto& each : segments)
        EXPECT_EQ(text(uri_subpath(each.path, each.index, out, each.size)), each.out) << each.path << each.index;
    constexpr struct {
        const char *path, *prefix;
        int size;
        const char* out;
    } rests[] = {
        {"api/v1/cam", "api", 9, "v1/cam"},
        {"api/v1", "api/", 9, "v1"},
        {"x/api//v1", "api", 9, "/v1"},
        {"api", "api", 9, "-"},
        {"api/", "api", 9, "-"},
        {"abc", "x", 9, "-"},
        {"abc", "", 3, "ab"},
        {"abc", "a", 0, "-"},
    };
    for (const auto& each : rests)
        EXPECT_EQ(text(uri_get_subpath(each.path, each.prefix, out, each.size)), each.out) << each.path << each.prefix;
}

TEST(UriArgs, AreReadInOrder) {
    const std::string longest(uri_max_arg, 'n');
    const std::pair<std::string, std::string> cases[] = {
        {"??a=1&b=x+%41&flag", "a=1;b=x A;flag;"},
        {"&a", ";a;"},
        {"a=1&" + longest + "x&b=2", "a=1;b=2;"},
        {longest, longest + ";"},
        {"?", "null"},
        {"", "null"},
    };
    for (const auto& [query, args] : cases)
        EXPECT_EQ(args_of(query), args) << query;
    std::string many;
    for (uint32_t i = 0; i <= uri_max_args; ++i)
        many += "a&";
    EXPECT_EQ(args_of(many).size(), 2 * uri_max_args);
}

TEST(UriCoding, DecodesWhatIsCoded) {
    const std::pair<std::string, std::string> cases[] = {
        {"%41%u00e9+%zz", "A\xc3\xa9 %zz"},
        {"%u20AC", "\xe2\x82\xac"},
        {"%u12", "%u12"},
        {"%u41xx", "A"},
        {"%", "%"},
        {"%u004", "%u004"},
        {"\xff+", "\xff "},
        {"%ud800", "\xef\xbf\xbd"},
        {"", ""},
    };
    for (const auto& [input, decoded] : cases)
        EXPECT_EQ(decode(input), decoded) << input;
    const core::owned_text nul(uri_decode("a%00b%uzzzzc", nullptr, CORE_HERE));
    EXPECT_EQ(std::string(nul.get(), 5), std::string("a\0b\0c", 5));
}

TEST(UriCoding, EncodesAllButASmallAlphabet) {
    const std::pair<const char*, const char*> cases[] = {
        {"a-b_c", "a%2Db%5Fc"}, {"AZaz09!'()*.~", "AZaz09!'()*.~"}, {" \xff/%@[`{", "%20%FF%2F%25%40%5B%60%7B"}};
    for (const auto& [input, encoded] : cases)
        EXPECT_STREQ(core::owned_text(uri_encode(input, CORE_HERE)).get(), encoded);
}
