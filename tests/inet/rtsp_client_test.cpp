// What the RTSP session asks a server, and what it makes of answers and packets, true or not.
#include "rtsp_viewer.h"
#include "support/fault.h"
#include "support/log_lines.h"

#include "inet/net_http_auth.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using rtsp3::event_t;
using rtsp3::protocol_t;
using test::rtp_packet;
using test::rtsp_owner;
using test::rtsp_viewer;

class RtspClient : public test::at_fixed_time {};

const std::string sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n";
const std::string two_tracks = sdp + "m=audio 0 RTP/AVP 0\r\na=control:audio\r\n";
const char* const dialog = "server_digest.txt";
const std::string tunnel_answer = "HTTP/1.0 200 OK\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";
const char* const secret_uri = "rtsp://admin:p%40:s@10.0.0.7/live";

std::string flat(const rtsp_viewer& viewer) {
    std::string all;
    for (const test::received_t& f : viewer.frames)
        all += std::to_string(f.fcc) + f.data + (f.key ? " key " : " ") + (f.complete ? "" : "torn ") +
               std::to_string(f.time) + " " + std::to_string(f.media_time) + " " + std::to_string(f.ntp_time) + "\n";
    return all;
}

TEST_F(RtspClient, GoesFromOptionsToPlayAndDeliversFrames) {
    rtsp_viewer viewer;
    ASSERT_EQ(viewer.session->open(secret_uri), 1);
    viewer.feed(test::read_dialog(dialog));

    const std::string agent = "User-Agent: Norvane-K Rtsp Client 14.01\r\n";
    const auto asked = [&](const std::string& line, int cseq, const std::string& session, const std::string& field) {
        const size_t blank = line.find(' ');
        const core::owned_text answer(net_http_authenticate("admin", "p@:s", line.substr(0, blank).c_str(),
                                                            line.substr(blank + 1).c_str(),
                                                            "Digest realm=\"camera\", nonce=\"7a11\"", CORE_HERE));
        const std::string credentials = cseq < 3 ? "" : "Authorization: "s + answer.get() + "\r\n";
        return line + " RTSP/1.0\r\nCSeq: " + std::to_string(cseq) + "\r\n" + agent + session + field + credentials +
               "\r\n";
    };
    const std::string session = "Session: 8A-b\r\n";
    const std::string tcp = "Transport: RTP/AVP/TCP;unicast;interleaved=";
    EXPECT_EQ(viewer.asked, asked("OPTIONS rtsp://10.0.0.7/live", 1, "", "") +
                                asked("DESCRIBE rtsp://10.0.0.7/live", 2, "", "Accept: application/sdp\r\n") +
                                asked("DESCRIBE rtsp://10.0.0.7/live", 3, "", "Accept: application/sdp\r\n") +
                                asked("SETUP rtsp://10.0.0.7/live/trackID=1", 4, "", tcp + "0-1\r\n") +
                                asked("SETUP rtsp://10.0.0.7/live/trackID=2", 5, session, tcp + "2-3\r\n") +
                                asked("SETUP rtsp://10.0.0.7/live/trackID=3", 6, session, tcp + "4-5\r\n") +
                                asked("PLAY rtsp://10.0.0.7/live/", 7, session, ""));
    EXPECT_EQ(viewer.events, "0 3 3 3 5 6 12 12 12 ");

    // Whole milliseconds on the track's time, exact ones beside it, and the server's clock once a report came.
    viewer.session->flush();
    const std::string sets = "\0\0\0\1\x67\x42\xc0\x1e\xd9\x01\x40\x7b\x20\0\0\1\x68\xce\x3c\x80"s;
    ASSERT_EQ(viewer.frames.size(), 6U);
    EXPECT_EQ(viewer.frames[0].data, sets + "\0\0\1\x41\xaa"s);
    EXPECT_EQ(viewer.frames[1].data, sets + "\0\0\1\x65\xbb"s);
    EXPECT_TRUE(!viewer.frames[0].key && viewer.frames[1].key && viewer.frames[0].complete);
    EXPECT_EQ(viewer.frames[1].time, test::fixed_clock() + 21000);
    EXPECT_EQ(viewer.frames[1].media_time, 21511);
    EXPECT_EQ(viewer.frames[1].ntp_time, time_ntp_to_core(0xe8b8a680, 0x80000000));
    EXPECT_EQ(viewer.frames[3].ntp_time, viewer.frames[1].ntp_time + 21511);
    EXPECT_EQ(viewer.frames[2].data + viewer.frames[4].data, "\xd5\xd5\xd5\xd6");
    EXPECT_EQ(viewer.frames[4].media_time, 52000);
    EXPECT_EQ(viewer.frames[5].data, "<a/>");
    // A receiver report for the first packet of each track, and one for the sender report.
    ASSERT_EQ(viewer.reports.size(), 4U);
    EXPECT_EQ(viewer.reports[0].substr(0, 2), "\x81\xc9");
}

