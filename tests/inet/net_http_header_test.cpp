#include "inet/net_http_header.h"

#include "support/exact.h"
#include "support/fault.h"

#include "core/memory.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using net::http::header_s;

namespace {

constexpr std::string_view describe =
    "DESCRIBE rtsp://127.0.0.1:8554/live RTSP/1.0\r\n"
    "CSeq:   5\r\n"
    "Accept: application/sdp\r\n"
    "Name : kept: all of it \r\n"
    "no colon here\r\n"
    "X-Twice: 1\r\n"
    "X-Twice: 2\r\n"
    "\tX-Odd:\r\n"
    "\r\n";

struct header_deleter {
    void operator()(header_s* header) const { http_header_free(header); }
};
using owned_header = std::unique_ptr<header_s, header_deleter>;

owned_header parse(std::string_view bytes) {
    const test::exact_bytes input(bytes);
    return owned_header(http_header_parse(input.data(), input.size(), CORE_HERE));
}

std::string text(const char* value) { return value ? value : "(null)"; }

std::string start_of(const header_s& header) {
    return text(header.method) + "|" + text(header.uri) + "|" + text(header.protocol) + "|" +
           std::to_string(header.status);
}

std::string fields_of(const header_s& header) {
    std::string all;
    for (value_t* const* field = header.fields; field && *field; ++field)
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
    struct {
        std::string bytes;
        int result;
    } const cases[] = {
        {"", 0},
        {"\r\n\r", 0},
        {end, 4},
        {"A: b\r\n\r\nbody\r\n\r\n", 8},
        {"A: b\n\n", 0},
        {std::string(4095, 'a') + end, 4099},
        {std::string(4096, 'a') + end, -1},
        {std::string(4095, 'a') + "\r\n\r", 0},
        {std::string(4099, 'a'), -1},
    };
    for (const auto& each : cases) {
        const test::exact_bytes input(each.bytes);
        EXPECT_EQ(http_find_header(input.data(), input.size()), each.result) << each.bytes.size();
        EXPECT_EQ(http_header_find({reinterpret_cast<uint8_t*>(input.data()), input.size()}), each.result);
    }
    EXPECT_EQ(http_find_header(nullptr, 100), 0);
}

TEST(HeaderParse, ReadsStartLines) {
    struct {
        std::string_view line;
        const char* parsed;
        const char* parsed_without_sip;
    } const cases[] = {
        {"RTSP/1.0 200 OK", "(null)|(null)|(null)|200", nullptr},
        {"HTTP/1.1 404", "(null)|(null)|(null)|404", nullptr},
        {"HTTP/ 2  \t 204x", "(null)|(null)|(null)|204", nullptr},
        {"SIP/2.0 180 Ringing", "(null)|(null)|(null)|180", "SIP/2.0|180|(null)|0"},
        {"GET /index.html HTTP/1.1", "GET|/index.html|HTTP/1.1|0", nullptr},
        {"PLAY rtsp://h/a RTSP/1.0", "PLAY|rtsp://h/a|RTSP/1.0|0", nullptr},
        {"INVITE sip:a@b SIP/2.0", "INVITE|sip:a@b|SIP/2.0|0", "INVITE|sip:a@b|(null)|0"},
        {"GET / HTTP/1.0", "GET|/|HTTP/1.0|0", nullptr},
        {"GET / HTTP/1.1 ", "GET|/|(null)|0", nullptr},
        {"GET  HTTP/1.1", "GET||HTTP/1.1|0", nullptr},
        {"GET /", "GET|(null)|(null)|0", nullptr},
        {"GET", "(null)|(null)|(null)|0", nullptr},
        {"RTSP/1.0", "(null)|(null)|(null)|0", nullptr},
        {"RTSP/1.0 OK 200", "RTSP/1.0|OK|(null)|0", nullptr},
        {"HTTP/1.1 99999999999999999999 Huge", "(null)|(null)|(null)|0", nullptr},
        {" / HTTP/1.1", "|/|HTTP/1.1|0", nullptr},
    };
    for (const auto& each : cases) {
        const std::string block = "\r\n\n\r" + std::string(each.line) + "\r\n\r\n";
        EXPECT_EQ(start_of(*parse(block)), each.parsed) << each.line;
        header_s older;
        ASSERT_EQ(http_parse_header(&older, block.data(), static_cast<unsigned>(block.size())), 1);
        EXPECT_EQ(start_of(older), each.parsed_without_sip ? each.parsed_without_sip : each.parsed) << each.line;
        http_clear_header(&older);
        EXPECT_EQ(start_of(older), "(null)|(null)|(null)|0");
    }
}

TEST(HeaderParse, KeepsFieldsInOrderAsWritten) {
    const owned_header header = parse(describe);
    EXPECT_EQ(fields_of(*header), "CSeq=5;Accept=application/sdp;Name =kept: all of it ;X-Twice=1;X-Twice=2;\tX-Odd=;");
    EXPECT_STREQ(http_header_get_value(header.get(), "X-Twice"), "1");
    EXPECT_EQ(http_header_get_value(header.get(), "cseq"), nullptr);
    EXPECT_EQ(header->reason, nullptr);
}

TEST(HeaderParse, IgnoresWhatIsNotALine) {
    EXPECT_EQ(fields_of(*parse("GET / HTTP/1.1\r\nA: 1\r\nB: 2")), "A=1;");
    EXPECT_EQ(fields_of(*parse("GET / HTTP/1.1\r\nA: 1\nB: 2\rC: 3\r\n")), "A=1\nB: 2\rC: 3;");
    EXPECT_EQ(fields_of(*parse(std::string_view("GET / HTTP/1.1\r\nA: 1\r\nB: \0 2\r\nC: 3\r\n", 36))), "A=1;");
    EXPECT_EQ(start_of(*parse("")), "(null)|(null)|(null)|0");
    const owned_header nothing(http_header_parse(nullptr, 10, CORE_HERE));
    EXPECT_EQ(start_of(*nothing), "(null)|(null)|(null)|0");
}

TEST(HeaderParse, CutAnywhereGivesThePartsThatAreWhole) {
    const std::string whole = fields_of(*parse(describe));
    for (size_t size = 0; size < describe.size(); ++size) {
        const owned_header header = parse(describe.substr(0, size));
        ASSERT_NE(header, nullptr);
        EXPECT_TRUE(whole.starts_with(fields_of(*header))) << size;
    }
}

TEST(HeaderParse, HoldsABoundedNumberOfFields) {
    std::string block = "GET / HTTP/1.1\r\n";
    for (uint32_t i = 0; i < http_max_fields + 10; ++i)
        block += ":\r\n";
    EXPECT_EQ(value_count(parse(block)->fields), http_max_fields);
}

TEST(HeaderPrint, PutsOneSlashBeforeTheTarget) {
    struct {
        const char* uri;
        const char* printed;
        const char* text;
    } const cases[] = {
        {"/a", "GET /a HTTP/1.1\r\n\r\n", nullptr},
        {"a", "GET /a HTTP/1.1\r\n\r\n", nullptr},
        {"//a", "GET //a HTTP/1.1\r\n\r\n", nullptr},
        {"", "GET / HTTP/1.1\r\n\r\n", nullptr},
        {nullptr, "GET / HTTP/1.1\r\n\r\n", "GET sip:x HTTP/1.1\r\n\r\n"},
    };
    for (const auto& each : cases) {
        const owned_header header(http_header_request("GET", each.uri, "HTTP/1.1"));
        EXPECT_EQ(print(*header), each.printed);
        const core::owned_text text(http_header_str(header.get(), "sip:x", CORE_HERE));
        EXPECT_STREQ(text.get(), each.text ? each.text : each.printed);
    }
    const owned_header bare(http_header_request(nullptr, nullptr, nullptr));
    EXPECT_EQ(print(*bare), " / \r\n\r\n");
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
    EXPECT_EQ(start_of(*header), "(null)|(null)|RTSP/1.0|461");

    header.reset(http_header_error("RTSP/1.0", 404, 12, "text/html"));
    EXPECT_EQ(print(*header), "RTSP/1.0 404 Not Found\r\nContent-Length: 12\r\nContent-Type: text/html\r\n\r\n");
    header.reset(http_header_error(nullptr, 302, 0, nullptr));
    EXPECT_EQ(print(*header), "HTTP/1.1 302 Unknown error\r\nContent-Length: 0\r\n\r\n");
}

TEST(HeaderPrint, StopsAtTheEndOfTheBuffer) {
    const owned_header header = parse(describe);
    const std::string whole = print(*header);
    for (size_t size = 1; size <= whole.size() + 2; ++size) {
        const std::unique_ptr<char[]> out(new char[size]);
        const auto printed = static_cast<size_t>(http_header_sprintf(header.get(), out.get(), static_cast<int>(size)));
        EXPECT_EQ(std::string(out.get(), printed + 1), whole.substr(0, size - 1) + '\0');
    }
    char untouched = 'x';
    EXPECT_EQ(http_header_sprintf(header.get(), &untouched, 0), 0);
    EXPECT_EQ(http_header_sprintf(header.get(), &untouched, -1), 0);
    EXPECT_EQ(untouched, 'x');
}

TEST(HeaderTexts, AreThoseOfTheTables) {
    EXPECT_STREQ(http_error(401), "Access denied");
    EXPECT_STREQ(http_error(302), "Unknown error");
    struct {
        const char* name;
        const char* type;
    } const types[] = {
        {"a.b.MP4", "video/mp4"},
        {"/x/index.html", "text/html"},
        {"movie.", "application/octet-stream"},
        {"mp4", "application/octet-stream"},
        {"a.mp4/b", "application/octet-stream"},
        {nullptr, "application/octet-stream"},
    };
    for (const auto& each : types)
        EXPECT_STREQ(http_get_file_mime(each.name), each.type);
    struct {
        const char* content_type;
        const char* delimiter;
    } const boundaries[] = {
        {"multipart/x-mixed-replace; boundary=--myb", "--myb"},
        {"multipart/form-data;boundary=a-b ; x=y", "--a-b"},
        {"multipart/x; boundary=---", "--"},
        {"multipart/x; Boundary=a", nullptr},
        {"multipart/x; boundary", nullptr},
        {nullptr, nullptr},
    };
    for (const auto& each : boundaries) {
        const core::owned_text delimiter(http_get_boundary(each.content_type));
        EXPECT_STREQ(delimiter.get(), each.delimiter);
    }
}

TEST(Header, SurvivesEveryFailedAllocation) {
    const auto scenario = [] {
        const owned_header header(
            http_header_parse(describe.data(), static_cast<unsigned>(describe.size()), CORE_HERE));
        EXPECT_EQ(value_count(header ? header->fields : nullptr), header ? 6U : 0U);
        owned_header reply(http_header_error("RTSP/1.0", 200, 5, "a/b"));
        if (!reply) return;
        const std::string before = print(*reply);
        const bool put = http_header_put_format(reply.get(), "F", "%d", 1) != 0;
        EXPECT_EQ(print(*reply) != before, put);
        const bool set = http_header_set(reply.get(), "F", "%d", 2) != 0;
        EXPECT_EQ(http_header_get_value(reply.get(), "F") == std::string("2"), set);
        const bool request = http_put_request(reply.get(), "GET", "/", "HTTP/1.1") != 0;
        EXPECT_EQ(reply->status, request ? 0U : 200U);
        core_mfree(http_header_str(reply.get(), nullptr, CORE_HERE));
        core_mfree(http_get_boundary("x; boundary=a"));
    };
    EXPECT_GT(test::fail_each_allocation(scenario), 20U);
}
