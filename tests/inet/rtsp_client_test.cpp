// What the RTSP session asks a server, and what it makes of answers and packets, true or not.
#include "rtsp_client.h"

#include "support/fault.h"
#include "support/log_keeper.h"

#include "common/digest.h"
#include "core/text.h"
#include "inet/net_http_auth.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using rtsp3::event_t;
using rtsp3::protocol_t;
using test::rtp_packet;
using test::rtsp_client;

const std::string sdp = "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n";
const std::string two_tracks = sdp + "m=audio 0 RTP/AVP 0\r\na=control:audio\r\n";
const std::string ok = "RTSP/1.0 200 OK\r\n";

std::string with_body(const std::string& body) {
    return "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

TEST(RtspClient, GoesFromOptionsToPlayAndDeliversFrames) {
    rtsp_client client;
    ASSERT_EQ(client.session->open("rtsp://admin:p%40:s@10.0.0.7/live"), 1);
    client.feed(test::dialog("rtsp_client/tcp-cut"));
    const core::owned_text digest(net_http_authenticate("admin", "p@:s", "SETUP", "rtsp://10.0.0.7/live/trackID=1",
                                                        "Digest realm=\"camera\", nonce=\"7a11\"", CORE_HERE));
    EXPECT_NE(client.asked.find("Authorization: "s + digest.get() + "\r\n"), std::string::npos) << client.asked;
    const std::regex common(" RTSP/1.0\r\nCSeq: (\\d)\r\nUser-Agent: Norvane-K Rtsp Client 14.01|( username)[^\r]*");
    EXPECT_EQ(std::regex_replace(client.asked, common, " $1$2"),
              "OPTIONS rtsp://10.0.0.7/live 1\r\n\r\n"
              "DESCRIBE rtsp://10.0.0.7/live 2\r\nAccept: application/sdp\r\n\r\n"
              "DESCRIBE rtsp://10.0.0.7/live 3\r\nAccept: application/sdp\r\nAuthorization: Digest  username\r\n\r\n"
              "SETUP rtsp://10.0.0.7/live/trackID=1 4\r\n"
              "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\nAuthorization: Digest  username\r\n\r\n"
              "SETUP rtsp://10.0.0.7/live/trackID=2 5\r\nSession: 8A-b\r\n"
              "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\nAuthorization: Digest  username\r\n\r\n"
              "PLAY rtsp://10.0.0.7/live/ 6\r\nSession: 8A-b\r\nAuthorization: Digest  username\r\n\r\n");
    EXPECT_EQ(client.events, "0 3 3 5 6 12 12 12 ");

    const std::string sets = "|\x67\x42\xc0\x1e\xd9\x01\x40\x7b\x20|\x68\xce\x3c\x80"s;
    EXPECT_EQ(client.seen(),
              sets + "|\x41\xaa " + sets + "|\x65\xbbK \xd5\xd5@8000/0K " + sets + "|\x41\xcc \xd5\xd6@8000/0K ");
    // Whole milliseconds on the track's time, exact ones beside it, and the server's clock once a report came.
    ASSERT_EQ(client.frames.size(), 5U);
    EXPECT_EQ(client.frames[1].time, test::fixed_clock() + 21000);
    EXPECT_EQ(client.frames[1].media_time, 21511);
    EXPECT_EQ(client.frames[1].ntp_time, time_ntp_to_core(0xe8b8a680, 0x80000000));
    EXPECT_EQ(client.frames[3].ntp_time, client.frames[1].ntp_time + 21511);
    EXPECT_EQ(client.frames[4].media_time, 52000);
    // A receiver report for the first packet of each track, and one for the sender report.
    ASSERT_EQ(client.reports.size(), 3U);
    EXPECT_EQ(client.reports[0].substr(0, 2), "\x81\xc9");
}

TEST(RtspClient, AsksForWhatIsDescribed) {
    const struct {
        const char* media;
        int pt;
        const char* rtpmap;
        const char* control;
        const char* base;
        const char* fcc;  ///< null: not set up
        const char* setup;
        const char* play = "rtsp://h/live";
    } cases[] = {
        {"video", 96, "h264/90000", "rtsp://a:b@c:1/x@y", "", "H264", "rtsp://c:1/x@y"},
        {"video", 26, "MJPEG/90000", "/top", "", "JPEG", "rtsp://h/live//top"},
        {"audio", 0, "x/8000", "?t=a://b", "", "PCMU", "rtsp://h/live/?t=a://b"},
        {"audio", 0, nullptr, nullptr, "", "PCMU", "rtsp://h/live"},
        {"audio", 8, nullptr, "*", "", "PCMA", "rtsp://h/live"},
        {"audio", 97, "G726-32/8000", "a?b=c", "", "G726", "rtsp://h/live/a?b=c"},
        {"audio", 97, "MPEG4-GENERIC/16000/1", "t", "", "mp4a", "rtsp://h/live/t"},
        {"audio", 97, "MP4A-LATM/16000", "t", "", "MP4A", "rtsp://h/live/t"},
        {"application", 107, "vnd.onvif.metadata/90000", "t", "", "META", "rtsp://h/live/t"},
        {"video", 96, "H265/90000", "t", "", nullptr, ""},
        {"video", 300, "H264/90000", "t", "", nullptr, ""},
        {"video", 96, "H264/90000", "a b", "", nullptr, ""},
        {"video", 26, nullptr, "t", "Content-Base: rtsp://o/b/\r\nContent-Location: rtsp://x/\r\n", "JPEG",
         "rtsp://o/b/t", "rtsp://o/b/"},
        {"video", 26, nullptr, "t", "Content-Location: rtsp://u:p@o/b\r\n", "JPEG", "rtsp://o/b/t", "rtsp://o/b"},
        {"video", 26, nullptr, "/t", "content-base : rtsp://o/b \t\r\n", "JPEG", "rtsp://o/b/t", "rtsp://o/b"},
        {"video", 26, nullptr, "t", "Content-Base: /b/\r\n", "JPEG", "rtsp://h/live/t"},
    };
    for (const auto& c : cases) {
        const std::string pt = std::to_string(c.pt);
        std::string description = "v=0\r\nm="s + c.media + " 0 RTP/AVP " + pt + "\r\na=fmtp:" + pt + " config=1408\r\n";
        if (c.rtpmap) description += "a=rtpmap:" + pt + " " + c.rtpmap + "\r\n";
        if (c.control) description += "a=control:"s + c.control + "\r\n";
        SCOPED_TRACE(c.base + description);
        rtsp_client client;
        client.play(description, "", c.base);
        EXPECT_EQ(client.events, c.fcc ? "0 3 5 6 " : "0 9 ");
        EXPECT_EQ(client.session->send_sdp("a", "b", "c", 0, 0) + client.session->send_play(1), 0);  // of a server
        if (!c.fcc) continue;
        char text[5];
        EXPECT_STREQ(fcc_str(client.session->trak(0U)->fcc, text), c.fcc);
        EXPECT_NE(client.asked.find("SETUP "s + c.setup + " RTSP"), std::string::npos) << client.asked;
        EXPECT_NE(client.asked.find("PLAY "s + c.play + " RTSP"), std::string::npos) << client.asked;
        EXPECT_EQ(client.session->trak(0U)->config.length, "mp4a"s == c.fcc ? 2U : 0U);
    }
}

TEST(RtspClient, AsksByAnotherUriWhereNothingIsFound) {
    const char* const cases[][3] = {
        {"t", "", "rtsp://h/live/t rtsp://h/t "},
        {"/a/../t", "", "rtsp://h/live//a/../t rtsp://h/t rtsp://h/live/a/../t "},
        {"/t", "Content-Base: rtsp://o/cam/\r\n", "rtsp://o/cam//t rtsp://o/t "},
        {"?t", "Content-Base: rtsp://o/cam/?x\r\n", "rtsp://o/cam/?x?t rtsp://o/cam/?t "},
        {"t", "Content-Base: rtsp://o\r\n", "rtsp://o/t "},
        {"rtsp://x/t", "", "rtsp://x/t "},
    };
    for (const auto& [control, base, asked] : cases) {
        rtsp_client client;
        client.describe("m=video 0 RTP/AVP 26\r\na=control:"s + control + "\r\n", base);
        for (int i = 0; i < 4 && client.events == "0 3 "; ++i)
            client.answer("404 Not Found");
        EXPECT_EQ(client.events, "0 3 9 ");
        std::string uris;
        const std::regex setup("SETUP ([^ ]*)");
        for (std::sregex_iterator at(client.asked.begin(), client.asked.end(), setup), end; at != end; ++at)
            uris += (*at)[1].str() + " ";
        EXPECT_EQ(uris, asked);
    }
}

TEST(RtspClient, ReadsDescriptionsAsTheyAreFound) {
    const struct {
        std::string sdp;
        std::string tracks;  ///< media, format, control, channels; bytes of the configuration and parameter sets
        const char* play = "rtsp://h/live";
    } cases[] = {
        {"v=0\n\na=control:*\nm=video \t0  RTP/AVP 96 \na=rtpmap: 96  H264 / 90000 \nA=x\n"
         "a=fmtp:96 ;; Sprop-Parameter-Sets = Z0I= ; x\na=control: t \nm=audio 0 RTP/AVP 97\r\n"
         "a=rtpmap:97 MPEG4-GENERIC/16000/2\r\na=fmtp:97 x; ;config=1410",
         "video H264 t 0 |gB;audio mp4a - 2 1410;"},
        {"a=control:rtsp://u:p@o/s/\rm=audio 0 RTP/AVP 8\ra=rtpmap:8 \ra=fmtp:8\ra=control:t", "audio PCMA t 0 ;",
         "rtsp://o/s/"},
        {"m=video 0 RTP/AVP 96\na=rtpmap:96 H264/90000\na=fmtp:96 sprop-parameter-sets=Z0I=,aM4=,aAE=,\n",
         "video H264 - 0 |gB|h\xce|h\1;"},
    };
    for (const auto& c : cases) {
        rtsp_client client;
        client.play(c.sdp);
        std::string tracks;
        for (uint32_t i = 0; const rtsp3::trak_t* trak = client.session->trak(i); ++i) {
            char fcc[5];
            tracks += trak->media + " "s + fcc_str(trak->fcc, fcc) + " " + (trak->control ? trak->control.get() : "-") +
                      " " + std::to_string(trak->channels) + " ";
            const core::owned_text config(core_strhex(trak->config.data, trak->config.length, CORE_HERE));
            tracks += (trak->config.length ? config.get() : "") +
                      std::string(trak->parameter_sets.data, trak->parameter_sets.data + trak->parameter_sets.length) +
                      ";";
        }
        EXPECT_EQ(std::regex_replace(tracks, std::regex(R"(\0\0\x01)"), "|"), c.tracks);
        EXPECT_NE(client.asked.find("PLAY "s + c.play + " RTSP"), std::string::npos) << client.asked;
    }
}

TEST(RtspClient, KeepsTheSessionAliveAsTheServerLikesIt) {
    const char* const cases[][4] = {
        {"", "Session: 5; timeout=0\r\n", "OPTIONS ", "GET_PARAMETER "},
        {"Public: OPTIONS\r\nPublic: GET_PARAMETER\r\n", "Session: 5;timeout=10\r\n", "GET_PARAMETER ", "OPTIONS "},
    };
    for (const auto& [methods, named, method, other] : cases) {
        rtsp_client client;
        client.describe(sdp, "", methods);
        EXPECT_EQ(client.session->send_keep_alive(), 0);
        client.answer("200 OK", named);
        client.answer("200 OK");
        EXPECT_EQ(client.session->keep_alive_interval(), *methods ? 5000000U : 30000000U);
        for (const char* asked : {method, other}) {  // once it was refused
            client.asked.clear();
            EXPECT_EQ(client.session->send_keep_alive(), 1);
            EXPECT_TRUE(client.asked.starts_with(asked) && client.asked.find("Session: 5\r\n") != std::string::npos);
            client.answer("405 Method Not Allowed");
        }
    }
}

TEST(RtspClient, AnswersAChallengeOnceForEachRequest) {
    const std::string digest = "Digest realm=\"r\", nonce=\"n\"";
    const std::string basic = "Basic realm=\"r\"";
    const struct {
        const char* user;
        std::string challenge;
        const char* answer;  ///< null: the first 401 is the end
    } cases[] = {
        {"u:p@", basic + ", " + digest, "Digest username=\"u\""},
        {"u:p@", basic, "Basic dTpw\r\n"},
        {"u:p@q@", basic, "Basic dTpwQHE=\r\n"},
        {"u:p@", "", nullptr},
        {"u:p@", digest + ", algorithm=SHA-512-256", nullptr},
        {"u:p@", digest + ", qop=\"auth-conf\"", nullptr},
        {"", digest, nullptr},
        {"u:p@", digest + ", algorithm=X, " + basic, "Basic dTpw\r\n"},
        {"u:p@", digest + ", algorithm=X\r\nWWW-Authenticate: NTLM a==, " + digest, "Digest username=\"u\""},
        {"u:p@", R"(DIGEST  REALM = "Basic, \"x\" Digest" , nonce=n,stale=FALSE)",
         R"(Digest username="u", realm="Basic, \"x\" Digest", nonce="n")"},
        {R"(u"\:p@)", digest, R"(Digest username="u\"\\")"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.user + c.challenge);
        const test::log_keeper log("rtsp.protocol");
        rtsp_client client;
        client.session->open(("rtsp://"s + c.user + "h/live").c_str());
        EXPECT_TRUE(client.asked.starts_with("OPTIONS rtsp://h/live RTSP/1.0\r\n"));
        for (int i = 0; i < 3; ++i)
            client.answer("401 Unauthorized", "www-authenticate: " + c.challenge + "\r\n");
        EXPECT_EQ(client.events + std::to_string(client.session->status()), "9 401");
        EXPECT_EQ(client.asked.find("Authorization: "s + (c.answer ? c.answer : "")) == std::string::npos, !c.answer);
        // A password that can be read back is in no line of the log.
        EXPECT_EQ(log.lines.find("dT"), std::string::npos) << log.lines;
        EXPECT_EQ(log.lines.find("\r\nAuthorization: Basic ***") == std::string::npos, !c.answer || *c.answer != 'B');
    }
}