TEST_F(RtspClient, DoesTheSameHoweverTheBytesAreCut) {
    for (const bool tunnel : {false, true}) {
        const std::string answers = (tunnel ? tunnel_answer : "") + test::read_dialog(dialog);
        std::string expected;
        for (size_t cut = 0; cut <= answers.size(); ++cut) {
            rtsp_viewer viewer;
            viewer.session->set_tunnel(tunnel);
            viewer.session->open(secret_uri);
            viewer.feed(answers.substr(0, cut));
            for (size_t at = cut; at < answers.size(); at += cut ? answers.size() : 1)
                viewer.feed(answers.substr(at, cut ? answers.size() : 1));
            // The cookie of a tunnel is drawn.
            const std::string seen = (tunnel ? "" : viewer.asked) + viewer.events + flat(viewer);
            if (cut == 0) expected = seen;
            ASSERT_EQ(seen, expected) << "cut at " << cut;
        }
        EXPECT_NE(expected.find("0 3 3 3 5 6 12 12 12 "), std::string::npos);
    }
}

TEST_F(RtspClient, PlaysOrSaysThatItCannotWhateverAllocationFails) {
    for (const bool tunnel : {false, true}) {
        const std::string answers = (tunnel ? tunnel_answer : "") + test::read_dialog(dialog);
        const auto scenario = [&] {
            rtsp_viewer viewer;
            if (!viewer.session) return;
            viewer.session->set_tunnel(tunnel);
            if (!viewer.session->open(secret_uri)) return;
            const auto size = static_cast<uint32_t>(answers.size());
            if (core_buf_read(&viewer.received, answers.data(), size) == 0) return;
            viewer.session->process(&viewer.received);
            core_mem_set_fault(nullptr);
            viewer.feed("");
            const bool told = viewer.events.find("9 ") != std::string::npos;
            EXPECT_TRUE(told || viewer.session->playing()) << viewer.events;
            viewer.session->open(secret_uri);
            viewer.feed(answers);
            EXPECT_TRUE(viewer.session->playing());
            for (const test::received_t& frame : viewer.frames)
                EXPECT_GE(frame.data.size(), 2U);
        };
        EXPECT_GT(test::fail_each_allocation(scenario), 100U);
    }
}

TEST_F(RtspClient, SurvivesEveryChangeOfOneByte) {
    const std::string answers = test::read_dialog(dialog);
    for (size_t at = 0; at < answers.size(); ++at) {
        for (const char byte : {'\0', '\xff', '$', static_cast<char>(answers[at] ^ 1)}) {
            rtsp_viewer viewer;
            viewer.session->open(secret_uri);
            std::string changed = answers;
            changed[at] = byte;
            viewer.feed(changed);
            ASSERT_EQ(viewer.received.length, 0U);
        }
    }
}

TEST_F(RtspClient, MapsWhatIsDescribed) {
    const struct {
        const char* media;
        const char* fcc;  ///< null: not set up
        const char* uri;
    } cases[] = {
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 h264/90000\r\na=control:rtsp://a:b@c:1/x@y\r\n", "H264",
         "rtsp://c:1/x@y"},
        {"m=video 0 RTP/AVP 26\r\na=control:/top\r\n", "JPEG", "rtsp://h/top"},
        {"m=audio 0 RTP/AVP 0\r\n", "PCMU", "rtsp://h/live"},
        {"m=audio 0 RTP/AVP 8\r\na=control:*\r\n", "PCMA", "rtsp://h/live"},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 G726-32/8000\r\na=control:a?b=c\r\n", "G726", "rtsp://h/live/a?b=c"},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MPEG4-GENERIC/16000/1\r\na=fmtp:97 config=1408\r\na=control:t\r\n",
         "mp4a", "rtsp://h/live/t"},
        {"m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MP4A-LATM/16000\r\na=control:t\r\n", "MP4A", "rtsp://h/live/t"},
        {"m=application 0 RTP/AVP 107\r\na=rtpmap:107 univ.metadata/90000\r\na=control:t\r\n", "META",
         "rtsp://h/live/t"},
        {"m=application 0 RTP/AVP 107\r\na=rtpmap:107 vnd.onvif.metadata/90000\r\na=control:t\r\n", "META",
         "rtsp://h/live/t"},
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\na=control:t\r\n", nullptr, nullptr},
        {"m=video 0 RTP/AVP 300\r\na=rtpmap:300 H264/90000\r\na=control:t\r\n", nullptr, nullptr},
        {"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:a b\r\n", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.media);
        rtsp_viewer viewer;
        viewer.play("v=0\r\n"s + c.media);
        ASSERT_EQ(viewer.session->trak_count(), 1U);
        const rtsp3::trak_t& trak = *viewer.session->trak(0U);
        EXPECT_EQ(viewer.events, c.fcc ? "0 3 5 6 " : "0 9 ");
        if (!c.fcc) continue;
        char text[5];
        EXPECT_STREQ(fcc_str(trak.fcc, text), c.fcc);
        EXPECT_NE(viewer.asked.find("SETUP "s + c.uri + " RTSP"), std::string::npos) << viewer.asked;
        EXPECT_EQ(trak.config.length, trak.fcc == av::fcc_mp4a ? 2U : 0U);
    }
    const struct {
        const char* fields;
        const char* setup;
        const char* play;
    } bases[] = {
        {"Content-Base: rtsp://other/b/\r\nContent-Location: rtsp://x/\r\n", "rtsp://other/b/video", "rtsp://other/b/"},
        {"Content-Location: rtsp://other/b\r\n", "rtsp://other/b/video", "rtsp://other/b"},
        {"Content-Base: /b/\r\n", "rtsp://h/live/video", "rtsp://h/live"},
    };
    for (const auto& c : bases) {
        rtsp_viewer viewer;
        viewer.play(sdp, "", c.fields);
        EXPECT_NE(viewer.asked.find("SETUP "s + c.setup + " RTSP"), std::string::npos) << viewer.asked;
        EXPECT_NE(viewer.asked.find("PLAY "s + c.play + " RTSP"), std::string::npos) << viewer.asked;
    }
}

