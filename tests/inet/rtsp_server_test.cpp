// What the RTSP session answers, and what it does to bytes that are not as they should be.
#include "rtsp_owner.h"

#include "inet/net_http_auth.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
using rtsp3::event_t;
using namespace std::string_literals;
using test::rtsp_owner;

const std::string date = "Date: Tue, 14 Nov 2023 22:13:20 GMT\r\n";

TEST(RtspServer, AnswersAPlayerOverTcp) {
    rtsp_owner owner;
    owner.feed(test::dialog("rtsp_server/tcp-cut"));
    const std::string ok = "RTSP/1.0 200 OK\r\nCSeq: ";
    const std::string sdp =
        "v=0\r\no=- 0 0 IN IP4 0.0.0.0\r\ns=inet test camera\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\na=recvonly\r\n"
        "m=video 0 RTP/AVP 96\r\na=recvonly\r\na=control:video\r\na=rtpmap:96 H264/90000\r\n"
        "m=audio 0 RTP/AVP 97\r\na=recvonly\r\na=control:audio\r\na=rtpmap:97 PCMU/8000/1\r\n"
        "m=application 0 RTP/AVP 107\r\na=recvonly\r\na=control:application\r\n"
        "a=rtpmap:107 vnd.onvif.metadata/90000\r\n";
    const std::string base = "rtsp://127.0.0.1:8554/live/";
    const std::string session = "Session: N\r\n";
    const auto ticks = [](uint64_t rate) { return std::to_string(static_cast<uint32_t>(1700000000 * rate)); };
    const std::string info = "RTP-Info: url=" + base + "video;seq=N,url=" + base +
                             "audio;seq=N;rtptime=" + ticks(8000) + ",url=" + base +
                             "application;seq=N;rtptime=" + ticks(90000) + "\r\n";
    // Two parameter sets, a slice in two pieces and the report go out with the first frame.
    EXPECT_EQ(test::normal(owner.sent),
              ok + "1\r\nPublic: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE\r\n" + date + "\r\n" +  //
                  ok + "2\r\nContent-Base: " + base + "\r\nContent-Type: application/sdp\r\nContent-Length: " +
                  std::to_string(sdp.size()) + "\r\n\r\n" + sdp +                                      //
                  ok + "3\r\n" + session + "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n" +  //
                  ok + "4\r\n" + session + "Transport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n\r\n" +  //
                  ok + "5\r\n" + session + info + date + "\r\n[0][0][0][0][1]" +                       //
                  ok + "6\r\n" + session + date + "\r\n" +                                             //
                  ok + "7\r\n" + session + date + "\r\n" +                                             //
                  ok + "8\r\n" + session + info + date + "\r\n[0][0][0][0]" +                          //
                  ok + "9\r\n" + session + date + "\r\n");
    EXPECT_EQ(owner.events, "1 3 3 6 7 6 8 ");
}

TEST(RtspServer, RefusesWhatItCannotServe) {
    const std::string tcp = "Transport: RTP/AVP/TCP;unicast\r\n";
    const struct {
        const char* request;
        std::string fields;
        int status;
    } cases[] = {
        {"SETUP rtsp://h/live/video", "", 400},
        {"SETUP rtsp://h/live/video", "Transport: \r\n", 400},
        {"SETUP rtsp://h/live/video", "Transport: by pigeon;client_port=1-2\r\n", 400},
        {"SETUP rtsp://h/live/other", tcp, 404},
        {"SETUP rtsp://h/live/novideo", tcp, 404},
        {"SETUP rtsp://h/live/video", "Transport: RTP/AVP;unicast\r\n", 461},
        {"SETUP rtsp://h/live/video", "Transport: RTP/AVP;unicast;client_port=0-1\r\n", 461},
        {"SETUP rtsp://h/live/video", "Transport: RTP/AVP;unicast;client_port=65535\r\n", 461},
        {"SETUP rtsp://h/live/video", "Transport: RTP/SAVP/TCP;unicast\r\n", 461},
        {"SETUP rtsp://h/live/video", tcp + "Session: 1\r\n", 454},
        {"PLAY rtsp://h/live/", "", 455},
        {"PLAY rtsp://h/live/", "Session: 1\r\n", 454},
        {"PAUSE rtsp://h/live/", "", 455},
        {"TEARDOWN rtsp://h/live/", "Session: \r\n", 454},
        {"SET_PARAMETER rtsp://h/live/", "Content-Length: x\r\n", 400},
        {"GET_PARAMETER rtsp://h/live/", "Content-Length: 65537\r\n", 400},
        {"PLAY rtsp://h/live/", "Content-Length: 5\r\nContent-Length: 6\r\n", 400},
        {"PLAY rtsp://h/live/", "X: \0Content-Length: 5\r\n"s, 400},
        {"DESCRIBE rtsp://h/\x01", "", 400},
        {"RECORD rtsp://h/", "", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request + c.fields);
        rtsp_owner owner;
        ASSERT_EQ(owner.status("DESCRIBE rtsp://h/live"), 200);
        owner.events.clear();
        EXPECT_EQ(owner.status(c.request, c.fields), c.status);
        // Only a body that cannot be told from what follows ends the conversation.
        const bool over = c.fields.find("Content-Length") != std::string::npos;
        EXPECT_EQ(owner.events, over ? "2 " : "");
        EXPECT_EQ(owner.status("OPTIONS *"), over ? 0 : 200);
        EXPECT_FALSE(owner.session->playing());
    }
    // A session named right, with or without what clients put behind it, is served.
    rtsp_owner owner;
    owner.play();
    EXPECT_EQ(owner.status("PLAY rtsp://h/live/", "Session: {session};timeout=60\r\n"), 200);
    EXPECT_EQ(owner.status("SETUP rtsp://h/live/video", tcp + "Session: {session}\r\n"), 200);
    EXPECT_EQ(owner.status("TEARDOWN rtsp://h/live/", "Session: {session}0\r\n"), 454);
    EXPECT_TRUE(owner.session->playing());
    EXPECT_EQ(owner.status("TEARDOWN rtsp://h/live/", "Session: {session}\r\n"), 200);
    EXPECT_STREQ(owner.session->session(), "");
}