std::string digest_of(bool sha, const std::string& text) {
    uint8_t bytes[32];
    sha ? common_sha256(text.data(), text.size(), bytes) : common_md5_bytes(text.data(), text.size(), bytes);
    std::string hex(core::owned_text(core_strhex(bytes, sha ? 32 : 16, CORE_HERE)).get());
    std::ranges::transform(hex, hex.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
    return hex;
}

// RFC 7616, 3.4. A nonce that is too old is followed by another one, whatever the request has cost until then.
TEST(RtspClient, ComputesEveryFormOfDigest) {
    const struct {
        std::string said;
        bool sha, session;
        const char* qop;
        const char* body = "";  ///< what counts of it, with ':' before it
    } cases[] = {
        {"", false, false, ""},
        {", algorithm=\"md5\", qop=\"auth-int , AUTH\", opaque=\"\"", false, false, "auth"},
        {", qop=auth-int", false, false, "auth-int", ":d41d8cd98f00b204e9800998ecf8427e"},
        {", algorithm=MD5-sess, qop=auth", false, true, "auth"},
        {", algorithm=SHA-256, qop=\"auth\"", true, false, "auth"},
        {", algorithm=SHA-256-sess, qop=\"auth\"", true, true, "auth"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.said);
        rtsp_client client;
        client.session->open("rtsp://us:p:w@h/live");
        for (const char* nonce : {"n1", "n2"})
            client.answer("401 Unauthorized", R"(WWW-Authenticate: Digest realm="a, \"b\"", stale=true, nonce=)" +
                                                  std::string(nonce) + c.said + "\r\n");
        EXPECT_EQ(client.events, "");
        client.answer("200 OK");  // the next request counts on
        const std::string asked = client.asked.substr(client.asked.rfind("Authorization: "));
        std::smatch in;
        ASSERT_TRUE(std::regex_search(asked, in,
                                      std::regex(R"re(response="(\w*)", algorithm=([A-Z0-9]*(-256)?)(-sess)?)re"
                                                 R"re((, opaque="")?(, cnonce="(\w{16})", qop=([^,]*), nc=(\d*))?)re"
                                                 "\r\n")))
            << asked;
        std::string secret = digest_of(c.sha, "us:a, \"b\":p:w");
        if (c.session) secret = digest_of(c.sha, secret + ":n2:" + in[7].str());
        const std::string request = digest_of(c.sha, "DESCRIBE:rtsp://h/live"s + c.body);
        const std::string between = *c.qop ? ":00000002:" + in[7].str() + ":" + c.qop + ":" : ":";
        EXPECT_EQ(in[1].str(), digest_of(c.sha, secret + ":n2" + between + request));
        EXPECT_EQ(in[2].str() + in[4].str(), (c.sha ? "SHA-256"s : "MD5"s) + (c.session ? "-sess" : ""));
        EXPECT_EQ(in[5].matched, c.said.find("opaque") != std::string::npos);
    }
}

