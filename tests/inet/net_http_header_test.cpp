#include "inet/net_http_header.h"

#include "core/owned.h"

#include <gtest/gtest.h>

using net::http::header_s;
using namespace std::string_literals;

namespace {

using owned_header = core::owned<header_s, http_header_free>;

owned_header parse(const std::string& bytes) {
    return owned_header(http_header_parse(bytes.data(), static_cast<unsigned>(bytes.size()), CORE_HERE));
}

std::string text(const char* value) { return value ? value : "-"; }

std::string start_of(const header_s& header) {
    return text(header.method) + "|" + text(header.uri) + "|" + text(header.protocol) + "|" +
           std::to_string(header.status);
}

std::string print(const header_s& header) {
    char out[1024];
    EXPECT_GT(http_header_sprintf(&header, out, sizeof(out)), 0);
    return out;
}

}  // namespace

TEST(HeaderFind, TellsCompleteFromMoreAndTooLarge) {
    const std::string end = "\r\n\r\n";
    const std::pair<std::string, int> cases[] = {
        {"A: b\r\n\r\nbody\r\n\r\n", 8}, {std::string(4095, 'a') + "\r\n\r", 0}, {"\r\n\r", 0},
        {std::string(4099, 'a'), -1},    {std::string(4096, 'a') + end, -1},     {std::string(4095, 'a') + end, 4099},
    };
    for (const auto& [bytes, result] : cases)
        EXPECT_EQ(http_find_header(bytes.data(), static_cast<unsigned>(bytes.size())), result) << bytes.size();
}

TEST(HeaderParse, ReadsStartLines) {
    constexpr const char* cases[][3] = {
        // As it is read, and as the older call does, which knows no SIP.
        {"HTTP/ 2  \t 204x", "-|-|-|204", "-|-|-|204"},
        {"SIP/2.0 180 Ringing", "-|-|-|180", "SIP/2.0|180|-|0"},
        {"INVITE sip:a@b SIP/2.0", "INVITE|sip:a@b|SIP/2.0|0", "INVITE|sip:a@b|-|0"},
        {"GET / HTTP/1.1 ", "GET|/|-|0", "GET|/|-|0"},
        {"GET  HTTP/1.1", "GET||HTTP/1.1|0", "GET||HTTP/1.1|0"},
        {"RTSP/1.0 OK 200", "RTSP/1.0|OK|-|0", "RTSP/1.0|OK|-|0"},
        {"HTTP/1.1 99999999999999999999 Huge", "-|-|-|0", "-|-|-|0"},
    };
    for (const auto& [line, parsed, older] : cases) {
        const std::string block = "\r\n\n\r" + std::string(line) + "\r\n\r\n";
        EXPECT_EQ(start_of(*parse(block)), parsed) << line;
        header_s header;
        http_parse_header(&header, block.data(), static_cast<unsigned>(block.size()));
        EXPECT_EQ(start_of(header), older) << line;
        http_clear_header(&header);
    }
}

TEST(HeaderParse, KeepsFieldsInOrderAsWritten) {
    const owned_header header = parse(
        "GET / HTTP/1.1\r\nX: 1\nB: 2\rC: 3\r\nName : a: b \r\nno colon\r\nX:   2\r\n\tX-Odd:\r\nB: \0 2\r\nC: 3\r\n"s);
    std::string all;
    for (value_t* const* field = header->fields; *field; ++field)
        all += text((*field)->key) + "=" + text((*field)->value) + ";";
    EXPECT_EQ(all, "X=1\nB: 2\rC: 3;Name =a: b ;X=2;\tX-Odd=;");
    EXPECT_EQ(http_header_get_value(header.get(), "X"), header->fields[0]->value);
    std::string many = "GET / HTTP/1.1\r\n";
    for (uint32_t i = 0; i <= http_max_fields; ++i)
        many += ":\r\n";
    EXPECT_EQ(value_count(parse(many)->fields), http_max_fields);
}

TEST(HeaderPrint, PutsOneSlashBeforeTheTarget) {
    constexpr const char* cases[][3] = {
        {"/a", "GET /a HTTP/1.1\r\n\r\n", "GET /a HTTP/1.1\r\n\r\n"},
        {nullptr, "GET / HTTP/1.1\r\n\r\n", "GET sip:x HTTP/1.1\r\n\r\n"},
    };
    for (const auto& [uri, printed, with_target] : cases) {
        const owned_header header(http_header_request("GET", uri, "HTTP/1.1"));
        EXPECT_EQ(print(*header), printed);
        EXPECT_STREQ(core::owned_text(http_header_str(header.get(), "sip:x", CORE_HERE)).get(), with_target);
        EXPECT_EQ(http_header_sprintf(header.get(), nullptr, 0), 0);
    }
}

TEST(HeaderPrint, BuildsAResponse) {
    owned_header header(http_header_respond(nullptr, 200, "OK"));
    http_header_put(header.get(), "A", "1");
    http_header_put_uint32(header.get(), "B", 4294967295U);
    http_header_put_format(header.get(), "C", "%d-%s", -7, "x");
    http_header_put(header.get(), "A", "2");
    http_header_set(header.get(), "A", "%d", 3);
    http_header_copy(header.get(), "CSeq", parse("GET / HTTP/1.1\r\ncSEQ: 9\r\n\r\n")->fields);
    EXPECT_EQ(print(*header), "HTTP/1.1 200 OK\r\nA: 3\r\nB: 4294967295\r\nC: -7-x\r\nA: 2\r\nCSeq: 9\r\n\r\n");
    header.reset(http_header_error(nullptr, 404, 0, nullptr));
    EXPECT_EQ(print(*header), "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
}

TEST(HeaderTexts, AreThoseOfTheTables) {
    EXPECT_STREQ(http_get_file_mime("a.b.MP4"), "video/mp4");
    EXPECT_STREQ(core::owned_text(http_get_boundary("x/mixed; boundary=--myb")).get(), "--myb");
    EXPECT_STREQ(core::owned_text(http_get_boundary("x/data;boundary=a-b ; x=y")).get(), "--a-b");
    EXPECT_EQ(http_get_boundary("x/x; boundary"), nullptr);
}