TEST(RtspServer, FindsTrackAndTransport) {
    const char* const cases[][3] = {
        {"rtsp://h/live//audio/", "RTP/AVP/TCP;unicast", "RTP/AVP/TCP;unicast;interleaved=2-3"},
        {"rtsp://h/live/video", "RTP/AVP/TCP;unicast;interleaved=254-255", "RTP/AVP/TCP;unicast;interleaved=254-255"},
        {"audio", "RTP/AVP/TCP;interleaved=255-256", "RTP/AVP/TCP;unicast;interleaved=2-3"},
        {"rtsp://h/live?a=/b/video", "RTP/AVP/TCP;unicast", "RTP/AVP/TCP;unicast;interleaved=0-1"},
        {"rtsp://h/live/application?a=b", "rtp/avp/tcp;unicast", "RTP/AVP/TCP;unicast;interleaved=4-5"},
        {"rtsp://h/live/video", "RTP/AVP;multicast, RTP/AVP/UDP;unicast;client_port=7000-7001,RTP/AVP/TCP",
         "RTP/AVP/UDP;unicast;client_port=7000-7001;server_port=6000-6001;"},
    };
    for (const auto& [uri, transport, answer] : cases) {
        rtsp_owner owner;
        owner.status("DESCRIBE rtsp://h/live");
        owner.status(std::string("SETUP ") + uri, std::string("Transport: ") + transport + "\r\n");
        EXPECT_TRUE(owner.sent.ends_with(std::string("\r\nTransport: ") + answer + "\r\n\r\n")) << owner.sent;
    }
}

TEST(RtspServer, SetsUpTracksOfOneMediumInTurn) {
    rtsp_owner owner;
    owner.formats = {av::fcc_h264, av::fcc_h264, av::fcc_pcmu, av::fcc_jpeg, av::fcc_univ};
    owner.status("DESCRIBE rtsp://h/live");
    std::string types;
    for (uint32_t i = 0; i < owner.session->trak_count(); ++i)
        types += std::to_string(owner.session->trak(i)->rtp->pt) + " ";
    EXPECT_EQ(types, "96 97 98 26 99 ");
    EXPECT_EQ(owner.session->add_trak(av::fcc_jpeg, nullptr, CORE_HERE), nullptr);  // its payload type is taken
    for (int i = 0; i < 3; ++i)
        owner.status("SETUP rtsp://h/live/video", "Transport: RTP/AVP/TCP\r\n");
    EXPECT_TRUE(owner.session->trak(0U)->set_up && owner.session->trak(1)->set_up && owner.session->trak(3)->set_up);
    EXPECT_NE(owner.session->trak(0U)->rtp->ssrc, owner.session->trak(1)->rtp->ssrc);
}

