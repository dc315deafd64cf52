// RTSP over HTTP, both ends of it.
#include "rtsp_viewer.h"
#include "support/fault.h"

#include "common/digest.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using rtsp3::event_t;
using test::rtsp_owner;
using test::rtsp_viewer;

class RtspTunnel : public test::at_fixed_time {};

std::string base64(const std::string& text) { return core::owned_text(b64(text.data(), text.size(), CORE_HERE)).get(); }

const std::string get_head = "GET /live HTTP/1.1\r\nConnection: Close\r\nx-sessioncookie: abc\r\n\r\n";
const std::string post_head = "POST /live HTTP/1.0\r\nx-sessioncookie: abc\r\nContent-Length: 2147483647\r\n\r\n";
const std::string head_answer =
    " 200 OK\r\nServer: Norvane-K Rtsp server\r\nConnection: close\r\nDate: Tue, 14 Nov 2023 22:13:20 GMT\r\n"
    "Cache-Control: no-store\r\nPragma: no-cache\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";

std::string ask(const std::string& line, int cseq) {
    return line + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\nTransport: RTP/AVP/TCP\r\n\r\n";
}

/// Requests as clients encode them: by itself with padding, across requests, in lines.
std::vector<std::string> encodings_of(const std::vector<std::string>& requests) {
    std::string each;
    std::string all;
    for (const std::string& request : requests) {
        each += base64(request);
        all += request;
    }
    all = base64(all);
    std::string lines;
    for (size_t at = 0; at < all.size(); at += 63)
        lines += all.substr(at, 63) + "\r\n";
    return {each, all, lines};
}

const std::vector<std::string> requests = {ask("OPTIONS *", 1),
                                           ask("DESCRIBE rtsp://h/live", 22),
                                           ask("SETUP rtsp://h/live/video", 333),
                                           ask("PLAY rtsp://h/live", 4),
                                           "$\1\0\4\x81\xc9\0\0"s,
                                           ask("TEARDOWN rtsp://h/live", 55)};

TEST_F(RtspTunnel, ServesThePostOnTheGetHoweverItIsCut) {
    rtsp_owner plain;
    for (const std::string& request : requests)
        plain.feed(request);
    const std::regex varying("(Session: |seq=)\\d+");
    const std::string expected = std::regex_replace(plain.sent, varying, "$1N");
    for (const std::string& body : encodings_of(requests)) {
        const std::string stream = post_head + body;
        for (size_t cut = 0; cut <= stream.size(); ++cut) {
            rtsp_owner get;
            rtsp_owner post;
            get.feed(get_head + "OPTIONS * RTSP/1.0\r\n\r\n");
            ASSERT_EQ(get.sent, "HTTP/1.1" + head_answer);
            ASSERT_EQ(get.events, "14 ");
            ASSERT_STREQ(get.session->tunnel_cookie(), "abc");
            get.sent.clear();
            get.feed("OPTIONS * RTSP/1.0\r\n\r\n");  // not on this connection
            // Joined in the event or, when the POST came first, later.
            post.before = [&](event_t::enum_t event) {
                if (event == event_t::tunnel_post && cut % 2) post.session->join(get.session);
            };
            post.feed(stream.substr(0, cut));
            post.session->join(get.session);
            post.feed(stream.substr(cut));
            post.session->join(get.session);
            ASSERT_EQ(std::regex_replace(get.sent, varying, "$1N"), expected) << "cut at " << cut;
            ASSERT_EQ(post.sent, "");
            ASSERT_EQ(get.session->activity(), requests.size() + 1);
        }
    }
}

TEST_F(RtspTunnel, WaitsForTheEndOfACallOfTheOtherSession) {
    rtsp_owner get;
    rtsp_owner post;
    post.feed(post_head + base64(requests[0]));
    get.before = [&](event_t::enum_t event) {
        if (event == event_t::tunnel_get) post.session->join(get.session);
    };
    get.feed(get_head);
    EXPECT_NE(get.sent.find("Public: "), std::string::npos);
}