TEST(RtspClient, TakesARepeatedAnswerForNoneUnlessTheServerNumbersAllAlike) {
    rtsp_client client;
    client.describe(sdp);
    client.feed(ok + "CSeq: 2\r\n\r\n");
    EXPECT_EQ(client.events, "0 3 ");
    for (const char* cseq : {"", "CSeq: 1\r\n", "CSeq: 2\r\n", "CSeq: 70\r\n"}) {
        rtsp_client other;
        other.session->open("rtsp://h/live");
        for (const std::string& body : {""s, sdp, ""s, ""s})
            other.feed(ok + cseq + with_body(body));
        EXPECT_TRUE(other.session->playing()) << cseq << other.events;
    }
}

TEST(RtspClient, EndsOrGoesOnWhenTheServerLies) {
    const struct {
        const char* what;
        std::string bytes;   ///< in place of the answer to DESCRIBE, or
        std::string fields;  ///< of the answer to SETUP
        const char* events;
    } cases[] = {
        {"no end of header", std::string(4098, 'x'), "", "2 "},
        {"body too long", ok + "Content-Length: 65537\r\n\r\n", "", "2 "},
        {"length that is none", ok + "Content-Length: -1\r\n\r\n", "", "2 "},
        {"no description", ok + "\r\n", "", "9 "},
        {"description of nothing", ok + "Content-Length: 5\r\n\r\nm=\r\n\0"s, "", "0 9 "},
        {"refusal", "RTSP/1.0 404 Not Found\r\n\r\n", "", "9 "},
        {"NUL in a head", "RTSP/1.0 404 Not\0Found\r\n\r\n"s, "", "2 "},
        {"lengths that differ", ok + "Content-Length: 4\r\ncontent-length : 5\r\n\r\nbody", "", "2 "},
        {"status that is none", "RTSP/1.0 what\r\n\r\n", "", ""},
        {"requests of a server's", "DESCRIBE * RTSP/1.0\r\nCSeq: 9\r\n\r\n", "", ""},
        {"session too long", "", "Session: " + std::string(128, 'x') + "\r\n", "0 3 9 "},
        {"longest session", "", "Session: " + std::string(127, 'x') + "\r\n", "0 3 5 "},
        {"other transport", "", "Transport: RTP/AVP/UDP;unicast;client_port=1-2\r\n", "0 3 9 "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        rtsp_client client;
        client.session->open("rtsp://h/live");
        client.answer("200 OK");
        client.feed("\r\n\r\n$\6\0\1x\n"s);  // nothing
        if (!c.bytes.empty()) client.feed(c.bytes);
        if (c.bytes.empty()) client.answer("200 OK", "", sdp);
        if (c.bytes.empty()) client.answer("200 OK", c.fields);
        EXPECT_EQ(client.events, c.events);
        EXPECT_EQ(client.received.length, 0U);
    }
    for (const std::string& senseless : {ok + "CSeq: 99\r\n\r\n", "\1\r\n\r\n"s}) {
        rtsp_client tired;
        tired.play(sdp);
        for (int i = 0; i < 200; ++i) {
            if (i == 100) tired.session->send_keep_alive();
            if (i == 100) tired.answer("200 OK");
            tired.feed(senseless);
        }
        EXPECT_FALSE(tired.session->closed());
        tired.feed(senseless);
        EXPECT_TRUE(tired.session->closed());
    }
}

TEST(RtspClient, BoundsWhatAServerMakesItHold) {
    rtsp_client client;
    client.session->set_frame_limit(4000);
    client.play(sdp);
    uint16_t seq = 1;
    const auto slices = [&](uint32_t time, int count, char type) {
        while (count-- > 0)
            client.rtp(0, rtp_packet(96, seq++, time, type + std::string(1000, 's')));
    };
    slices(1, 200, '\x68');
    EXPECT_LE(client.session->trak(0U)->parameter_sets.length, 64U * 1024);
    client.rtp(0, rtp_packet(96, seq++, 2, "\x67sps"));
    slices(3, 1, '\x41');
    slices(4, 4, '\x41');  // passes the limit
    client.rtp(0, rtp_packet(96, seq++, 5, "\x65"));
    slices(6, 4, '\x41');
    client.rtp(0, rtp_packet(96, seq++, 7, "\x41"));  // refers to what was left out
    EXPECT_EQ(client.seen(), "|gsps|A" + std::string(1000, 's') + " |gsps|eK |gsps|A- ");

    // Reports that are not read stay few; with them, what is said by a timer or in answer.
    rtsp_client deaf;
    deaf.play(sdp);
    deaf.reading = false;
    deaf.rtp(0, rtp_packet(96, 1, 1, "\x41"));
    for (int i = 0; i < 5000; ++i)
        deaf.rtp(1, test::sender_report(7, 0, 0));
    EXPECT_GT(deaf.session->send_buffer()->length, 60U * 1024);
    EXPECT_LT(deaf.session->send_buffer()->length, 66U * 1024);
    EXPECT_EQ(deaf.session->send_keep_alive(), 0);
    EXPECT_TRUE(deaf.events.ends_with(" 2 ") && deaf.session->closed()) << deaf.events;
}

TEST(RtspClient, HoldsNoMoreThanItsHeaderStates) {
    const std::string megabyte(1 << 20, 'x');
    std::string requests;
    for (int i = 0; i < 40000; ++i)
        requests += "OPTIONS * RTSP/1.0\r\n\r\n";
    const std::string lies[] = {
        megabyte,
        ok + "Content-Length: 4294967295\r\n\r\n" + megabyte,
        ok + with_body(sdp + "a=control:" + megabyte.substr(0, 65000) + "\r\n"),
        ok + with_body(sdp + "a=fmtp:96 sprop-parameter-sets=" + std::string(64000, 'A') + ",AA==\r\n"),
        requests,
    };
    for (const std::string& lie : lies) {
        rtsp_client client;
        client.session->open("rtsp://h/live");
        client.answer("200 OK");
        client.reading = false;
        const size_t before = core_mem_bytes();
        for (size_t at = 0; at < lie.size(); at += 16000) {
            client.feed(std::string_view(lie).substr(at, 16000));
            ASSERT_LE(core_mem_bytes(), before + 512U * 1024) << lie.substr(0, 40);
        }
    }
}

TEST(RtspClient, PutsFramesTogetherAndTellsTornOnes) {
    const std::string h264 = "video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
    const std::string aac = "audio 0 RTP/AVP 97\r\na=rtpmap:97 mpeg4-generic/16000/2\r\na=fmtp:97 config=1410\r\n";
    const std::string unit = "\0\x10\0\x10"s;                                  // of AAC, two bytes long
    const std::string sets = "1 \x18\0\2\x67\x61\0\2\x68\x62\0\xff\x41\x31"s;  // the last length lies
    const auto keys = rtsp3::parameter_sets_t::keys;
    const struct {
        const char* what;
        std::string media;
        std::vector<std::string> packets;  ///< time, '!' for the marker, payload; "-" for a lost one; "^" for numbers
                                           ///< that begin anew
        std::string seen;
        rtsp3::parameter_sets_t where = rtsp3::parameter_sets_t::slices;
    } cases[] = {
        {"a picture lost between two that ended", h264, {"1 A", "1!A", "-", "3!A", "4!A"}, "|A|A |A- |A "},
        {"the end of a picture lost", h264, {"1 A", "-", "2!A", "3!A"}, "|A- |A- |A "},
        {"the middle lost", h264, {"1 A", "-", "1!A", "2!A"}, "|A|A- |A "},
        {"markers on every unit tell nothing", h264, {"1!A", "1!A", "-", "2!A", "3!A"}, "|A|A- |A- |A "},
        {"the numbers begin anew in a picture", h264, {"1 A", "^", "1!A", "2!A"}, "|A|A- |A "},
        {"a picture lost before one with parameter sets",
         h264,
         {"1!A", "-", "3 \x67\x61", "3!A", "4!A", "-", "6 \x67\x61", "6!e\x88"},
         "|A |ga|A- |ga|A |ga|e\x88K "},
        {"a picture lost before a key", h264, {"1!A", "-", "3!e\x88", "-", "5!e\x40"}, "|A |e\x88K |e\x40K- "},
        {"half a picture at the end", h264, {"1!A", "2 A"}, "|A |A- "},
        {"delimiter alone", h264, {"1!\x09", "2!A"}, "|\x09- |A "},
        {"sets repeated, and one in the place of another",
         h264,
         {"1 \x67\x61", "1 \x68\xe1", "1 \x68\x41", "1!A", "2 \x67\x61", "2 \x68\xe1\0"s, "2 \x68\xe2", "2!A"},
         "|ga|h\xe1|hA|A |ga|hA|h\xe2|A "},
        {"start codes within a unit",
         h264,
         {"1!\x67\x61\0\0\0\1\x68\xe1\0\0\1\x65k\0"s, "2!A"},
         "|ga|h\xe1|ekK |ga|h\xe1|A "},
        {"sets before every slice",
         h264,
         {sets, "1!A", "2!A", "3 e", "3!e"},
         "|ga|hb|A1|ga|hb|A |ga|hb|A |ga|hb|e|ga|hb|eK "},
        {"sets where they are new", h264, {sets, "1!A", "2!A", "3 e", "3!e"}, "|ga|hb|A1|A |A |ga|hb|e|eK ", keys},
        {"sound around a gap is whole",
         aac,
         {"1!" + unit + "ab", "2!" + unit + "cd", "-", "4!" + unit + "ef"},
         "ab@16000/2K cd@16000/2K ef@16000/2K "},
    };
    for (const auto& c : cases) {
        rtsp_client client;
        client.session->set_parameter_sets(c.where);
        client.play("v=0\r\nm=" + c.media);
        const uint8_t pt = client.session->trak(0U)->rtp->pt;
        uint16_t seq = 10;
        for (const std::string& packet : c.packets) {
            seq = static_cast<uint16_t>(seq + (packet == "^" ? 10001 : 1));
            if (packet == "-" || packet == "^") continue;
            const test::allocation_count count;
            client.rtp(0, rtp_packet(pt, seq, static_cast<uint32_t>(packet[0]), packet.substr(2), packet[1] == '!'));
            EXPECT_TRUE(count.value() == 0 || &packet != &c.packets.back()) << c.what;
        }
        EXPECT_EQ(client.seen(), c.seen) << c.what;
    }
}

// '!' is the marker, as above.
TEST(RtspClient, HandsOverPromptlyOnceItKnowsWhereTheSendersFramesEnd) {
    using units = std::vector<std::string>;
    const units slice{"!A"}, key{"!gs", "!hp", "!e"}, other_key{"!gt", "!hp", "!e"}, ended{" A", " A", "!A"};
    const units two{"!A", "!A"}, filled{"!A", "!\x0c"};
    const struct {
        const char* what;
        units first, usual, then;
        const char* handed_over;  ///< frames, after: 32 pictures, one more, "then", one more, 40 more; torn ones
    } cases[] = {
        {"a marker on every unit", key, slice, key, "31 33 34 35 75 0"},
        {"a marker at the end", ended, ended, ended, "31 33 34 35 75 0"},
        {"always two slices", two, two, two, "31 33 34 35 75 0"},
        {"filler behind the slice", filled, filled, filled, "31 33 34 35 75 0"},
        {"other parameter sets", key, slice, other_key, "31 33 33 34 75 0"},
        {"a slice behind the last one", slice, slice, two, "31 33 34 35 75 1"},
        {"filler that was not expected", slice, slice, filled, "31 33 34 35 75 0"},
    };
    for (const auto& c : cases) {
        rtsp_client client;
        client.session->set_prompt(true);
        client.play(sdp);
        uint32_t time = 0;
        uint16_t seq = 0;
        const auto send = [&](const units& picture) {
            ++time;
            for (const std::string& unit : picture)
                client.rtp(0, rtp_packet(96, ++seq, time, unit.substr(1), unit[0] == '!'));
            return std::to_string(client.frames.size());
        };
        send(c.first);
        for (int i = 0; i < 30; ++i)
            send(c.usual);
        std::string story = send(c.usual);
        story += " " + send(c.usual);
        story += " " + send(c.then);
        story += " " + send(c.usual);
        for (int i = 0; i < 39; ++i)
            send(c.usual);
        story += " " + send(c.usual) + " ";
        EXPECT_EQ(story + std::to_string(std::ranges::count(client.frames, false, &test::received_t::complete)),
                  c.handed_over)
            << c.what;
    }
}

TEST(RtspClient, KeepsItsTimeWithinRangeWhateverTheTimestampsClaim) {
    rtsp_client client;
    client.play("v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/1\r\n");
    for (uint32_t i = 1; i < 5000; ++i)
        client.rtp(0, rtp_packet(96, static_cast<uint16_t>(i), i * 0x7fffffffU, "\x41"));
    EXPECT_GT(client.frames.back().media_time, INT64_MAX / 2);
}

TEST(RtspClient, ForgetsTheLastConversationWhenOpenedAgain) {
    for (const std::string& left : {ok + "Content-Length: 9\r\n\r\nbody", "$\1\2"s}) {
        rtsp_client client;
        client.play(two_tracks, "", "Content-Base: rtsp://old/\r\n");
        client.feed(left);
        client.reading = false;
        client.session->send_keep_alive();
        client.reading = true;
        client.events.clear();
        client.asked.clear();
        client.play(sdp);
        EXPECT_EQ(client.events, "0 3 5 6 ") << left;
        EXPECT_TRUE(client.asked.starts_with("OPTIONS rtsp://h/live RTSP/1.0\r\nCSeq: 1\r\n")) << client.asked;
        EXPECT_EQ(client.asked.find("rtsp://old/"), std::string::npos);
    }
}

TEST(RtspClient, TakesTheStartOfTheStreamFromRtpInfo) {
    const struct {
        const char* info;
        uint16_t seq[2];
    } cases[] = {
        {"url=rtsp://h/live/video;seq=7,url=rtsp://h/live/audio;seq=9;rtptime=8000", {7, 9}},
        {"url=audio;seq=9,url=rtsp://h/live/video?x;seq=7", {7, 9}},
        {"url=rtsp://h/live/video;seq=7,url=rtsp://h/live/video;seq=9", {7, 0}},
        {"url=rtsp://h/live/novideo;seq=7", {7, 0}},
        {"", {0, 0}},
    };
    for (const auto& c : cases) {
        rtsp_client client;
        client.play(two_tracks, "RTP-Info: "s + c.info + "\r\n");
        EXPECT_EQ(client.session->trak(0U)->rtp->seq, c.seq[0]) << c.info;
        EXPECT_EQ(client.session->trak(1)->rtp->seq, c.seq[1]) << c.info;
    }
    // A number or a time that is not that of the first packet is none. One that is not that of the next costs some.
    rtsp_client client;
    client.play(two_tracks, "RTP-Info: url=rtsp://h/live/video;seq=40000;rtptime=4000000000\r\n");
    client.rtp(2, rtp_packet(0, 1, 1, "sound"));
    client.rtp(0, rtp_packet(96, 20000, 0, "\x65"));
    for (uint16_t seq = 1; seq <= 200; ++seq)
        client.rtp(0, rtp_packet(96, seq, seq, "\x41"));
    EXPECT_TRUE(client.frames.size() > 90 && client.frames[0].key && client.frames[0].media_time == 0);

    // So does PLAY after PAUSE, when the server goes on elsewhere. The tracks are then in step, announced or not.
    client.session->process_pause(nullptr);
    client.answer("200 OK");
    const size_t before = client.frames.size();
    for (uint16_t seq = 201; seq < 205; ++seq)
        client.rtp(0, rtp_packet(96, seq, seq, "\x65"));
    client.session->flush();
    EXPECT_EQ(client.frames.size(), before);
    client.session->process_play(nullptr);
    client.answer("200 OK", "RTP-Info: url=rtsp://h/live/video;seq=20;rtptime=100\r\n");
    const int64_t reached = std::ranges::max(client.frames, {}, &test::received_t::media_time).media_time;
    client.rtp(0, rtp_packet(96, 20, 190, "\x65"));
    client.session->flush();
    EXPECT_EQ(client.frames.back().media_time, reached + 1000);
    client.rtp(2, rtp_packet(0, 2, 77777, "sound"));
    client.session->flush();
    EXPECT_NEAR(static_cast<double>(client.frames.back().media_time - reached), 0, 125);  // a tick
}

TEST(RtspClient, TellsTheReportsOfTracksOnOneChannelApart) {
    rtsp_client client;
    client.play(two_tracks, "", "", "Session: 1\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
    client.rtp(0, rtp_packet(96, 1, 1, "\x65", true, 7));
    client.rtp(0, rtp_packet(0, 1, 1, "sound", true, 8));
    client.rtp(1, test::sender_report(8, 0xe8b8a690, 1));
    client.rtp(1, test::sender_report(7, 0xe8b8a681, 90001));  // a second after the picture
    client.session->flush();
    ASSERT_EQ(client.frames.size(), 2U);
    EXPECT_EQ(client.frames[0].ntp_time, time_ntp_to_core(0xe8b8a680, 0));
    EXPECT_EQ(client.frames[1].ntp_time, time_ntp_to_core(0xe8b8a690, 0));
}

TEST(RtspClient, TellsMediaOfOnePayloadTypeApart) {
    for (const protocol_t::enum_t by : {protocol_t::rtp_tcp, protocol_t::rtp_udp}) {
        rtsp_client client;
        client.session->set_protocol(by);
        const std::string media = "m=audio 0 RTP/AVP 127\r\na=control:a\r\na=rtpmap:127 ";
        client.play(media + "PCMU/8000\r\n" + media +
                    "PCMA/16000\r\nm=audio 0 RTP/AVP 126\r\na=rtpmap:126 PCMU/9000\r\n");
        ASSERT_TRUE(client.session->playing()) << client.events;
        client.rtp(2, rtp_packet(127, 1, 1, "second"));
        client.rtp(0, rtp_packet(127, 1, 1, "first"));
        client.rtp(4, rtp_packet(126, 1, 1, "third"));
        EXPECT_EQ(client.seen(), "first@8000/0K second@16000/0K third@9000/0K ");
    }
}

TEST(RtspClient, SetsUpOnlyWhatIsWantedAndGoesOnWhenToldTo) {
    rtsp_client client;
    client.session->set_protocol(protocol_t::rtp_udp);
    client.before = [&](event_t::enum_t event) {
        if (event == event_t::open_client) client.session->select_trak(0, false);
    };
    client.play(two_tracks, "", "", "Transport: RTP/AVP;unicast;server_port=5000-5001;source=1.2.3.4\r\n");
    EXPECT_NE(client.asked.find("/audio RTSP/1.0\r\nCSeq: 3\r\n"), std::string::npos);
    EXPECT_EQ(client.session->trak(1)->server_port, 5000);
    EXPECT_STREQ(client.session->trak(1)->source.get(), "1.2.3.4");

    rtsp_client other;
    other.session->set_protocol(protocol_t::rtp_udp);
    other.describe(two_tracks);
    other.answer("461 Unsupported Transport");
    EXPECT_EQ(other.events, "0 3 9 ");
    other.session->set_protocol(protocol_t::rtp_tcp);
    other.session->process_setup(nullptr);
    EXPECT_NE(other.asked.find("/audio RTSP/1.0\r\nCSeq: 4\r\n"), std::string::npos);
    other.answer("200 OK", "Session: 1\r\nTransport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n");
    other.answer("200 OK");
    other.session->process_teardown(nullptr);
    other.answer("200 OK");
    EXPECT_EQ(other.events, "0 3 9 3 5 6 8 ");
    EXPECT_STREQ(other.session->session(), "");

    rtsp_client portless;
    portless.first_port = 0;
    portless.session->set_protocol(protocol_t::rtp_udp);
    portless.describe(two_tracks);
    EXPECT_EQ(portless.events, "0 3 3 9 ");
}

}  // namespace
