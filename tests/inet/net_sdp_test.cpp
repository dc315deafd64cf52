// What both faces read. That they read the same, cut, starved and bounded, is for the fuzz targets.
#include "inet/net_sdp.h"

#include "core/array.h"
#include "core/memory.h"

#include <gtest/gtest.h>
#include <sstream>

using namespace net::sdp;
using namespace std::string_literals;

namespace {

constexpr auto session =
    "v=0\r\na=control:before\r\nc=IN IP4   224.2.1.1/16\r\n"
    "m=video 5000/2 RTP/AVP 96 97\r\na=rtpmap:96 H264/90000\r\na=rtpmap:97 VP8/1000\r\n"
    "a=framerate:+29.97\r\na=control:trackID=1\r\na=fmtp:97 config=00\r\n"
    "a=fmtp:96 packetization-mode=1; profile-level-id=42e01f;sprop-parameter-sets=Z0I=,aM4=;config=1190\r\n"
    "m=audio 6000 RTP/AVP 0\r\nc=IN IP4 10.0.0.1\r\na=rtpmap:0 "
    "PCMU/8000/1\r\na=control:sound\r\nx\r\n\r\na=control:lost";

std::string repeated(uint32_t count, const std::string& part) { return count ? part + repeated(count - 1, part) : ""; }

std::string text(const char* value) { return value ? value : "-"; }

/// Of each track "media port pt encoding/rate/channels fps control" and what else there is in [].
std::string tracks_of(const std::string& description) {
    std::ostringstream out;
    sdp_t* sdp = sdp_parse(description.c_str(), CORE_HERE);
    for (trak_t** at = sdp->traks; at && *at; ++at) {
        const trak_t& of = **at;
        out << text(of.media) << ' ' << of.port << ' ' << of.pt << ' ' << text(of.encoding) << '/' << of.clock_rate
            << '/' << of.channels << ' ' << of.framerate << ' ' << text(of.control);
        for (const char* more : {of.connection, of.fmtp, of.sprop_parameter_sets, of.config})
            if (more) out << " [" << more << ']';
        out << ';';
    }
    sdp_free(sdp);
    return out.str();
}

}  // namespace

TEST(Sdp, IsReadIntoTracks) {
    const std::string longest(sdp_max_address, '1');
    const std::pair<std::string, std::string> cases[] = {
        {session,
         "video 5000 96 H264/90000/0 29.97 trackID=1 [224.2.1.1/16] [packetization-mode=1; profile-level-id=42e01f;"
         "sprop-parameter-sets=Z0I=,aM4=;config=1190] [Z0I=,aM4=] [1190];audio 6000 0 PCMU/8000/1 0 sound [10.0.0.1];"},
        {"m=video 1 RTP/AVP 96\na=control:x\n", ""},
        {"m=v 7/ RTP/AVP x\r\nm\r\n", "v 7 0 -/0/0 0 -; 0 0 -/0/0 0 -;"},
        {"m=v 4294967296 x -5\r\nm=v 4294967295 x 9999999999\r\n", "v 0 0 -/0/0 0 -;v 4294967295 0 -/0/0 0 -;"},
        {"m=v 1 x 5\r\na=rtpmap:5\r\na=fmtp:5\r\na=control\r\na\r\na=rtpmap: +5 A/1\r\n", "v 1 5 -/0/0 0 -;"},
        {"m=v 1 x 5\r\na=rtpmap:+5 A/+1/ 2x\r\na=control:a:b\r\na=control:c\r\n", "v 1 5 A/1/2 0 c;"},
        {"m=v\r\na=framerate: 12.5fps\r\nm\r\na=framerate:1e300\r\n", "v 0 0 -/0/0 12.5 -; 0 0 -/0/0 0 -;"},
        {"c=IN IP4\r\nm=v\r\nc=IN IP6 ::1\r\n", "v 0 0 -/0/0 0 - [];"},
        {"c=IN IP4 1.2\r\nm=v\r\nc=IN IP4 5/9\r\nm=w\r\n", "v 0 0 -/0/0 0 - [5/9];w 0 0 -/0/0 0 - [1.2];"},
        {"c=IN IP4 " + longest + "\r\nm=v\r\nc=IN IP4 2" + longest + "\r\n", "v 0 0 -/0/0 0 - [" + longest + "];"},
        {repeated(sdp_max_traks + 1, "m=\r\n"), repeated(sdp_max_traks, " 0 0 -/0/0 0 -;")},
    };
    for (const auto& [description, tracks] : cases)
        EXPECT_EQ(tracks_of(description), tracks) << description;
}

