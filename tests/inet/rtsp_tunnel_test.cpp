// RTSP over HTTP, both ends of it.
#include "rtsp_client.h"

#include "common/digest.h"
#include "core/owned.h"

#include <gtest/gtest.h>
#include <utility>

namespace {

using namespace std::string_literals;
using rtsp3::event_t;
using test::rtsp_client;
using test::rtsp_owner;

std::string base64(const std::string& text) { return core::owned_text(b64(text.data(), text.size(), CORE_HERE)).get(); }

const std::string get_head = "GET /live HTTP/1.1\r\nConnection: Close\r\nx-sessioncookie: abc\r\n\r\n";
const std::string post_head = "POST /live HTTP/1.0\r\nx-sessioncookie: abc\r\nContent-Length: 2147483647\r\n\r\n";
const std::string options = "OPTIONS * RTSP/1.0\r\n\r\n";

TEST(RtspTunnel, AnswersOnTheGetWhatThePostAsks) {
    rtsp_owner get, post;
    get.feed(get_head + options);
    EXPECT_EQ(get.sent,
              "HTTP/1.1 200 OK\r\nServer: Norvane-K Rtsp server\r\nConnection: close\r\n"
              "Date: Tue, 14 Nov 2023 22:13:20 GMT\r\nCache-Control: no-store\r\nPragma: no-cache\r\n"
              "Content-Type: application/x-rtsp-tunnelled\r\n\r\n");
    EXPECT_STREQ(get.session->tunnel_cookie(), "abc");
    get.sent.clear();
    get.feed(options);  // not on this connection
    post.before = [&](event_t::enum_t event) {
        if (event == event_t::tunnel_post) post.session->join(get.session);
    };
    get.late = true;
    post.feed(post_head + base64("DESCRIBE rtsp://h/live RTSP/1.0\r\n\r\n") + base64(options));
    EXPECT_EQ(get.sent, "");
    EXPECT_EQ(get.answer(), 1);
    EXPECT_EQ(get.events, "14 1 ");
    EXPECT_LT(get.sent.find("Content-Base: "), get.sent.find("Public: "));
    EXPECT_EQ(post.sent, "");
    EXPECT_EQ(get.session->activity(), 4U);  // with what came on its own connection
}

TEST(RtspTunnel, JoinsOnlyWhatBelongsTogether) {
    rtsp_owner get, post, second;
    post.feed(post_head);
    second.feed(post_head);
    EXPECT_EQ(post.session->join(nullptr), 0);
    EXPECT_EQ(post.session->join(get.session), 0);  // no GET yet
    get.feed(get_head);
    EXPECT_EQ(get.session->join(post.session), 0);
    EXPECT_EQ(post.session->join(get.session), 1);
    EXPECT_EQ(post.session->join(get.session), 0);
    EXPECT_EQ(second.session->join(get.session), 0);
    rtsp3::Rtsp::destroy(std::exchange(post.session, nullptr));
    EXPECT_EQ(second.session->join(get.session), 1);  // players open the POST anew
    rtsp3::Rtsp::destroy(std::exchange(get.session, nullptr));
    second.feed(base64(options));
    EXPECT_EQ(second.events, "15 4 ");
}

TEST(RtspTunnel, EndsWhatIsNoTunnel) {
    const struct {
        std::string bytes;
        const char* events;
        const char* answer;
    } cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", "2 ", "HTTP/1.1 400 Bad Request\r\n"},
        {"POST / RTSP/1.0\r\nx-sessioncookie: \r\n\r\n", "2 ", "HTTP/1.0 400 Bad Request\r\n"},
        {post_head + std::string(100000, 'A'), "15 4 2 ", ""},  // no GET took any of it
        {post_head, "15 4 ", ""},
    };
    rtsp_owner get;
    get.feed(get_head);
    for (const auto& c : cases) {
        rtsp_owner owner;
        owner.feed(c.bytes);
        EXPECT_EQ(owner.events, c.events);
        EXPECT_TRUE(owner.sent.starts_with(c.answer)) << owner.sent;
        EXPECT_EQ(owner.received.length, 0U);
        if (!owner.session->join(get.session)) continue;
        owner.feed("OPTIONS * RTSP/1.0");  // is no Base64
        EXPECT_TRUE(owner.events == "15 4 2 " && owner.session->closed());
    }
}

TEST(RtspTunnel, IsOpenedByAClientOnceTheServerGrantsIt) {
    rtsp_client client;
    client.session->set_tunnel(true);
    client.session->set_protocol(rtsp3::protocol_t::rtp_udp);  // there is no UDP in a tunnel
    client.session->open("rtsp://u:p@h:8554/live?a=b");
    client.feed("HTTP/1.1 401 No\r\nWWW-Authenticate: Basic realm=\"r\"\r\nContent-Length: 4\r\n\r\nno\r\n");
    EXPECT_NE(client.asked.find("Authorization: Basic dTpw\r\n"), std::string::npos);
    client.feed("HTTP/1.1 404 Not Found\r\nContent-Length: 99999999\r\n\r\n");
    EXPECT_EQ(client.events, "14 9 ");

    // Opened anew it asks as at first, in plain text, and behind the heads in Base64.
    client.asked.clear();
    EXPECT_EQ(client.session->open("rtsp://h:8554/live?a=b"), 1);
    client.feed("HTTP/1.1 200 OK\r\n\r\n");
    const std::regex heads(
        "GET /live\\?a=b HTTP/1.0\r\nCSeq: 1\r\nUser-Agent: Norvane-K Rtsp Client 14.01\r\n"
        "x-sessioncookie: ([0-9A-Za-z]{22})\r\nAccept: application/x-rtsp-tunnelled\r\n(.*\r\n)*\r\n"
        "POST /live\\?a=b HTTP/1.0\r\nCSeq: 2\r\nUser-Agent: .*\r\nx-sessioncookie: \\1\r\n(.*\r\n)*\r\n"
        "([0-9A-Za-z+/]+=*)");
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(client.asked, parts, heads)) << client.asked;
    EXPECT_EQ(parts[1].str(), client.session->tunnel_cookie());
    EXPECT_EQ(parts[4].str(), base64("OPTIONS rtsp://h:8554/live?a=b RTSP/1.0\r\nCSeq: 3\r\n"
                                     "User-Agent: Norvane-K Rtsp Client 14.01\r\n\r\n"));
    for (const char* body : {"", "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", "", ""})
        client.feed("RTSP/1.0 200 OK\r\nContent-Length: " + std::to_string(std::string(body).size()) + "\r\n\r\n" +
                    body);
    EXPECT_TRUE(client.session->playing());
}

}  // namespace
