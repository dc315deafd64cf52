// What both faces read. That they read the same, cut and starved, is for the fuzz target.
#include "inet/net_sdp.h"

#include "support/exact.h"

#include "core/array.h"
#include "core/memory.h"

#include <array>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>

using namespace net::sdp;

namespace {

constexpr std::string_view session =
    "v=0\r\na=control:before\r\nc=IN IP4   224.2.1.1/16\r\n"
    "m=video 5000/2 RTP/AVP 96 97\r\na=rtpmap:96 H264/90000\r\na=rtpmap:97 VP8/1000\r\n"
    "a=framerate:+29.97\r\na=control:trackID=1\r\na=fmtp:97 config=00\r\n"
    "a=fmtp:96 packetization-mode=1; profile-level-id=42e01f;sprop-parameter-sets=Z0I=,aM4=;config=1190\r\n"
    "m=audio 6000 RTP/AVP 0\r\nc=IN IP4 10.0.0.1\r\na=rtpmap:0 PCMU/8000/1\r\na=control:sound\r\na=Control:no\r\nx\r\n"
    "\r\na=control:lost";

std::string text(const char* value) { return value ? value : "-"; }

std::string hex(const buf_t& bytes) {
    std::string text;
    for (uint32_t i = 0; i < bytes.length; ++i)
        text += {"0123456789abcdef"[bytes.data[i] >> 4], "0123456789abcdef"[bytes.data[i] & 15]};
    return text;
}

/// "media port pt encoding/rate/channels control", and what else there is in [].
std::string said_of(const trak_t& trak) {
    std::string said = text(trak.media) + ' ' + std::to_string(trak.port) + ' ' + std::to_string(trak.pt) + ' ' +
                       text(trak.encoding) + '/' + std::to_string(trak.clock_rate) + '/' +
                       std::to_string(trak.channels) + ' ' + text(trak.control);
    char rate[32];
    std::snprintf(rate, sizeof rate, " [%g fps]", static_cast<double>(trak.framerate));
    if (trak.framerate != 0) said += rate;
    for (const char* more : {trak.connection, trak.fmtp, trak.sprop_parameter_sets, trak.config})
        if (more) said += " [" + std::string(more) + ']';
    return said;
}

/// The tracks of a description, each with ';' behind it.
std::string tracks_of(std::string_view description) {
    sdp_t* sdp = sdp_parse(test::exact_text(description).get(), CORE_HERE);
    std::string all;
    for (trak_t** trak = sdp->traks; trak && *trak; ++trak)
        all += said_of(**trak) + ';';
    sdp_free(sdp);
    return all;
}

}  // namespace