TEST(Sdp, ObjectReadsItsOwnKeysIsCopiedAndBounded) {
    Sdp sdp, copy;
    sdp.parse(session);
    EXPECT_EQ(sdp.text, nullptr);
    sdp.parse("a=control:session\r\nm=application 0 RTP/AVP 107\r\n");
    EXPECT_EQ(sdp.medias[0]->packetization_mode * 100 + sdp.medias[0]->profile_level_id, 142U);
    EXPECT_STREQ(sdp.medias[1]->control, "sound");
    copy = sdp;
    copy = copy;
    EXPECT_EQ(copy.current, copy.medias[2]);
    sdp.free_configs();
    sdp.clear();
    EXPECT_STREQ(copy.medias[0]->config, "1190");
    copy.free_configs();
    copy.parse(repeated(sdp_max_traks + 1, "m=\r\n").c_str());
    EXPECT_EQ(core_array_length(reinterpret_cast<void* const*>(copy.medias)), sdp_max_traks);
}

TEST(Sdp, ReadsTextsOfTheRecordItself) {
    sdp_t* sdp =
        sdp_parse("m=a 1 x 96\r\na=rtpmap:96 config=2;x/7\r\na=fmtp:96 config=3\r\na=control:fmtp:1 m\r\n", CORE_HERE);
    trak_t* const of = sdp->traks[0];
    sdp_parse_fmtp(of, of->encoding, CORE_HERE);
    sdp_parse_rtpmap(of, of->fmtp, CORE_HERE);
    sdp_parse_rtpmap(of, of->encoding, CORE_HERE);
    sdp_parse_media(of, of->control, CORE_HERE);
    sdp_parse_media(of, of->media, CORE_HERE);
    EXPECT_EQ(text(of->config) + text(of->encoding) + text(of->media), "2config=3fmtp:1");
    sdp_free(sdp);
}

TEST(SdpTransport, ReadsItsKeys) {
    constexpr std::pair<const char*, const char*> cases[] = {
        // ssrc, client port, server port, unicast, multicast and TCP, source, destination
        {"RTP/AVP/TCP;unicast;interleaved=2-3;ssrc=1A2B3C4D", "1a2b3c4d 2 0 101 - -"},
        {"RTP/AVP/UDP;multicast;destination=1.2.3.4;source=a=b;  port=7-8", "0 0 7 010 a=b 1.2.3.4"},
        {"RTP/AVP/TCP ;Unicast;client_port=-4;ssrc=123456789;;multicast;server_port=99999999999", "0 0 0 000 - -"},
        {"ssrc=0xffffffff;client_port=5-6;server_port=6-7;source=a;source=b", "ffffffff 5 6 000 b -"},
    };
    for (const auto& [value, said] : cases) {
        transport_t* read = sdp_parse_transport(value, CORE_HERE);
        std::ostringstream out;
        out << std::hex << read->ssrc << ' ' << read->client_port << ' ' << read->server_port << ' ' << +read->unicast
            << +read->multicast << +read->tcp << ' ' << text(read->source) << ' ' << text(read->destination);
        EXPECT_EQ(out.str(), said) << value;
        sdp_free_transport(read);
    }
    unsigned read[] = {9, 9, 9};
    Sdp().parse_transport("RTP/AVP/TCP;interleaved=4;ssrc;client_port=7", &read[0], &read[1], &read[2]);
    EXPECT_EQ(read[0] * 100 + read[1] * 10 + read[2], 949U);
}

TEST(SdpRtpInfo, KeepsEveryEntry) {
    const std::pair<std::string, std::string> cases[] = {
        {"  url=rtsp://h/live/video;seq=5, url=a=b; seq=6;rtptime=7", "rtsp://h/live/video 5 -,a=b 6 7,"},
        {"x,url=a,,url=b", "- - -,a - -,"},
        {repeated(sdp_max_rtp_infos + 1, "x,"), repeated(sdp_max_rtp_infos, "- - -,")},
    };
    for (const auto& [value, entries] : cases) {
        rtp_info_s** infos = sdp_parse_rtp_info(value.c_str(), CORE_HERE);
        std::string all;
        for (rtp_info_s** info = infos; *info; ++info)
            all += text((*info)->url) + " " + text((*info)->seq) + " " + text((*info)->rtptime) + ",";
        EXPECT_EQ(all, entries) << value;
        sdp_free_rtp_info(infos);
    }
}

TEST(SdpCodecSetup, DecodesParameterSetsAndConfigurations) {
    std::string cases[][3] = {
        {"Z0I=,", "\0\0\1gB\0\0\1"s, ""},          {"Z0I=", "", ""},           {"Z0!I,aM4=", "\0\0\1g\0\0\1h\xce"s, ""},
        {"Z0I=,aM4=", "\0\0\1gB\0\0\1h\xce"s, ""}, {"119", "", "\x11"},        {"11x22", "", "\x11"},
        {" \t1\r\n1 aF", "", "\x11\xaf"},          {",", "\0\0\1\0\0\1"s, ""},
    };
    for (auto& [value, sets, config] : cases) {
        buf_t read;
        sdp_parse_sprop_parameter_sets(value.data(), &read, CORE_HERE);
        EXPECT_EQ(std::string(read.data, read.data + read.length), sets) << value;
        core_buf_free(&read);
        sdp_parse_config(value.data(), &read, CORE_HERE);
        EXPECT_EQ(std::string(read.data, read.data + read.length), config) << value;
        core_buf_free(&read);
    }
}
