#include "inet/net_sdp.h"

#include "support/exact.h"
#include "support/fault.h"

#include "core/array.h"
#include "core/memory.h"

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <string>

using namespace net::sdp;

namespace {

constexpr std::string_view session =
    "v=0\r\n"
    "o=- 0 0 IN IP4 0.0.0.0\r\n"
    "a=control:before\r\n"
    "c=IN IP4   224.2.1.1/16\r\n"
    "m=video 5000/2 RTP/AVP 96 97\r\n"
    "a=rtpmap:96 H264/90000\r\n"
    "a=rtpmap:97 VP8/1000\r\n"
    "a=framerate:+29.97\r\n"
    "a=control:trackID=1\r\n"
    "a=fmtp:96 packetization-mode=1; profile-level-id=42e01f;sprop-parameter-sets=Z0I=,aM4=;config=1190\r\n"
    "a=fmtp:97 config=00\r\n"
    "m=audio 6000 RTP/AVP 0\r\n"
    "c=IN IP4 10.0.0.1\r\n"
    "a=rtpmap:0 PCMU/8000/1\r\n"
    "a=control:sound\r\n"
    "a=Control:no\r\n"
    "a=recvonly\r\n"
    "x\r\n"
    "\r\n"
    "a=control:lost";

struct sdp_deleter {
    void operator()(sdp_t* sdp) const { sdp_free(sdp); }
    void operator()(transport_t* transport) const { sdp_free_transport(transport); }
};
using owned_sdp = std::unique_ptr<sdp_t, sdp_deleter>;
using owned_transport = std::unique_ptr<transport_t, sdp_deleter>;

owned_sdp parse(std::string_view text) { return owned_sdp(sdp_parse(test::exact_text(text).get(), CORE_HERE)); }
owned_transport transport(std::string_view value) {
    return owned_transport(sdp_parse_transport(test::exact_text(value).get(), CORE_HERE));
}

std::string text(const char* value) { return value ? value : "-"; }

std::string hex(const uint8_t* data, uint32_t size) {
    std::string text;
    for (uint32_t i = 0; i < size; ++i)
        text += {"0123456789abcdef"[data[i] >> 4], "0123456789abcdef"[data[i] & 15]};
    return text;
}
std::string hex(const buf_t& bytes) { return hex(bytes.data, bytes.length); }
std::string hex(const buffer_t& bytes) { return hex(bytes.data, bytes.size); }

/// What both kinds of record have.
template <class Record>
std::string common(const Record& record) {
    return text(record.media) + " " + std::to_string(record.port) + " " + std::to_string(record.pt) + " " +
           text(record.encoding) + "/" + std::to_string(record.clock_rate) + "/" + std::to_string(record.channels) +
           " " + text(record.control);
}

/// The only track of a description.
std::string track_of(std::string_view lines) {
    const owned_sdp sdp = parse(lines);
    return sdp->traks ? common(*sdp->traks[0]) : "none";
}

/// An Sdp whose `config` texts go with it.
struct owning_sdp : Sdp {
    owning_sdp() = default;
    ~owning_sdp() { free_configs(); }
    using Sdp::operator=;
};

}  // namespace

TEST(Sdp, IsReadIntoTracks) {
    const owned_sdp sdp = parse(session);
    ASSERT_EQ(core_array_length(reinterpret_cast<void* const*>(sdp->traks)), 2U);
    const trak_t& video = *sdp->traks[0];
    EXPECT_EQ(common(video), "video 5000 96 H264/90000/0 trackID=1");
    EXPECT_FLOAT_EQ(video.framerate, 29.97F);
    EXPECT_EQ(text(video.connection), "224.2.1.1/16");
    EXPECT_EQ(text(video.fmtp),
              "packetization-mode=1; profile-level-id=42e01f;sprop-parameter-sets=Z0I=,aM4=;config=1190");
    EXPECT_EQ(text(video.sprop_parameter_sets), "Z0I=,aM4=");
    EXPECT_EQ(text(video.config), "1190");
    const trak_t& audio = *sdp->traks[1];
    EXPECT_EQ(common(audio), "audio 6000 0 PCMU/8000/1 sound");
    EXPECT_EQ(text(audio.connection), "10.0.0.1");
    EXPECT_EQ(sdp->text, nullptr);
    EXPECT_EQ(sdp->extra, nullptr);
    EXPECT_EQ(sdp_parse(nullptr, CORE_HERE), nullptr);
    sdp_free(nullptr);
}