TEST_F(RtspTunnel, JoinsOnlyWhatBelongsTogether) {
    rtsp_owner get;
    rtsp_owner post;
    rtsp_owner second;
    rtsp_owner plain;
    post.feed(post_head);
    second.feed(post_head);
    EXPECT_EQ(post.session->join(nullptr), 0);
    EXPECT_EQ(post.session->join(get.session), 0);  // no GET yet
    get.feed(get_head);
    EXPECT_EQ(get.session->join(post.session), 0);
    EXPECT_EQ(plain.session->join(get.session), 0);
    EXPECT_EQ(post.session->join(get.session), 1);
    EXPECT_EQ(post.session->join(get.session), 0);
    EXPECT_EQ(second.session->join(get.session), 0);
    rtsp3::Rtsp::destroy(std::exchange(post.session, nullptr));
    EXPECT_EQ(second.session->join(get.session), 1);  // players open the POST anew
    rtsp3::Rtsp::destroy(std::exchange(get.session, nullptr));
    second.feed(base64(requests[0]));
    EXPECT_EQ(second.events, "15 4 ");
}

TEST_F(RtspTunnel, EndsWhatIsNoTunnel) {
    const struct {
        std::string bytes;
        const char* events;
        const char* answer;
    } cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", "2 ", "HTTP/1.1 400 Bad Request\r\n"},
        {"POST / RTSP/1.0\r\nx-sessioncookie: \r\n\r\n", "2 ", "HTTP/1.0 400 Bad Request\r\n"},
        {"GET / RTSP/1.0\r\nX-SessionCookie: a\r\n\r\n", "14 ", "HTTP/1.0 200 OK\r\n"},
        {post_head + std::string(100000, 'A'), "15 4 2 ", ""},
    };
    for (const auto& c : cases) {
        rtsp_owner owner;
        owner.feed(c.bytes);
        EXPECT_EQ(owner.events, c.events);
        EXPECT_TRUE(owner.sent.starts_with(c.answer)) << owner.sent;
        EXPECT_EQ(owner.received.length, 0U);
    }
    for (const char* garbage : {"QUJ*", "=QUJ", "QUJD====", "Q===", "QU=D", "\x01\x02\x03\x04", "OPTIONS * RTSP/1.0"}) {
        rtsp_owner get;
        rtsp_owner post;
        get.feed(get_head);
        post.feed(post_head);
        post.session->join(get.session);
        post.feed(garbage);
        EXPECT_EQ(post.events, "15 4 2 ") << garbage;
        EXPECT_TRUE(post.session->closed());
    }
}

/// The wire of a tunnel: what the viewer sends goes to the first connection until it has to open the second.
void exchange(rtsp_viewer& viewer, rtsp_owner& get, rtsp_owner& post, const bool& second) {
    buf_t* const out = get.session->send_buffer();
    while (!viewer.posted.empty() || out->length > 0) {
        (second ? post : get).feed(std::exchange(viewer.posted, {}));
        viewer.feed({reinterpret_cast<char*>(out->data), out->length});
        core_buf_ignore(out, out->length);
    }
}