TEST(Sdp, IsReadIntoTracks) {
    const std::string longest(sdp_max_address, '1');
    const std::pair<std::string, std::string> cases[] = {
        {std::string(session),
         "video 5000 96 H264/90000/0 trackID=1 [29.97 fps] [224.2.1.1/16] [packetization-mode=1; "
         "profile-level-id=42e01f;sprop-parameter-sets=Z0I=,aM4=;config=1190] [Z0I=,aM4=] [1190];"
         "audio 6000 0 PCMU/8000/1 sound [10.0.0.1];"},
        {"", ""},
        {"m=video 1 RTP/AVP 96\na=control:x\n", ""},
        {"m=video\r\n", "video 0 0 -/0/0 -;"},
        {"m=video 7/ RTP/AVP x\r\n", "video 7 0 -/0/0 -;"},
        {"m=v 4294967296 RTP/AVP -5\r\n", "v 0 0 -/0/0 -;"},
        {"m=v 4294967295 RTP/AVP 99999999999999999999\r\n", "v 4294967295 0 -/0/0 -;"},
        {"m\r\n", " 0 0 -/0/0 -;"},
        {"m=v 1 x 5\r\na=rtpmap:5 JPEG\r\n", "v 1 5 JPEG/0/0 -;"},
        {"m=v 1 x 5\r\na=rtpmap:5\r\na=fmtp:5\r\na=control\r\na\r\n", "v 1 5 -/0/0 -;"},
        {"m=v 1 x 5\r\na=control:a:b\r\na=control:c\r\n", "v 1 5 -/0/0 c;"},
        {"m=v 1 x 5\r\na=rtpmap: +5 A/+1/ 2x\r\n", "v 1 5 -/0/0 -;"},
        {"m=v 1 x 5\r\na=rtpmap:+5 A/+1/ 2x\r\n", "v 1 5 A/1/2 -;"},
        {"m=v\r\na=framerate: 12.5fps\r\n", "v 0 0 -/0/0 - [12.5 fps];"},
        {"m=v\r\na=framerate:1e300\r\nm=v\r\na=framerate:nan\r\n", "v 0 0 -/0/0 -;v 0 0 -/0/0 -;"},
        {"m=v\r\na=framerate:-1\r\nm=v\r\na=framerate:x\r\n", "v 0 0 -/0/0 -;v 0 0 -/0/0 -;"},
        {"c=IN IP4\r\nm=v\r\n", "v 0 0 -/0/0 - [];"},
        {"c=IN IP6 ::1\r\nm=v\r\nc=IN IP6 ::1\r\n", "v 0 0 -/0/0 -;"},
        {"c=IN IP4 1.2.3.4\r\nm=v\r\nc=IN IP4 5.6.7.8/9\r\nm=w\r\n",
         "v 0 0 -/0/0 - [5.6.7.8/9];w 0 0 -/0/0 - [1.2.3.4];"},
        {"c=IN IP4 " + longest + "\r\nm=v\r\nc=IN IP4 2" + longest + "\r\n", "v 0 0 -/0/0 - [" + longest + "];"},
    };
    for (const auto& [description, tracks] : cases)
        EXPECT_EQ(tracks_of(description), tracks) << description;
}

TEST(Sdp, ObjectReadsItsOwnKeysAndIsCopied) {
    Sdp sdp;
    sdp.parse(session.data());
    sdp.parse("a=control:session\r\nm=application 0 RTP/AVP 107\r\n");
    Sdp copy;
    copy = sdp;
    copy = copy;
    for (const Sdp* each : {&sdp, &copy}) {
        ASSERT_EQ(core_array_length(reinterpret_cast<void* const*>(each->medias)), 3U);
        EXPECT_EQ(each->medias[0]->packetization_mode, 1U);
        EXPECT_EQ(each->medias[0]->profile_level_id, 42U);
        EXPECT_EQ(text(each->medias[1]->control), "sound");
        EXPECT_EQ(each->current, each->medias[2]);
    }
    char* config = sdp.medias[0]->config;
    sdp.clear();
    EXPECT_STREQ(config, "1190") << "it is for whoever parses to release";
    core_mfree(config);
    EXPECT_EQ(sdp.medias, nullptr);
    EXPECT_EQ(text(copy.medias[0]->media) + text(copy.medias[0]->config), "video1190");
    copy.free_configs();
}

TEST(Sdp, HoldsABoundedNumberOfTracksAndStreams) {
    std::string lines, first_tracks, entries;
    for (uint32_t i = 0; i <= sdp_max_traks; ++i) {
        lines += "m=v " + std::to_string(i) + " x 1\r\n";
        if (i < sdp_max_traks) first_tracks += "v " + std::to_string(i) + " 1 -/0/0 -;";
    }
    EXPECT_EQ(tracks_of(lines), first_tracks);
    Sdp object;
    object.parse(lines.c_str());
    EXPECT_EQ(core_array_length(reinterpret_cast<void* const*>(object.medias)), sdp_max_traks);

    for (uint32_t i = 0; i <= sdp_max_rtp_infos; ++i)
        entries += "x,";
    rtp_info_s** infos = object.parse_rtp_info(entries.c_str());
    EXPECT_EQ(core_array_length(reinterpret_cast<void* const*>(infos)), sdp_max_rtp_infos);
    sdp_free_rtp_info(infos);
}