TEST(Sdp, ObjectReadsTheSameAndItsOwnKeys) {
    owning_sdp sdp;
    sdp.parse(test::exact_text(session).get());
    sdp.parse("a=control:session\r\nm=application 0 RTP/AVP 107\r\n");
    sdp.parse(nullptr);
    ASSERT_EQ(core_array_length(reinterpret_cast<void* const*>(sdp.medias)), 3U);
    owning_sdp copy;
    copy = sdp;
    copy = copy;
    for (const Sdp* each : {static_cast<const Sdp*>(&sdp), static_cast<const Sdp*>(&copy)}) {
        const media_s& video = *each->medias[0];
        EXPECT_EQ(common(video), "video 5000 96 H264/90000/0 trackID=1");
        EXPECT_EQ(video.packetization_mode, 1U);
        EXPECT_EQ(video.profile_level_id, 42U);
        EXPECT_EQ(text(video.sprop_parameter_sets), "Z0I=,aM4=");
        EXPECT_EQ(text(video.config), "1190");
        EXPECT_EQ(common(*each->medias[1]), "audio 6000 0 PCMU/8000/1 sound");
        EXPECT_EQ(each->current, each->medias[2]);
    }
    sdp.free_configs();
    sdp.clear();
    EXPECT_EQ(sdp.medias, nullptr);
    EXPECT_EQ(text(copy.medias[0]->media), "video");
}

TEST(Sdp, ClearLeavesTheConfigToItsOwner) {
    Sdp sdp;
    sdp.parse("m=audio 0 RTP/AVP 97\r\na=fmtp:97 config=1190\r\n");
    char* config = sdp.medias[0]->config;
    sdp.clear();
    EXPECT_STREQ(config, "1190");
    core_mfree(config);
}

TEST(Sdp, TakesLinesAsTheyAre) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"", "none"},
        {"m=video 1 RTP/AVP 96", "none"},
        {"m=video 1 RTP/AVP 96\na=control:x\n", "none"},
        {"m=video\r\n", "video 0 0 -/0/0 -"},
        {"m=video 7\r\n", "video 0 0 -/0/0 -"},
        {"m=video 7 RTP/AVP\r\n", "video 7 0 -/0/0 -"},
        {"m=video 7/ RTP/AVP x\r\n", "video 7 0 -/0/0 -"},
        {"m=v 4294967296 RTP/AVP -5\r\n", "v 0 0 -/0/0 -"},
        {"m=v 4294967295 RTP/AVP 99999999999999999999\r\n", "v 4294967295 0 -/0/0 -"},
        {"m\r\n", " 0 0 -/0/0 -"},
        {"m=v 1 x 5\r\na=rtpmap:5 JPEG\r\n", "v 1 5 JPEG/0/0 -"},
        {"m=v 1 x 5\r\na=rtpmap:5\r\na=fmtp:5\r\na=control\r\na\r\n", "v 1 5 -/0/0 -"},
        {"m=v 1 x 5\r\na=control:a:b\r\na=control:c\r\n", "v 1 5 -/0/0 c"},
        {"m=v 1 x 5\r\na=rtpmap: +5 A/+1/ 2x\r\n", "v 1 5 -/0/0 -"},
        {"m=v 1 x 5\r\na=rtpmap:+5 A/+1/ 2x\r\n", "v 1 5 A/1/2 -"},
    };
    for (const auto& [lines, track] : cases)
        EXPECT_EQ(track_of(lines), track) << lines;

    const std::pair<std::string_view, float> rates[] = {
        {"25", 25.F}, {" 12.5fps", 12.5F}, {"1e999", 0.F}, {"1e300", 0.F}, {"nan", 0.F}, {"-1", 0.F}, {"x", 0.F}};
    for (const auto& [rate, framerate] : rates) {
        const owned_sdp sdp = parse("m=v\r\na=framerate:" + std::string(rate) + "\r\n");
        EXPECT_EQ(sdp->traks[0]->framerate, framerate) << rate;
    }
}

TEST(Sdp, GivesTracksTheAddressOfTheSession) {
    const std::string longest(sdp_max_address, '1');
    const std::pair<std::string, std::string> cases[] = {
        {"c=IN IP4 1.2.3.4\r\nm=v\r\n", "1.2.3.4"},
        {"c=IN IP4\r\nm=v\r\n", ""},
        {"c=IN IP6 ::1\r\nm=v\r\nc=IN IP6 ::1\r\n", "-"},
        {"c=IN IP4 1.2.3.4\r\nm=v\r\nc=IN IP4 5.6.7.8/9\r\n", "5.6.7.8/9"},
        {"c=IN IP4 " + longest + "\r\nm=v\r\nc=IN IP4 2" + longest + "\r\n", longest},
    };
    for (const auto& [lines, address] : cases)
        EXPECT_EQ(text(parse(lines)->traks[0]->connection), address) << lines;
}