TEST_F(RtspTunnel, CarriesOurClientToOurServer) {
    rtsp_owner get;
    rtsp_owner post;
    rtsp_viewer viewer;
    bool second = false;
    get.reading = false;
    post.before = [&](event_t::enum_t event) {
        if (event == event_t::tunnel_post) post.session->join(get.session);
    };
    viewer.before = [&](event_t::enum_t event) {
        if (event != event_t::tunnel_post) return;
        second = true;
        viewer.posted.clear();
    };
    viewer.session->set_tunnel(true);
    viewer.session->set_protocol(rtsp3::protocol_t::rtp_udp);  // there is no UDP in a tunnel
    ASSERT_EQ(viewer.session->open("rtsp://u:p@h:8554/live?a=b"), 1);
    exchange(viewer, get, post, second);
    EXPECT_EQ(viewer.events, "14 15 0 3 3 3 5 6 ");
    EXPECT_STREQ(get.session->tunnel_cookie(), viewer.session->tunnel_cookie());
    const std::regex heads(
        "GET /live\\?a=b HTTP/1.0\r\nCSeq: 1\r\nUser-Agent: Norvane-K Rtsp Client 14.01\r\n"
        "x-sessioncookie: [0-9A-Za-z]{22}\r\nAccept: application/x-rtsp-tunnelled\r\n(.*\r\n)*"
        "POST /live\\?a=b HTTP/1.0\r\nCSeq: 2\r\n(.*\r\n)*\r\n[0-9A-Za-z+/=]*");
    EXPECT_TRUE(std::regex_match(viewer.asked, heads)) << viewer.asked;
    for (int i = 0; i < 3; ++i) {
        get.time += 3000000;
        get.send(test::access_unit(5000));
        exchange(viewer, get, post, second);
    }
    viewer.session->flush();
    ASSERT_EQ(viewer.frames.size(), 4U);
    for (const test::received_t& frame : viewer.frames)
        EXPECT_TRUE(frame.key && frame.complete);
    EXPECT_GT(get.session->activity(), 7U);  // reports came too

    // They take no memory any more.
    const std::string report = test::sender_report(viewer.session->trak(0U)->rtp->ssrc, 0, 0);
    viewer.rtp(1, report);
    viewer.session->set_handler(nullptr);
    viewer.session->send_buffer()->length = 0;
    {
        const test::allocation_count count;
        viewer.rtp(1, report);
        EXPECT_EQ(count.value(), 0U);
    }
    EXPECT_EQ(viewer.session->send_buffer()->length, 36U / 3 * 4);
}

TEST_F(RtspTunnel, SaysWhenTheServerRefuses) {
    rtsp_viewer viewer;
    viewer.session->set_tunnel(true);
    viewer.session->open("rtsp://u:p@h/live");
    const std::string challenge = "WWW-Authenticate: Basic realm=\"r\"\r\n";
    viewer.feed("HTTP/1.1 401 Unauthorized\r\n" + challenge + "Content-Length: 4\r\n\r\nno\r\n");
    EXPECT_NE(viewer.asked.find("Authorization: Basic dTpw\r\n"), std::string::npos);
    viewer.feed("HTTP/1.1 404 Not Found\r\nContent-Length: 99999999\r\n\r\n");
    EXPECT_EQ(viewer.events, "14 9 ");
    EXPECT_STREQ(viewer.session->method(), "GET");

    // Once more from the start, whose GET is not Base64.
    viewer.session->open("rtsp://h/live");
    viewer.feed("HTTP/1.1 200 OK\r\n\r\n");
    viewer.asked.clear();
    EXPECT_EQ(viewer.session->open("rtsp://h/live"), 1);
    EXPECT_TRUE(viewer.asked.starts_with("GET /live HTTP/1.0\r\n")) << viewer.asked;
}

TEST_F(RtspTunnel, LosesNothingButWhatFoundNoMemory) {
    const std::string body = encodings_of(requests)[0];
    EXPECT_GT(test::fail_each_allocation([&] {
                  rtsp_owner get;
                  rtsp_owner post;
                  if (!get.session || !post.session) return;
                  get.feed(get_head);
                  post.feed(post_head);
                  post.session->join(get.session);
                  post.feed(body);
                  core_mem_set_fault(nullptr);
                  if (get.session->closed() || post.session->closed() || post.events.empty()) return;
                  post.feed("");
                  get.feed("");
                  post.session->join(get.session);
                  EXPECT_LE(get.session->activity(), requests.size() + 1);
              }),
              40U);
}

}  // namespace