TEST(RtspServer, DescribesMoreSoundWhenItIsAskedFor) {
    uint8_t config[] = {0x11, 0x90};
    const struct {
        uint32_t fcc;
        rtsp3::sound_t sound;
        const char* described;  ///< behind the payload type; null for not
    } cases[] = {
        {av::fcc_pcmu, {}, "97\r\na=recvonly\r\na=control:audio\r\na=rtpmap:97 PCMU/8000/1\r\n"},
        {av::fcc_pcmu, {16000, 2}, "97\r\na=recvonly\r\na=control:audio\r\na=rtpmap:97 PCMU/16000/2\r\n"},
        {av::fcc_pcma, {8000, 1}, "8\r\na=recvonly\r\na=control:audio\r\na=rtpmap:8 PCMA/8000/1\r\n"},
        {av::fcc_pcma, {16000, 1}, "97\r\na=recvonly\r\na=control:audio\r\na=rtpmap:97 PCMA/16000/1\r\n"},
        {av::fcc_mp4a,
         {48000, 2, {config, 2}},
         "97\r\na=recvonly\r\na=control:audio\r\na=rtpmap:97 mpeg4-generic/48000/2\r\na=fmtp:97 streamtype=5;"
         "profile-level-id=254;mode=AAC-hbr;sizelength=13;indexlength=3;indexdeltalength=3;config=1190\r\n"},
        {av::fcc_mp4a, {0, 2, {config, 2}}, nullptr},
        {av::fcc_mp4a, {48000, 2, {}}, nullptr},
        {av::fcc_g726, {8000, 1}, nullptr},
    };
    for (const auto& [fcc, sound, described] : cases) {
        rtsp_owner owner;
        owner.session->add_trak(av::fcc_h264, nullptr, CORE_HERE);
        const bool usual = fcc == av::fcc_pcmu;
        EXPECT_TRUE(usual || !owner.session->add_trak(fcc, nullptr, sound, CORE_HERE));
        owner.session->set_all_formats(true);
        const rtsp3::trak_t* const track = owner.session->add_trak(fcc, nullptr, sound, CORE_HERE);
        ASSERT_EQ(track != nullptr, described != nullptr);
        if (!track) continue;
        EXPECT_EQ(track->rtp->clock_rate, sound.rate ? sound.rate : 8000);
        owner.session->send_sdp("a", "b", "c", 0, 0);
        EXPECT_TRUE(owner.sent.ends_with("m=audio 0 RTP/AVP "s + described)) << owner.sent;
    }
}

TEST(RtspServer, DescribesTheRangeInSecondsAndNothingWithoutAName) {
    rtsp_owner owner;
    owner.session->send_sdp("a", "b", "c", 1000000, 61999999);
    EXPECT_NE(owner.sent.find("s=a b c\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\na=recvonly\r\na=range:npt=0-60\r\n"),
              std::string::npos);
    rtsp_owner nameless;
    nameless.session->send_sdp("a", nullptr, "c", 0, 0);
    EXPECT_TRUE(nameless.sent.starts_with("RTSP/1.0 404 "));
}

TEST(RtspServer, DescribesParameterSetsAndRefusesMethodsWhenToldTo) {
    rtsp_owner owner;
    owner.formats = {av::fcc_h264};
    owner.sets = test::access_unit(0).substr(0, 12);  // an SPS alone
    owner.status("DESCRIBE rtsp://h/live");
    EXPECT_EQ(owner.sent.find("fmtp"), std::string::npos);
    owner.sets = test::access_unit(0);
    owner.status("DESCRIBE rtsp://h/live");
    EXPECT_TRUE(
        owner.sent.ends_with("a=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;profile-level-id=42c01e;"
                             "sprop-parameter-sets=Z0LAHtkBQHsg,aM48gA==\r\n"))
        << owner.sent;
    owner.session->set_unknown_methods(true);
    EXPECT_EQ(owner.status("RECORD rtsp://h/"), 501);
    EXPECT_TRUE(owner.sent.starts_with("RTSP/1.0 501 Not Implemented\r\nCSeq: 1\r\nPublic: OPTIONS, ")) << owner.sent;

    // What makes no sense is counted between two requests that are served.
    for (int i = 0; i < 205 && !owner.session->closed(); ++i) {
        owner.feed("\1\r\n\r\n");
        if (i == 99) owner.status("OPTIONS *");
        EXPECT_EQ(owner.session->closed(), i == 200) << i;
    }
}

std::string challenge_of(const std::string& answer) {
    std::smatch found;
    return std::regex_search(answer, found, std::regex("WWW-Authenticate: ([^\r]*)\r\n")) ? found[1].str() : "";
}

std::string digest(const std::string& challenge, const char* user, const char* password, const char* method,
                   const char* uri) {
    const core::owned_text value(net_http_authenticate(user, password, method, uri, challenge.c_str(), CORE_HERE));
    return std::string("Authorization: ") + value.get() + "\r\n";
}