TEST(Sdp, HoldsABoundedNumberOfTracks) {
    std::string lines;
    for (uint32_t i = 0; i <= sdp_max_traks; ++i)
        lines += "m=v " + std::to_string(i) + " x 1\r\na=control:" + std::to_string(i) + "\r\n";
    const owned_sdp sdp = parse(lines);
    ASSERT_EQ(core_array_length(reinterpret_cast<void* const*>(sdp->traks)), sdp_max_traks);
    EXPECT_EQ(text(sdp->traks[sdp_max_traks - 1]->control), std::to_string(sdp_max_traks - 1));
    Sdp object;
    object.parse(lines.c_str());
    EXPECT_EQ(core_array_length(reinterpret_cast<void* const*>(object.medias)), sdp_max_traks);
}

TEST(Sdp, MayBeCutAnywhere) {
    for (size_t size = 0; size <= session.size(); ++size) {
        const owned_sdp sdp = parse(session.substr(0, size));
        owning_sdp object;
        object.parse(test::exact_text(session.substr(0, size)).get());
        EXPECT_EQ(sdp->traks == nullptr, object.medias == nullptr) << size;
    }
}

TEST(SdpTransport, ReadsItsKeys) {
    struct {
        std::string_view value;
        uint32_t ssrc, client, server;
        const char* flags;
        const char *source, *destination;
    } const cases[] = {
        {"RTP/AVP/TCP;unicast;interleaved=0-1;ssrc=1A2B3C4D", 0x1a2b3c4d, 0, 0, "ut", "-", "-"},
        {"RTP/AVP;unicast;  client_port=5000-5001;server_port=6000-6001", 0, 5000, 6000, "u", "-", "-"},
        {"RTP/AVP/UDP;multicast;destination=1.2.3.4;source=a=b;port=7-8", 0, 0, 7, "m", "a=b", "1.2.3.4"},
        {"RTP/AVP/TCP ;Unicast;client_port;ssrc", 0, 0, 0, "", "-", "-"},
        {"unicast;;multicast", 0, 0, 0, "u", "-", "-"},
        {"ssrc=123456789;client_port=-4;server_port=99999999999", 0, 0, 0, "", "-", "-"},
        {"ssrc=0xffffffff;source=a;source=b", 0xffffffff, 0, 0, "", "b", "-"},
        {"", 0, 0, 0, "", "-", "-"},
    };
    for (const auto& each : cases) {
        const owned_transport read = transport(each.value);
        EXPECT_EQ(read->ssrc, each.ssrc) << each.value;
        EXPECT_EQ(read->client_port, each.client) << each.value;
        EXPECT_EQ(read->server_port, each.server) << each.value;
        const std::string flags =
            std::string(read->unicast ? "u" : "") + (read->multicast ? "m" : "") + (read->tcp ? "t" : "");
        EXPECT_EQ(flags, each.flags) << each.value;
        EXPECT_EQ(text(read->source), each.source) << each.value;
        EXPECT_EQ(text(read->destination), each.destination) << each.value;
    }
    EXPECT_NE(owned_transport(sdp_parse_transport(nullptr, CORE_HERE)), nullptr);
    sdp_free_transport(nullptr);

    unsigned ssrc = 9;
    unsigned a = 9;
    unsigned b = 9;
    Sdp().parse_transport("RTP/AVP/TCP;interleaved=2-3;ssrc=ff;client_port=7", &ssrc, &a, &b);
    EXPECT_EQ((std::array{ssrc, a, b}), (std::array{0xffU, 2U, 3U}));
    Sdp().parse_transport("RTP/AVP/TCP;interleaved=4;ssrc", &ssrc, &a, &b);
    EXPECT_EQ((std::array{ssrc, a, b}), (std::array{0xffU, 4U, 3U}));
    Sdp().parse_transport("interleaved=4-5;ssrc=1", nullptr, nullptr, nullptr);
    Sdp().parse_transport(nullptr, &ssrc, &a, &b);
}

