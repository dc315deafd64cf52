#include "inet/net_uri.h"

#include "core/owned.h"

#include <gtest/gtest.h>

namespace {

std::string text(const char* value) { return value ? value : "-"; }

/// "user|password|host|port|path|query", "-" for what is absent; "null" for no record.
std::string parts_of(const std::string& input) {
    net::uri_s* uri = uri_parse(input.c_str(), CORE_HERE);
    if (!uri) return "null";
    const std::string parts = text(uri->user) + "|" + text(uri->password) + "|" + text(uri->host) + "|" +
                              std::to_string(uri->port) + "|" + text(uri->path) + "|" + text(uri->query);
    uri_free(uri);
    return parts;
}

/// "name=value;" for each argument, without '=' when it has no value.
std::string args_of(const std::string& query) {
    net::uri_arg_s** args = uri_parse_args(query.c_str(), CORE_HERE);
    std::string all;
    for (net::uri_arg_s** arg = args; arg && *arg; ++arg)
        all += text((*arg)->name) + ((*arg)->value ? "=" + text((*arg)->value) : "") + ";";
    uri_free_args(args);
    return all;
}

}  // namespace

TEST(Uri, IsSplitIntoItsParts) {
    const std::string longest(255, 'h');
    const std::pair<std::string, std::string> cases[] = {
        {"rtsp://admin:p:w@10.1.2.3:554/stream1?x=1", "admin|p:w|10.1.2.3|554|stream1|?x=1"},
        {"http://host/a@b/c", "host/a|-|b|0|c|-"},
        {"x://:@host:65535/a", "||host|65535|a|-"},
        {"x://host:65536/a", "-|-|host|0|a|-"},
        {"x://h" + longest + "/a?b", "-|-|-|0|a|?b"},
        {"x://" + longest + "/a", "-|-|" + longest + "|0|a|-"},
        {"x://host?a=/b", "-|-|host?a=|0|-|?a=/b"},
        {"x://", "null"},
        {"a/b?c?d", "-|-|-|0|b|?c?d"},
        {"", "-|-|-|0||-"},
    };
    for (const auto& [input, parts] : cases)
        EXPECT_EQ(parts_of(input), parts) << input;
}

TEST(UriSubpath, CopiesWhatFits) {
    char out[10];
    std::string segments, sizes;
    for (int i = -1; i < 4; ++i) {
        segments += text(uri_subpath("a/b/", i, out, 9)) + ";";
        sizes += text(uri_subpath("x/long", 1, out, i)) + ";" + text(uri_get_subpath("abc", "", out, i)) + ";";
    }
    EXPECT_EQ(segments, "-;a;b;;-;");
    EXPECT_EQ(sizes, "-;-;-;-;;;l;a;lo;ab;");
    constexpr const char* rests[][3] = {
        {"api/v1/cam", "api", "v1/cam"}, {"api/", "api", "-"}, {"x/api//v1", "api", "/v1"},
        {"api/v1", "api/", "v1"},        {"abc", "x", "-"},
    };
    for (const auto& [path, prefix, rest] : rests)
        EXPECT_EQ(text(uri_get_subpath(path, prefix, out, 9)), rest) << path << prefix;
}

TEST(UriArgs, AreReadInOrder) {
    const std::string longest(uri_max_arg, 'n');
    EXPECT_EQ(args_of("??&a=1&b=x+%41&flag&"), ";a=1;b=x A;flag;");
    EXPECT_EQ(args_of("a=1&" + longest + "x&" + longest), "a=1;" + longest + ";");
    std::string many;
    for (uint32_t i = 0; i <= uri_max_args; ++i)
        many += "a&";
    EXPECT_EQ(args_of(many).size(), 2 * uri_max_args);
}

TEST(UriCoding, DecodesWhatIsCoded) {
    constexpr std::pair<const char*, const char*> cases[] = {
        {"%41%u00e9+%zz", "A\xc3\xa9 %zz"},
        {"%u004", "%u004"},
        {"%u41xx", "A"},
        {"%u12", "%u12"},
        {"%u20AC\xff", "\xe2\x82\xac\xff"},
        {"%", "%"},
        {"", ""},
        {"%ud800", "\xef\xbf\xbd"},
        {"%uD83D%uDE00%uDE00", "\xf0\x9f\x98\x80\xef\xbf\xbd"},
        {"%ud83d%u0041",
         "\xef\xbf\xbd"
         "A"},
    };
    for (const auto& [input, decoded] : cases)
        EXPECT_STREQ(core::owned_text(uri_decode(input, nullptr, CORE_HERE)).get(), decoded);
    const core::owned_text nul(uri_decode("a%00b%uzzzzc", nullptr, CORE_HERE));
    EXPECT_EQ(std::string(nul.get(), 5), std::string("a\0b\0c", 5));
    const core::owned_text encoded(uri_encode("AZaz09!'()*.~-_ \xff/%@[`{", CORE_HERE));
    EXPECT_STREQ(encoded.get(), "AZaz09!'()*.~%2D%5F%20%FF%2F%25%40%5B%60%7B");
    const core::owned_text rest(uri_encode_rest("/a b%20%2f%\r\xc3\xa9+?\x7f~", CORE_HERE));
    EXPECT_STREQ(rest.get(), "/a%20b%20%2f%%0D%C3%A9+?%7F~");
    EXPECT_STREQ(core::owned_text(uri_encode_path("a/b c-_.~%#?\xff:@\\", CORE_HERE)).get(),
                 "a/b%20c-_.~%25%23%3F%FF:@%5C");
    EXPECT_STREQ(core::owned_text(uri_decode_part("p%40+%u00e9%4", nullptr, CORE_HERE)).get(), "p@+%u00e9%4");
}

TEST(UriResolve, FindsWhatAReferenceMeans) {
    constexpr const char* cases[][2] = {
        {"http://o:1/d?e", "http://o:1/d?e"},
        {"//o/d", "http://o/d"},
        {"/d", "http://h/d"},
        {"d?e=/../", "http://h/a/d?e=/../"},
        {"../../d", "http://h/d"},
        {"?e", "http://h/a/b?e"},
        {"./", "http://h/a/"},
        {"d:8/e", "http://h/a/d:8/e"},
    };
    for (const auto& [reference, resolved] : cases)
        EXPECT_STREQ(core::owned_text(uri_resolve("http://h/a/b?c=/", reference, CORE_HERE)).get(), resolved);
    EXPECT_EQ(uri_resolve("h/a", "b", CORE_HERE), nullptr);
}