TEST_F(RtspClient, KeepsTheSessionAliveAsTheServerLikesIt) {
    for (const bool announced : {false, true}) {
        for (const char* timeout : {"", "; timeout=10", ";timeout=0"}) {
            rtsp_viewer viewer;
            viewer.session->open("rtsp://h/live");
            EXPECT_EQ(viewer.session->send_keep_alive(), 0);
            viewer.answer("200 OK", announced ? "Public: OPTIONS, GET_PARAMETER\r\n" : "");
            viewer.answer("200 OK", "", sdp);
            viewer.answer("200 OK", "Session: 5"s + timeout + "\r\n");
            viewer.answer("200 OK");
            EXPECT_EQ(viewer.session->keep_alive_interval(), timeout == "; timeout=10"s ? 5000000U : 30000000U);
            viewer.asked.clear();
            EXPECT_EQ(viewer.session->send_keep_alive(), 1);
            EXPECT_TRUE(viewer.asked.starts_with(announced ? "GET_PARAMETER " : "OPTIONS ")) << viewer.asked;
            EXPECT_NE(viewer.asked.find("Session: 5\r\n"), std::string::npos);
            viewer.answer("405 Method Not Allowed");
            EXPECT_EQ(viewer.events, "0 3 5 6 9 ");
            EXPECT_EQ(viewer.session->status(), 405U);
            viewer.asked.clear();
            viewer.session->send_keep_alive();
            EXPECT_TRUE(viewer.asked.starts_with("OPTIONS "));
            viewer.answer("200 OK");
            EXPECT_EQ(viewer.events, "0 3 5 6 9 ");
        }
    }
}

TEST_F(RtspClient, AnswersAChallengeOnceForEachRequest) {
    const std::string challenge = "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\"\r\n";
    const struct {
        const char* uri;
        std::string fields;
        const char* scheme;  ///< null: the first 401 is the end
    } cases[] = {
        {"rtsp://u:p@h/live", challenge, "Digest username=\"u\""},
        {"rtsp://u:p@h/live", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", Basic realm=\"r\"\r\n",
         "Digest username=\"u\""},
        {"rtsp://u:p@h/live", "WWW-Authenticate: Basic realm=\"r\", Digest realm=\"r\", nonce=\"n\"\r\n",
         "Digest username=\"u\""},
        {"rtsp://u:p@h/live", "WWW-Authenticate: Basic realm=\"r\"\r\n", "Basic dTpw\r\n"},
        {"rtsp://u@h/live", "www-authenticate: Basic realm=\"r\"\r\n", "Basic dTo=\r\n"},
        {"rtsp://u:p@h/live", "", nullptr},
        {"rtsp://u:p@h/live", "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256\r\n", nullptr},
        {"rtsp://h/live", challenge, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.uri + c.fields);
        test::log_lines log("rtsp.protocol");
        rtsp_viewer viewer;
        viewer.session->open(c.uri);
        EXPECT_TRUE(viewer.asked.starts_with("OPTIONS rtsp://h/live RTSP/1.0\r\n"));
        for (int i = 0; i < 3; ++i)
            viewer.answer("401 Unauthorized", c.fields);
        EXPECT_EQ(viewer.events, "9 ");
        EXPECT_EQ(viewer.session->status(), 401U);
        EXPECT_STREQ(viewer.session->method(), "OPTIONS");
        EXPECT_EQ(viewer.asked.find("Authorization: "s + (c.scheme ? c.scheme : "")) != std::string::npos,
                  c.scheme != nullptr);
        EXPECT_EQ(viewer.asked.find("u:p@"), std::string::npos);
        // A password that can be read back is in no line of the log.
        size_t masked = 0;
        for (const std::string& line : log.take()) {
            EXPECT_EQ(line.find("dT"), std::string::npos) << line;
            masked += line.find("\r\nAuthorization: Basic ***") != std::string::npos;
        }
        EXPECT_EQ(masked, c.scheme && *c.scheme == 'B' ? 1U : 0U);
    }
}