TEST(SdpRtpInfo, KeepsEveryEntry) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"  url=rtsp://h/live/video;seq=5, url=a=b; seq=6;rtptime=7", "rtsp://h/live/video 5 -,a=b 6 7,"},
        {"x,url=a", "- - -,a - -,"},
        {"url=a,,url=b", "a - -,"},
        {"url=a;;seq=1", "a - -,"},
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
    EXPECT_EQ(Sdp().parse_rtp_info(nullptr), nullptr);

    std::string many;
    for (uint32_t i = 0; i < sdp_max_rtp_infos + 5; ++i)
        many += "x,";
    rtp_info_s** infos = Sdp().parse_rtp_info(many.c_str());
    EXPECT_EQ(core_array_length(reinterpret_cast<void* const*>(infos)), sdp_max_rtp_infos);
    sdp_free_rtp_info(infos);
}

TEST(SdpCodecSetup, DecodesParameterSets) {
    struct {
        std::string_view value;
        std::string sps, pps;
        bool decoded = true;
    } const cases[] = {
        {"Z0I=,aM4=", "6742", "68ce"},
        {"Z0I=,aM4=,AAAA", "6742", "68ce"},
        {"Z0!I,aM4=", "67", "68ce"},
        {"Z0I=,", "6742", ""},
        {",", "", ""},
        {"Z0I=", "", "", false},
        {"", "", "", false},
    };
    for (const auto& each : cases) {
        const test::exact_text exact(each.value);
        buf_t out;
        core_buf_read(&out, "\xff", 1);
        sdp_parse_sprop_parameter_sets(exact.get(), &out, CORE_HERE);
        EXPECT_EQ(hex(out), each.decoded ? "000001" + each.sps + "000001" + each.pps : "ff") << each.value;
        buffer_t sps;
        buffer_t pps;
        Sdp().parse_sprop_parameter_sets(exact.get(), sps, pps);
        EXPECT_EQ(hex(sps) + "," + hex(pps), each.sps + "," + each.pps) << each.value;
        core_buf_free(&out);
        core_buffer_free(&sps);
        core_buffer_free(&pps);
    }
    sdp_parse_sprop_parameter_sets(nullptr, nullptr, CORE_HERE);
}

TEST(SdpCodecSetup, DecodesAConfiguration) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"1190 ", "1190"}, {"119", "11"}, {" \t1\r\n1 aF", "11af"}, {"11x22", "11"}, {"1x", ""}, {"", ""}, {"-11", ""},
    };
    for (const auto& [value, bytes] : cases) {
        const test::exact_text exact(value);
        buf_t out;
        buffer_t same;
        sdp_parse_config(exact.get(), &out, CORE_HERE);
        Sdp().parse_config(exact.get(), same);
        EXPECT_EQ(hex(out), bytes) << value;
        EXPECT_EQ(hex(same), bytes) << value;
        core_buf_free(&out);
        core_buffer_free(&same);
    }
}

TEST(SdpCodecSetup, LeavesEverythingAsItIsWithoutMemory) {
    const size_t failed = test::fail_each_allocation([] {
        char sets[] = "Z0I=,aM4=";
        buf_t out;
        buffer_t sps;
        buffer_t pps;
        sdp_parse_sprop_parameter_sets(sets, &out, CORE_HERE);
        EXPECT_TRUE(out.length == 0 || hex(out) == "000001674200000168ce");
        Sdp().parse_sprop_parameter_sets(sets, sps, pps);
        EXPECT_EQ(sps.size, pps.size);
        sdp_parse_config("1190", &out, CORE_HERE);
        core_buf_free(&out);
        core_buffer_free(&sps);
        core_buffer_free(&pps);
    });
    EXPECT_GT(failed, 6U);
}

TEST(Sdp, SurvivesEveryFailedAllocation) {
    const size_t failed = test::fail_each_allocation([] {
        const owned_sdp sdp(sdp_parse(session.data(), CORE_HERE));
        owning_sdp object;
        object.parse(session.data());
        // The attributes of a track that could not be held are not given to another.
        for (media_s** media = object.medias; media && *media; ++media)
            EXPECT_FALSE((*media)->pt == 96 && text((*media)->control) == "sound");
        for (trak_t** trak = sdp ? sdp->traks : nullptr; trak && *trak; ++trak)
            EXPECT_FALSE((*trak)->pt == 96 && text((*trak)->control) == "sound");
        owning_sdp copy;
        copy = object;
        if (copy.medias && object.medias) {
            EXPECT_EQ(common(*copy.medias[0]), common(*object.medias[0]));
        }
        sdp_free_transport(sdp_parse_transport("source=a;destination=b", CORE_HERE));
        sdp_free_rtp_info(sdp_parse_rtp_info("url=a;seq=1,url=b;rtptime=2", CORE_HERE));
    });
    EXPECT_GT(failed, 40U);
}
