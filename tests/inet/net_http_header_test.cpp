// Heads read and built. That nothing is lost, cut or starved, is for the fuzz target.
#include "inet/net_http_header.h"

#include "support/exact.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

using net::http::header_s;

namespace {

struct header_deleter {
    void operator()(header_s* header) const { http_header_free(header); }
};
using owned_header = std::unique_ptr<header_s, header_deleter>;

owned_header parse(std::string_view bytes) {
    const test::exact_bytes input(bytes);
    return owned_header(http_header_parse(input.data(), input.size(), CORE_HERE));
}

std::string text(const char* value) { return value ? value : "-"; }

std::string start_of(const header_s& header) {
    return text(header.method) + "|" + text(header.uri) + "|" + text(header.protocol) + "|" +
           std::to_string(header.status);
}

std::string fields_of(std::string_view fields) {
    const owned_header header = parse("GET / HTTP/1.1\r\n" + std::string(fields));
    std::string all;
    for (value_t* const* field = header->fields; field && *field; ++field)
        all += text((*field)->key) + "=" + text((*field)->value) + ";";
    return all;
}

std::string print(const header_s& header) {
    char out[1024];
    const int size = http_header_sprintf(&header, out, sizeof(out));
    EXPECT_EQ(std::string(out).size(), static_cast<size_t>(size));
    return out;
}

}  // namespace

TEST(HeaderFind, TellsCompleteFromMoreAndTooLarge) {
    const std::string end = "\r\n\r\n";
    const std::pair<std::string, int> cases[] = {
        {"", 0},
        {"\r\n\r", 0},
        {end, 4},
        {"A: b\r\n\r\nbody\r\n\r\n", 8},
        {std::string(4095, 'a') + end, 4099},
        {std::string(4096, 'a') + end, -1},
        {std::string(4095, 'a') + "\r\n\r", 0},
        {std::string(4099, 'a'), -1},
    };
    for (const auto& [bytes, result] : cases) {
        const test::exact_bytes input(bytes);
        EXPECT_EQ(http_find_header(input.data(), input.size()), result) << bytes.size();
        EXPECT_EQ(http_header_find({reinterpret_cast<uint8_t*>(input.data()), input.size()}), result);
    }
}

TEST(HeaderParse, ReadsStartLines) {
    constexpr struct {
        std::string_view line;
        const char* parsed;
        const char* parsed_without_sip = parsed;
    } cases[] = {
        {"RTSP/1.0 200 OK", "-|-|-|200"},
        {"HTTP/ 2  \t 204x", "-|-|-|204"},
        {"SIP/2.0 180 Ringing", "-|-|-|180", "SIP/2.0|180|-|0"},
        {"GET /index.html HTTP/1.1", "GET|/index.html|HTTP/1.1|0"},
        {"PLAY rtsp://h/a RTSP/1.0", "PLAY|rtsp://h/a|RTSP/1.0|0"},
        {"INVITE sip:a@b SIP/2.0", "INVITE|sip:a@b|SIP/2.0|0", "INVITE|sip:a@b|-|0"},
        {"GET / HTTP/1.1 ", "GET|/|-|0"},
        {"GET  HTTP/1.1", "GET||HTTP/1.1|0"},
        {"GET /", "GET|-|-|0"},
        {"GET", "-|-|-|0"},
        {"RTSP/1.0 OK 200", "RTSP/1.0|OK|-|0"},
        {"HTTP/1.1 99999999999999999999 Huge", "-|-|-|0"},
    };
    for (const auto& each : cases) {
        const std::string block = "\r\n\n\r" + std::string(each.line) + "\r\n\r\n";
        EXPECT_EQ(start_of(*parse(block)), each.parsed) << each.line;
        header_s older;
        ASSERT_EQ(http_parse_header(&older, block.data(), static_cast<unsigned>(block.size())), 1);
        EXPECT_EQ(start_of(older), each.parsed_without_sip) << each.line;
        http_clear_header(&older);
        EXPECT_EQ(start_of(older), "-|-|-|0");
    }
}