TEST_F(RtspClient, TakesARepeatedAnswerForNoneUnlessTheServerNumbersAllAlike) {
    rtsp_viewer viewer;
    viewer.session->open("rtsp://h/live");
    viewer.answer("200 OK");
    viewer.answer("200 OK", "", sdp);
    viewer.feed("RTSP/1.0 200 OK\r\nCSeq: 2\r\n\r\n");
    EXPECT_EQ(viewer.events, "0 3 ");
    viewer.answer("200 OK", "Session: 5\r\n");
    EXPECT_EQ(viewer.events, "0 3 5 ");

    for (const char* cseq : {"", "CSeq: 1\r\n", "CSeq: 2\r\n", "CSeq: 70\r\n"}) {
        rtsp_viewer other;
        other.session->open("rtsp://h/live");
        for (const std::string& body : {""s, sdp, ""s, ""s})
            other.feed("RTSP/1.0 200 OK\r\n"s + cseq + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                       body);
        EXPECT_TRUE(other.session->playing()) << cseq << other.events;
    }
}

TEST_F(RtspClient, EndsOrGoesOnWhenTheServerLies) {
    const std::string ok = "RTSP/1.0 200 OK\r\n";
    const struct {
        const char* what;
        std::string bytes;   ///< in place of the answer to DESCRIBE, or
        std::string fields;  ///< of the answer to SETUP
        const char* events;
    } cases[] = {
        {"no end of header", std::string(5000, 'x'), "", "2 "},
        {"body too long", ok + "Content-Length: 65537\r\n\r\n", "", "2 "},
        {"length that is none", ok + "Content-Length: -1\r\n\r\n", "", "2 "},
        {"no description", ok + "\r\n", "", "9 "},
        {"description of nothing", ok + "Content-Length: 5\r\n\r\nm=\r\n\0"s, "", "0 9 "},
        {"refusal", "RTSP/1.0 404 Not Found\r\n\r\n", "", "9 "},
        {"status that is none", "RTSP/1.0 what\r\n\r\n", "", ""},
        {"requests of a server's", "DESCRIBE * RTSP/1.0\r\nCSeq: 9\r\n\r\n", "", ""},
        {"session too long", "", "Session: " + std::string(200, 'x') + "\r\n", "0 3 9 "},
        {"other transport", "", "Transport: RTP/AVP/UDP;unicast;client_port=1-2\r\n", "0 3 9 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        rtsp_viewer viewer;
        viewer.session->open("rtsp://h/live");
        viewer.answer("200 OK");
        if (!c.bytes.empty()) viewer.feed(c.bytes);
        if (c.bytes.empty()) viewer.answer("200 OK", "", sdp);
        if (c.bytes.empty()) viewer.answer("200 OK", c.fields);
        EXPECT_EQ(viewer.events, c.events);
        EXPECT_EQ(viewer.received.length, 0U);
    }
    std::string many = "v=0\r\n";
    for (int i = 0; i < 300; ++i)
        many += "m=video 0 RTP/AVP " + std::to_string(96 + i % 16) + "\r\na=rtpmap:96 H264/90000\r\n";
    rtsp_viewer viewer;
    viewer.play(many);
    EXPECT_EQ(viewer.session->trak_count(), rtsp3::max_traks);
    EXPECT_TRUE(viewer.session->playing());
    viewer.feed(ok + "CSeq: 99\r\n\r\n" + std::string("$\x09\0\3abc", 7));
    EXPECT_FALSE(viewer.session->closed());
    for (const std::string& senseless : {ok + "CSeq: 99\r\n\r\n", "\1\r\n\r\n"s}) {
        rtsp_viewer tired;
        tired.play(sdp);
        for (int i = 0; i < 100; ++i)
            tired.feed(senseless);
        tired.session->send_keep_alive();
        tired.answer("200 OK");
        for (int i = 0; i < 100; ++i)
            tired.feed(senseless);
        EXPECT_FALSE(tired.session->closed());
        tired.feed(senseless);
        EXPECT_TRUE(tired.session->closed());
    }
}

TEST_F(RtspClient, BoundsWhatAServerMakesItHold) {
    rtsp_viewer viewer;
    viewer.session->set_frame_limit(4000);
    viewer.play(sdp);
    uint16_t seq = 1;
    for (int i = 0; i < 200; ++i)
        viewer.rtp(0, rtp_packet(96, seq++, 1, "\x68" + std::string(1000, 'p')));
    EXPECT_LE(viewer.session->trak(0U)->parameter_sets.length, 64U * 1024);
    viewer.rtp(0, rtp_packet(96, seq++, 2, "\x67sps"));
    for (const uint32_t time : {3U, 4U}) {
        for (uint32_t i = 0; i < 3 * time - 8; ++i)
            viewer.rtp(0, rtp_packet(96, seq++, time, "\x41" + std::string(1000, 's')));
    }
    viewer.rtp(0, rtp_packet(96, seq++, 5, "\x65"));
    viewer.session->flush();
    ASSERT_EQ(viewer.frames.size(), 2U);  // that of time 4 passes the limit
    EXPECT_EQ(viewer.frames[0].data, "\0\0\0\1\x67sps\0\0\1\x41"s + std::string(1000, 's'));
    EXPECT_TRUE(viewer.frames[1].key && viewer.frames[1].complete);  // it refers to none
    viewer.rtp(0, rtp_packet(96, seq++, 6, "\x41" + std::string(4000, 's')));
    viewer.rtp(0, rtp_packet(96, seq++, 7, "\x41"));
    viewer.session->flush();
    EXPECT_FALSE(viewer.frames.back().complete);

    // Reports that are not read stay few.
    rtsp_viewer deaf;
    deaf.play(sdp);
    deaf.before = [&](event_t::enum_t event) {
        if (event == event_t::rtsp_send) deaf.posted.clear();
    };
    rtsp3::Rtsp* session = deaf.session;
    session->set_handler(nullptr);
    deaf.rtp(0, rtp_packet(96, 1, 1, "\x41"));
    for (int i = 0; i < 5000; ++i)
        deaf.rtp(1, test::sender_report(7, 0, 0));
    EXPECT_GT(session->send_buffer()->length, 60U * 1024);
    EXPECT_LT(session->send_buffer()->length, 66U * 1024);
    // With them, what is said by a timer or in answer.
    session->set_handler(&deaf);
    deaf.before = nullptr;
    EXPECT_EQ(session->send_keep_alive(), 0);
    EXPECT_TRUE(deaf.events.ends_with(" 2 ")) << deaf.events;
    EXPECT_TRUE(session->closed());
}

/// The most that is held at any allocation or call while it lives.
class peak_memory {
public:
    peak_memory() {
        most = start = core_mem_bytes();
        core_mem_set_fault([](size_t, const char*, int) {
            sample();
            return false;
        });
    }
    ~peak_memory() { core_mem_set_fault(nullptr); }
    static size_t value() {
        sample();
        return most - start;
    }

private:
    static void sample() { most = std::max(most, core_mem_bytes()); }
    static inline size_t start;
    static inline size_t most;
};

TEST_F(RtspClient, HoldsNoMoreThanItsHeaderStates) {
    constexpr size_t talk = size_t{512} * 1024;
    constexpr size_t piece = 16000;
    const auto fill = [](size_t size, const std::string& with) {
        std::string text;
        while (text.size() < size)
            text += with;
        return text;
    };
    const auto described = [](const std::string& body) {
        return "RTSP/1.0 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    };
    const std::string ok = "RTSP/1.0 200 OK\r\n";
    const std::string lies[] = {
        std::string(1 << 20, 'x'),
        ok + fill(4000, "a:\r\n") + "\r\n",
        described(fill(65000, "m=v 0 RTP/AVP 9\r\n")),
        described(sdp + "a=control:" + std::string(65000, 'c') + "\r\n"),
        described(sdp + "a=fmtp:96 sprop-parameter-sets=" + std::string(64000, 'A') + ",AA==\r\n"),
        ok + "Content-Length: 4294967295\r\n\r\n" + std::string(1 << 20, 'b'),
        fill(1 << 20, "OPTIONS * RTSP/1.0\r\n\r\n"),
        fill(1 << 20, "$\0\xff\xff"s + std::string(65535, '\x80')),
    };
    for (const std::string& lie : lies) {
        SCOPED_TRACE(lie.substr(0, 40));
        const peak_memory peak;
        rtsp_viewer viewer;
        viewer.session->open("rtsp://h/live");
        viewer.answer("200 OK");
        viewer.session->set_handler(nullptr);  // nothing is sent
        for (size_t at = 0; at < lie.size(); at += piece)
            viewer.feed(std::string_view(lie).substr(at, piece));
        EXPECT_LE(peak.value(), talk + piece);
    }

    // On every track a NAL unit and one without an end, both as long as they may be, then a frame of its full length.
    constexpr uint32_t frame_limit = 3U << 20;
    std::string description = "v=0\r\n";
    for (uint32_t i = 0; i < rtsp3::max_traks; ++i) {
        const std::string pt = std::to_string(96 + i);
        description.append("m=video 0 RTP/AVP ")
            .append(pt)
            .append("\r\na=rtpmap:")
            .append(pt)
            .append(" H264/90000\r\n");
    }
    const peak_memory peak;
    rtsp_viewer viewer;
    viewer.session->set_frame_limit(frame_limit);
    viewer.play(description);
    const std::string bytes(60000, 'n');
    for (uint16_t seq = 1; seq <= 350; ++seq) {
        const bool starts = seq == 1 || seq == 131;
        const std::string fua = seq == 130 ? "\x7c\x41" : starts ? "\x7c\x81" : "\x7c\x01";
        const bool whole = seq >= 300;
        for (uint32_t i = 0; i < rtsp3::max_traks; ++i)
            viewer.rtp(0, rtp_packet(static_cast<uint8_t>(96 + i), seq, seq / 300U, (whole ? "\x41" : fua) + bytes));
    }
    EXPECT_GT(peak.value(), rtsp3::max_traks * size_t{2 * rtp::max_frame + frame_limit});
    EXPECT_LE(peak.value(), rtsp3::max_traks * size_t{2 * rtp::max_frame + frame_limit + 64 * 1024} + talk);
}

TEST_F(RtspClient, TellsWholePicturesFromTorn) {
    const struct {
        const char* what;
        std::vector<std::string> packets;  ///< "time payload" or "-" for a lost one; '!' behind the time is the marker;
                                           ///< "^" for numbers that begin anew
        const char* expected;              ///< of each frame '+' for whole
    } cases[] = {
        {"nothing lost", {"1! A", "2! A", "3! A"}, "+++"},
        {"a picture lost between two that ended", {"1 A", "1! A", "-", "3! A", "4! A"}, "+-+"},
        {"the end of a picture lost", {"1 A", "-", "2! A", "3! A"}, "--+"},
        {"the middle lost", {"1 A", "-", "1! A", "2! A"}, "-+"},
        {"markers on every unit tell nothing", {"1! A", "1! A", "-", "2! A", "3! A"}, "--+"},
        {"the numbers begin anew in a picture", {"1 A", "^", "1! A", "2! A"}, "-+"},
        {"delimiter alone", {"1! \x09", "2! A"}, "-+"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        rtsp_viewer viewer;
        viewer.play(sdp);
        uint16_t seq = 10;
        for (const std::string& packet : c.packets) {
            ++seq;
            if (packet == "^") seq = static_cast<uint16_t>(seq + 10000);
            if (packet == "-" || packet == "^") continue;
            const bool marker = packet[1] == '!';
            viewer.rtp(0, rtp_packet(96, seq, static_cast<uint32_t>(packet[0]), packet.substr(marker ? 3 : 2), marker));
        }
        viewer.session->flush();
        std::string got;
        for (const test::received_t& frame : viewer.frames)
            got += frame.complete ? '+' : '-';
        EXPECT_EQ(got, c.expected);
    }
}

TEST_F(RtspClient, TakesAPictureWithoutItsHeaderForTorn) {
    rtsp_viewer viewer;
    viewer.play("v=0\r\nm=video 0 RTP/AVP 26\r\n");
    const std::string start = "\0\0\0\0\1\x32\x10\x10"s;
    const std::string cached = "\0\0\0\0\1\xff\x10\x10\0\0\0\0"s;  // tables of length 0: those of an earlier picture
    const std::string rest = "\0\0\0\5\1\x32\x10\x10"s;
    uint16_t seq = 1;
    for (const std::string& first : {start, cached, start}) {
        viewer.rtp(0, rtp_packet(26, seq, seq, first + "scan1", false));
        viewer.rtp(0, rtp_packet(26, seq + 1, seq, rest + "scan2"));
        seq = static_cast<uint16_t>(seq + 2);
    }
    viewer.session->flush();
    ASSERT_EQ(viewer.frames.size(), 3U);
    EXPECT_TRUE(viewer.frames[0].complete && !viewer.frames[1].complete && viewer.frames[2].complete);
}

TEST_F(RtspClient, KeepsItsTimeWithinRangeWhateverTheTimestampsClaim) {
    rtsp_viewer viewer;
    viewer.play("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/1\r\n");
    for (uint32_t i = 1; i < 5000; ++i)
        viewer.rtp(0, rtp_packet(96, static_cast<uint16_t>(i), i * 0x7fffffffU, "\x41"));
    EXPECT_GT(viewer.frames.back().media_time, INT64_MAX / 2);
}

TEST_F(RtspClient, ForgetsTheLastConversationWhenOpenedAgain) {
    for (const char* left :
         {"RTSP/1.0 200 OK\r\nContent-Le", "RTSP/1.0 200 OK\r\nContent-Length: 9\r\n\r\nbody", "$\1\2"}) {
        rtsp_viewer viewer;
        viewer.play(two_tracks, "", "Content-Base: rtsp://old/\r\n");
        viewer.feed(left);
        viewer.session->set_handler(nullptr);
        viewer.session->send_keep_alive();
        viewer.session->set_handler(&viewer);
        viewer.events.clear();
        viewer.asked.clear();
        viewer.play(sdp);
        EXPECT_EQ(viewer.events, "0 3 5 6 ") << left;
        EXPECT_TRUE(viewer.asked.starts_with("OPTIONS rtsp://h/live RTSP/1.0\r\nCSeq: 1\r\n")) << viewer.asked;
        EXPECT_EQ(viewer.asked.find("rtsp://old/"), std::string::npos);
    }
}

TEST_F(RtspClient, KeepsItsTracksWhileAReportGoesOut) {
    for (const auto protocol : {protocol_t::rtp_tcp, protocol_t::rtp_udp}) {
        rtsp_viewer viewer;
        viewer.session->set_protocol(protocol);
        viewer.play(sdp);
        viewer.before = [&](event_t::enum_t) { viewer.session->clear_traks(); };
        viewer.rtp(0, rtp_packet(96, 1, 1, "\x41"));
        EXPECT_EQ(viewer.session->trak_count(), 1U);
        viewer.session->clear_traks();
        EXPECT_EQ(viewer.session->trak_count(), 0U);
    }
}

TEST_F(RtspClient, PutsParameterSetsWhereTheyAreWanted) {
    const std::string aggregate = "\x18\0\2\x67\x61\0\2\x68\x62\0\xff\x41\x31"s;  // the last length lies
    for (const auto where : {rtsp3::parameter_sets_t::slices, rtsp3::parameter_sets_t::keys}) {
        rtsp_viewer viewer;
        viewer.session->set_parameter_sets(where);
        viewer.play(sdp);
        uint16_t seq = 1;
        for (const std::string& nal : {aggregate, "\x41\x32"s})
            viewer.rtp(0, rtp_packet(96, seq++, 1, nal));
        viewer.rtp(0, rtp_packet(96, seq++, 2, "\x41\x33"));
        viewer.rtp(0, rtp_packet(96, seq++, 3, "\x65\x34"));
        viewer.rtp(0, rtp_packet(96, seq++, 3, "\x65\x35"));
        viewer.session->flush();
        std::string units;
        for (const test::received_t& frame : viewer.frames)
            units += test::nal_units(frame.data) + "|";
        const bool all = where == rtsp3::parameter_sets_t::slices;
        EXPECT_EQ(units, all ? " ga hb A1 ga hb A2| ga hb A3| ga hb e4 ga hb e5|" : " ga hb A1 A2| A3| ga hb e4 e5|");
    }
}

TEST_F(RtspClient, TakesTheStartOfTheStreamFromRtpInfo) {
    const struct {
        const char* info;
        uint16_t seq[2];
    } cases[] = {
        {"url=rtsp://h/live/video;seq=7,url=rtsp://h/live/audio;seq=9;rtptime=8000", {7, 9}},
        {"url=audio;seq=9,url=rtsp://h/live/video?x;seq=7", {7, 9}},
        {"url=rtsp://h/live/novideo;seq=7", {7, 0}},
        {"url=rtsp://h/live/other;seq=7", {0, 0}},
        {"", {0, 0}},
    };
    for (const auto& c : cases) {
        rtsp_viewer viewer;
        viewer.play(two_tracks, "RTP-Info: "s + c.info + "\r\n");
        EXPECT_EQ(viewer.session->trak(0U)->rtp->seq, c.seq[0]) << c.info;
        EXPECT_EQ(viewer.session->trak(1)->rtp->seq, c.seq[1]) << c.info;
    }
    // A number that is not that of the packets to come costs some of them, not all.
    rtsp_viewer viewer;
    viewer.play(sdp, "RTP-Info: url=rtsp://h/live/video;seq=40000\r\n");
    for (uint16_t seq = 1; seq <= 200; ++seq)
        viewer.rtp(0, rtp_packet(96, seq, seq, "\x41"));
    EXPECT_GT(viewer.frames.size(), 90U);

    // So does PLAY after PAUSE, when the server goes on elsewhere.
    viewer.session->process_pause(nullptr);
    viewer.answer("200 OK");
    viewer.session->process_play(nullptr);
    viewer.answer("200 OK", "RTP-Info: url=rtsp://h/live/video;seq=20;rtptime=100\r\n");
    const size_t before = viewer.frames.size();
    const int64_t reached = viewer.frames.back().media_time;
    viewer.rtp(0, rtp_packet(96, 20, 190, "\x65"));
    viewer.session->flush();
    ASSERT_EQ(viewer.frames.size(), before + 1);
    EXPECT_EQ(viewer.frames.back().media_time, reached + 1000);
}

TEST_F(RtspClient, TellsTheReportsOfTracksOnOneChannelApart) {
    rtsp_viewer viewer;
    viewer.session->open("rtsp://h/live");
    viewer.answer("200 OK");
    viewer.answer("200 OK", "", two_tracks);
    for (int i = 0; i < 2; ++i)
        viewer.answer("200 OK", "Session: 1\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
    viewer.answer("200 OK");
    viewer.rtp(0, rtp_packet(96, 1, 1, "\x65", true, 7));
    viewer.rtp(0, rtp_packet(0, 1, 1, "sound", true, 8));
    viewer.rtp(1, test::sender_report(8, 0xe8b8a690, 1));
    viewer.rtp(1, test::sender_report(7, 0xe8b8a680, 1));
    viewer.session->flush();
    ASSERT_EQ(viewer.frames.size(), 2U);
    EXPECT_EQ(viewer.frames[0].ntp_time, time_ntp_to_core(0xe8b8a680, 0));
    EXPECT_EQ(viewer.frames[1].ntp_time, time_ntp_to_core(0xe8b8a690, 0));
}

TEST_F(RtspClient, ReportsEveryTwoSecondsHoweverTheStreamBegins) {
    for (const char* start : {"\x65", "\x7c\x85"}) {
        rtsp_viewer viewer;
        viewer.play(sdp);
        const uint32_t origin = 4294900;  // most of what the packetizer can take for an interval
        viewer.rtp(0, rtp_packet(96, 1, origin, start + "a"s, false));
        viewer.rtp(0, rtp_packet(96, 2, origin, "\x7c\x45z"));
        for (uint16_t i = 1; i <= 10; ++i)
            viewer.rtp(0, rtp_packet(96, static_cast<uint16_t>(2 + i), origin + i * 90000U, "\x41"));
        EXPECT_GE(viewer.reports.size(), 5U);
    }
}

TEST_F(RtspClient, SetsUpOnlyWhatIsWantedAndGoesOnWhenToldTo) {
    rtsp_viewer viewer;
    viewer.before = [&](event_t::enum_t event) {
        if (event == event_t::open_client) viewer.session->select_trak(0, false);
    };
    viewer.play(two_tracks);
    EXPECT_EQ(viewer.events, "0 3 5 6 ");
    EXPECT_FALSE(viewer.session->trak(0U)->set_up);
    viewer.rtp(0, rtp_packet(96, 1, 1, "\x41"));
    viewer.session->flush();
    EXPECT_EQ(viewer.events, "0 3 5 6 ");
    EXPECT_TRUE(viewer.asked.find("/audio RTSP/1.0\r\nCSeq: 3\r\n") != std::string::npos);

    rtsp_viewer other;
    other.session->set_protocol(protocol_t::rtp_udp);
    other.session->open("rtsp://h/live");
    other.answer("200 OK");
    other.answer("200 OK", "", two_tracks);
    other.answer("461 Unsupported Transport");
    EXPECT_EQ(other.events, "0 3 9 ");
    other.session->process_setup(nullptr);
    other.answer("200 OK", "Transport: RTP/AVP;unicast;client_port=7010-7011;server_port=5000-5001;source=1.2.3.4\r\n");
    EXPECT_EQ(other.events, "0 3 9 3 5 ");
    EXPECT_EQ(other.session->trak(1)->server_port, 5000);
    EXPECT_STREQ(other.session->trak(1)->source.get(), "1.2.3.4");
    other.answer("200 OK");
    other.session->process_pause(nullptr);
    other.answer("200 OK");
    other.session->process_teardown(nullptr);
    other.answer("200 OK");
    EXPECT_EQ(other.events, "0 3 9 3 5 6 7 8 ");
    EXPECT_STREQ(other.session->session(), "");

    rtsp_viewer portless;
    portless.port = 0;
    portless.session->set_protocol(protocol_t::rtp_udp);
    portless.play(two_tracks);
    EXPECT_EQ(portless.events, "0 3 3 9 ");
}

TEST_F(RtspClient, MayBeClosedFromInsideAnyEvent) {
    for (const auto at : {event_t::open_client, event_t::rtsp_setup, event_t::rtsp_ready, event_t::rtsp_play,
                          event_t::rtsp_send, event_t::rtsp_frame, event_t::rtsp_rtcp, event_t::rtsp_error}) {
        SCOPED_TRACE(at);
        rtsp_viewer viewer;
        bool seen = false;
        viewer.before = [&](event_t::enum_t event) {
            if (event != at || seen) return;
            seen = true;
            viewer.session->close();
        };
        viewer.session->set_protocol(protocol_t::rtp_udp);
        viewer.play(two_tracks);
        viewer.rtp(0, rtp_packet(96, 1, 1, "\x41"));
        viewer.rtp(0, rtp_packet(96, 2, 2, "\x41"));
        viewer.session->process_teardown(nullptr);
        if (!viewer.session->closed()) viewer.answer("454 Session Not Found");
        EXPECT_TRUE(seen);
        EXPECT_EQ(viewer.session->trak_count(), 0U);
        EXPECT_EQ(viewer.session->open("rtsp://h/live"), 0);
    }
}

}  // namespace