TEST(RtspServer, AdmitsOnlyTheRightAnswerToItsOwnChallenge) {
    const char* const uri = "rtsp://h/live";
    const std::string describe = "DESCRIBE rtsp://h/live";
    rtsp_owner owner;
    rtsp_owner other;
    ASSERT_TRUE(owner.session->set_credentials("admin", "secret") && other.session->set_credentials("admin", "secret"));
    EXPECT_EQ(owner.status("OPTIONS *"), 200);
    for (const char* method : {"SETUP", "PLAY", "PAUSE", "GET_PARAMETER", "SET_PARAMETER", "TEARDOWN", "DESCRIBE"})
        EXPECT_EQ(owner.status(std::string(method) + " " + uri), 401) << method;
    const std::string challenge = challenge_of(owner.sent);
    EXPECT_TRUE(
        std::regex_match(challenge, std::regex("Digest realm=\"inet\", nonce=\"[0-9A-Za-z]{46}\", stale=FALSE")));
    other.status(describe);
    EXPECT_NE(challenge, challenge_of(other.sent));

    EXPECT_EQ(owner.status(describe, digest(challenge, "admin", "wrong", "DESCRIBE", uri)), 401);
    EXPECT_EQ(owner.status(describe, digest(challenge_of(other.sent), "admin", "secret", "DESCRIBE", uri)), 401);
    EXPECT_EQ(owner.status(describe, digest(challenge, "admin", "secret", "PLAY", uri)), 401);
    EXPECT_EQ(owner.events, "");
    EXPECT_EQ(owner.status(describe, digest(challenge, "admin", "secret", "DESCRIBE", uri)), 200);
    EXPECT_EQ(owner.events, "1 ");

    const std::string setup = "SETUP rtsp://h/live/video";
    const std::string transport = "Transport: RTP/AVP/TCP\r\n";
    EXPECT_EQ(owner.status(setup, transport), 401);
    // An answer for the session's URI serves for its tracks, one for another URI does not.
    EXPECT_EQ(owner.status(setup, transport + digest(challenge, "admin", "secret", "SETUP", "rtsp://h/other")), 401);
    EXPECT_EQ(owner.status(setup, transport + digest(challenge, "admin", "secret", "SETUP", "rtsp://h/live/")), 200);
    EXPECT_EQ(owner.status("PLAY rtsp://h/live/"), 401);
    EXPECT_FALSE(owner.session->playing());
}

TEST(RtspServer, BoundsWhatAPeerMakesItHold) {
    const std::string options = "OPTIONS * RTSP/1.0\r\nPad: ";
    for (const size_t size : {4098U, 4099U}) {
        rtsp_owner owner;
        const std::string header = options + std::string(size - options.size() - 4, 'x') + "\r\n\r\n";
        EXPECT_EQ(owner.ask(header).empty(), size > 4098);
        EXPECT_EQ(owner.session->closed(), size > 4098);
    }
    const std::string cseq = "\r\nCSeq: " + std::string(4000, '1') + "\r\n";
    EXPECT_EQ(rtsp_owner().ask("OPTIONS * RTSP/1.0" + cseq + "\r\n").find(cseq), 15U);
    std::string fields = "SET_PARAMETER * RTSP/1.0\r\nCSeq: 1\r\n";
    while (fields.size() < 4060)
        fields += ":\r\n";
    EXPECT_EQ(test::normal(rtsp_owner().ask(fields + "Content-Length: 22\r\n\r\nOPTIONS * RTSP/1.0\r\n\r\n")),
              "RTSP/1.0 200 OK\r\nCSeq: 1\r\n" + date + "\r\n");
    rtsp_owner body;  // the longest one, and the longest packet
    body.feed("SET_PARAMETER * RTSP/1.0\r\nContent-Length: 65536\r\n\r\n" + std::string(65536, '$') +
              std::string("$\0\xff\xff", 4) + std::string(65535, '\r') + options + "\r\n\r\n");
    EXPECT_EQ(body.sends, 2U);
    EXPECT_NE(body.sent.rfind("Public"), std::string::npos);

    rtsp_owner deaf;
    deaf.reading = false;
    for (int i = 0; i < 10000; ++i)
        deaf.feed(options + "\r\n\r\n");
    EXPECT_EQ(deaf.events, "2 ");
    EXPECT_LT(deaf.session->send_buffer()->length, 66U * 1024);
    EXPECT_EQ(deaf.received.length, 0U);
}

}  // namespace