TEST(HeaderParse, KeepsFieldsInOrderAsWritten) {
    constexpr std::pair<std::string_view, const char*> cases[] = {
        {"CSeq:   5\r\nName : kept: all of it \r\nno colon\r\nX: 1\r\nX: 2\r\n\tX-Odd:\r\n\r\n",
         "CSeq=5;Name =kept: all of it ;X=1;X=2;\tX-Odd=;"},
        {"A: 1\nB: 2\rC: 3\r\n", "A=1\nB: 2\rC: 3;"},
        {{"A: 1\r\nB: \0 2\r\nC: 3\r\n", 20}, "A=1;"},
    };
    for (const auto& [fields, kept] : cases)
        EXPECT_EQ(fields_of(fields), kept);
    const owned_header twice = parse("GET / HTTP/1.1\r\nX: 1\r\nX: 2\r\n");
    EXPECT_STREQ(http_header_get_value(twice.get(), "X"), "1");
    EXPECT_EQ(http_header_get_value(twice.get(), "x"), nullptr);
    std::string many;
    for (uint32_t i = 0; i <= http_max_fields; ++i)
        many += ":\r\n";
    EXPECT_EQ(fields_of(many).size(), 2 * http_max_fields);
}

TEST(HeaderPrint, PutsOneSlashBeforeTheTarget) {
    constexpr struct {
        const char* uri;
        const char* printed;
        const char* text = printed;
    } cases[] = {
        {"/a", "GET /a HTTP/1.1\r\n\r\n"},
        {"//a", "GET //a HTTP/1.1\r\n\r\n"},
        {"", "GET / HTTP/1.1\r\n\r\n"},
        {nullptr, "GET / HTTP/1.1\r\n\r\n", "GET sip:x HTTP/1.1\r\n\r\n"},
    };
    for (const auto& each : cases) {
        const owned_header header(http_header_request("GET", each.uri, "HTTP/1.1"));
        EXPECT_EQ(print(*header), each.printed);
        EXPECT_STREQ(core::owned_text(http_header_str(header.get(), "sip:x", CORE_HERE)).get(), each.text);
        char untouched = 'x';
        for (const int size : {0, -1})
            EXPECT_EQ(http_header_sprintf(header.get(), &untouched, size), 0);
        EXPECT_EQ(untouched, 'x');
    }
}

TEST(HeaderPrint, BuildsAResponse) {
    owned_header header(http_header_respond(nullptr, 200, "OK"));
    http_header_put(header.get(), "A", "1");
    http_header_put_uint32(header.get(), "B", 4294967295U);
    http_header_put_format(header.get(), "C", "%d-%s", -7, "x");
    http_header_put(header.get(), "A", "2");
    http_header_set(header.get(), "A", "%d", 3);
    http_header_set(header.get(), "D", "%s", "new");
    const owned_header request = parse("GET / HTTP/1.1\r\ncSEQ: 9\r\n\r\n");
    EXPECT_EQ(http_header_copy(header.get(), "CSeq", request->fields), 1);
    EXPECT_EQ(http_header_copy(header.get(), "Missing", request->fields), 1);
    EXPECT_EQ(print(*header),
              "HTTP/1.1 200 OK\r\nA: 3\r\nB: 4294967295\r\nC: -7-x\r\nA: 2\r\nD: new\r\nCSeq: 9\r\n\r\n");

    http_put_request(header.get(), "GET", "/", "HTTP/1.0");
    EXPECT_EQ(start_of(*header), "GET|/|HTTP/1.0|0");
    http_put_response(header.get(), "RTSP/1.0", 461, http_error(461));
    EXPECT_EQ(start_of(*header), "-|-|RTSP/1.0|461");
    header.reset(http_header_error("RTSP/1.0", 404, 12, "text/html"));
    EXPECT_EQ(print(*header), "RTSP/1.0 404 Not Found\r\nContent-Length: 12\r\nContent-Type: text/html\r\n\r\n");
    header.reset(http_header_error(nullptr, 302, 0, nullptr));
    EXPECT_EQ(print(*header), "HTTP/1.1 302 Unknown error\r\nContent-Length: 0\r\n\r\n");
}

TEST(HeaderTexts, AreThoseOfTheTables) {
    EXPECT_STREQ(http_get_file_mime("a.b.MP4"), "video/mp4");
    EXPECT_STREQ(http_get_file_mime("movie."), "application/octet-stream");
    EXPECT_STREQ(http_get_file_mime(nullptr), "application/octet-stream");
    constexpr std::pair<const char*, const char*> boundaries[] = {
        {"multipart/x-mixed-replace; boundary=--myb", "--myb"},
        {"multipart/form-data;boundary=a-b ; x=y", "--a-b"},
        {"multipart/x; boundary=---", "--"},
        {"multipart/x; boundary", nullptr},
    };
    for (const auto& [type, delimiter] : boundaries)
        EXPECT_STREQ(core::owned_text(http_get_boundary(type)).get(), delimiter);
}