TEST(SdpTransport, ReadsItsKeys) {
    constexpr struct {
        std::string_view value;
        const char* said;  // ssrc, client port, server port, u m t for the flags, source, destination
    } cases[] = {
        {"RTP/AVP/TCP;unicast;interleaved=2-3;ssrc=1A2B3C4D", "1a2b3c4d 2 0 ut - -"},
        {"RTP/AVP;unicast;  client_port=5000-5001;server_port=6000-6001", "0 5000 6000 u - -"},
        {"RTP/AVP/UDP;multicast;destination=1.2.3.4;source=a=b;port=7-8", "0 0 7 m a=b 1.2.3.4"},
        {"RTP/AVP/TCP ;Unicast;client_port;ssrc", "0 0 0  - -"},
        {"unicast;;multicast", "0 0 0 u - -"},
        {"ssrc=123456789;client_port=-4;server_port=99999999999", "0 0 0  - -"},
        {"ssrc=0xffffffff;source=a;source=b", "ffffffff 0 0  b -"},
        {"", "0 0 0  - -"},
    };
    for (const auto& each : cases) {
        transport_t* read = sdp_parse_transport(test::exact_text(each.value).get(), CORE_HERE);
        char said[100];
        std::snprintf(said, sizeof said, "%x %u %u %s%s%s %s %s", read->ssrc, read->client_port, read->server_port,
                      read->unicast ? "u" : "", read->multicast ? "m" : "", read->tcp ? "t" : "",
                      text(read->source).c_str(), text(read->destination).c_str());
        EXPECT_STREQ(said, each.said) << each.value;
        sdp_free_transport(read);
    }
    std::array<unsigned, 3> read{9, 9, 9};
    Sdp().parse_transport("RTP/AVP/TCP;interleaved=2-3;ssrc=ff;client_port=7", &read[0], &read[1], &read[2]);
    EXPECT_EQ(read, (std::array{0xffU, 2U, 3U}));
    Sdp().parse_transport("RTP/AVP/TCP;interleaved=4;ssrc", &read[0], &read[1], &read[2]);
    EXPECT_EQ(read, (std::array{0xffU, 4U, 3U}));
}

TEST(SdpRtpInfo, KeepsEveryEntry) {
    constexpr std::pair<std::string_view, const char*> cases[] = {
        {"  url=rtsp://h/live/video;seq=5, url=a=b; seq=6;rtptime=7", "rtsp://h/live/video 5 -,a=b 6 7,"},
        {"x,url=a", "- - -,a - -,"},
        {"url=a,,url=b", "a - -,"},
        {"url", "- - -,"},
        {"", ""},
    };
    for (const auto& [value, entries] : cases) {
        rtp_info_s** infos = sdp_parse_rtp_info(test::exact_text(value).get(), CORE_HERE);
        std::string all;
        for (rtp_info_s** info = infos; info && *info; ++info)
            all += text((*info)->url) + " " + text((*info)->seq) + " " + text((*info)->rtptime) + ",";
        EXPECT_EQ(all, entries) << value;
        sdp_free_rtp_info(infos);
    }
}

TEST(SdpCodecSetup, DecodesParameterSetsAndConfigurations) {
    constexpr struct {
        std::string_view value;
        const char *sets, *config;
    } cases[] = {
        {"Z0I=,aM4=", "000001674200000168ce", ""},
        {"Z0!I,aM4=", "0000016700000168ce", ""},
        {"Z0I=,", "0000016742000001", ""},
        {",", "000001000001", ""},
        {"Z0I=", "ff", ""},
        {"1190 ", "ff", "1190"},
        {"119", "ff", "11"},
        {" \t1\r\n1 aF", "ff", "11af"},
        {"11x22", "ff", "11"},
    };
    for (const auto& each : cases) {
        const test::exact_text exact(each.value);
        buf_t sets, config;
        core_buf_read(&sets, "\xff", 1);
        sdp_parse_sprop_parameter_sets(exact.get(), &sets, CORE_HERE);
        EXPECT_EQ(hex(sets), each.sets) << each.value;
        sdp_parse_config(exact.get(), &config, CORE_HERE);
        EXPECT_EQ(hex(config), each.config) << each.value;
        for (buf_t* buf : {&sets, &config})
            core_buf_free(buf);
    }
}
