#include "core/owned.h"
#include "inet/net_analytics.h"
#include "inet/rtp_owner.h"
#include "inet/rtp_packets.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <tuple>

namespace {

// Of every packet sent, what stands behind `header` bytes.
std::vector<bytes> payloads(const rtp_owner& owner, ptrdiff_t header = 12) {
    std::vector<bytes> out = owner.packets;
    for (bytes& one : out)
        one.erase(one.begin(), one.begin() + header);
    return out;
}

bytes annex_b(const std::vector<bytes>& nals) {
    bytes out;
    for (const bytes& nal : nals)
        out = join({out, {0, 0, 0, 1}, nal});
    return out;
}

TEST(RtpPack, CutsAtTheLimitAndMarksByFormat) {
    const std::tuple<uint32_t, size_t, std::vector<size_t>, bytes, bytes> cases[] = {
        {av::fcc_h264, 1, {13}, {224}, {}},
        {av::fcc_h264, 1386, {1398}, {224}, {}},
        {av::fcc_h264, 1387, {1399, 15}, {96, 224}, {0x85, 0x45}},
        {av::fcc_h264, 2772, {1399, 1400}, {96, 224}, {0x85, 0x45}},
        {av::fcc_h264, 2773, {1399, 1400, 15}, {96, 96, 224}, {0x85, 0x05, 0x45}},
        {av::fcc_pcmu, 0, {}, {}, {}},
        {av::fcc_pcmu, 2777, {1400, 1400, 13}, {224, 224, 224}, {}},
        {av::fcc_pcma, 1389, {1400, 13}, {224, 224}, {}},
        {av::fcc_mp4a, 1384, {1400}, {224}, {}},
        {av::fcc_mp4a, 1385, {1400, 17}, {96, 224}, {}},
        {av::fcc_mp4a, 8192, {}, {}, {}},  // no AU header can tell its size
        {av::fcc_univ, 1388, {1400}, {224}, {}},
        {av::fcc_univ, 1389, {1400, 13}, {96, 224}, {}},
    };
    for (const auto& [fcc, size, sizes, types, fu] : cases) {
        rtp_owner owner(fcc);
        const bool h264 = fcc == av::fcc_h264, aac = fcc == av::fcc_mp4a;
        const bytes media = h264 ? join({{0xE5}, noise(size - 1)}) : noise(size);
        if (aac || fcc == av::fcc_pcma) {
            owner.send(media);
            EXPECT_EQ(owner.order, "");  // not before it is asked for
            owner.object.set_all_formats(true);
        }
        owner.send(h264 ? annex_b({media}) : media);
        ASSERT_EQ(owner.packets.size(), sizes.size()) << size;
        for (size_t i = 0; i < sizes.size(); ++i) {
            EXPECT_EQ(owner.packets[i].size(), sizes[i]);
            EXPECT_EQ(owner.packets[i][1], types[i]);
            EXPECT_TRUE(fu.empty() || be16(owner.packets[i], 12) == (0xFC00U | fu[i]));
            EXPECT_TRUE(!aac || (be16(owner.packets[i], 12) == 16 && be16(owner.packets[i], 14) == size << 3));
        }
        if (sizes.empty()) continue;
        const bytes header = fu.empty() ? bytes{} : bytes{0xE5};
        EXPECT_EQ(join({header, join(payloads(owner, aac ? 16 : fu.empty() ? 12 : 14))}), media);
    }
}

TEST(RtpPack, OrdersTheNalUnitsOfAnAccessUnit) {
    const bytes aud{9, 1}, sei{6, 1}, sps{0x67, 1}, pps{0x68, 1}, pps2{0x68, 2}, slice{0x41, 1}, idr{0x65, 1};
    // More NAL units than are remembered, the parameter sets behind them all.
    std::vector<bytes> many(100, slice), many_sent{sps, pps};
    many_sent.insert(many_sent.end(), many.begin(), many.end());
    many.insert(many.end(), {sps, pps});
    const std::pair<std::vector<bytes>, std::vector<bytes>> cases[] = {
        {{aud, idr, pps, sei, sps, pps2, slice}, {sps, pps, idr, pps2, slice}},
        {{aud, sps, pps, sei, idr, idr}, {sps, pps, idr, idr}},
        {{slice, sps}, {slice, sps}},
        {{sps, pps, sps, pps, idr}, {sps, pps, sps, pps, idr}},
        {{aud, sei}, {}},
        {many, many_sent},
    };
    for (const auto& [nals, sent] : cases) {
        rtp_owner owner(av::fcc_h264);
        owner.send(annex_b(nals));
        EXPECT_EQ(payloads(owner), sent);
    }
}

TEST(RtpPack, SendsMetadataAsItIsAndAnalyticsConvertedAndNothingWithoutAnActiveTrackOfItsFormat) {
    const std::string json =
        R"([{"objects":[{"rectangle":{"type_graphic":3,"id":7,"points":[{"x":100,"y":200},{"x":300,"y":400}]}}]}])";
    const bytes data(json.begin(), json.end());  // no NUL behind it
    const core::owned_text text(net_analytics_convert(json.c_str(), some_time, CORE_HERE));
    const bytes converted(text.get(), text.get() + std::strlen(text.get()));
    const std::tuple<uint32_t, bytes, bytes> cases[] = {
        {av::fcc_meta, data, converted}, {av::fcc_univ, data, data}, {av::fcc_meta, converted, converted}};
    for (const auto& [fcc, given, expected] : cases) {
        rtp_owner frame(fcc), record(fcc);
        const bool document = fcc == av::fcc_meta && given == converted;
        if (document) frame.object.set_all_formats(true);
        frame.send(given);
        const auto meta = test::borrowed<av::meta_t>(fcc, given, some_time);
        record.object.pack_meta(&meta);
        record.track->active = 0;
        record.send(given);
        EXPECT_EQ(join(payloads(frame)), expected);
        EXPECT_TRUE(record.packets == frame.packets && record.reports == frame.reports);
    }
    for (const std::string document : {" <tt:MetadataStream/>", "", "{[]}"}) {
        rtp_owner owner(av::fcc_meta);
        const bytes record(document.begin(), document.end());
        const auto meta = test::borrowed<av::meta_t>(av::fcc_meta, record);
        owner.object.pack_meta(&meta);
        EXPECT_EQ(join(payloads(owner)), record);
    }
}

TEST(RtpPack, SendsNothingOfWhatWasCutButTheReportWhereTheFrameMakesNoPacket) {
    for (const auto& [fcc, reports] : {std::pair{av::fcc_pcma, 0U}, {av::fcc_meta, 1U}}) {
        rtp_owner owner(fcc);
        rtp::Packets packets(CORE_HERE);
        const bytes data{'x'};
        const auto frame = record_of<av::frame_t>(fcc, data);
        packets.set_all_formats(true);  // other streams send it
        packets.cut(&frame);
        owner.object.pack(packets);
        EXPECT_TRUE(owner.packets.empty() && owner.reports.size() == reports && owner.track->time == frame.time);
    }
}

TEST(RtpReport, FollowsTheFirstPacketsThenEveryTwoSecondsOfMedia) {
    rtp_owner owner(av::fcc_pcmu, 8000);
    for (const uint64_t after : {0, 1999999, 2000000, 3999999, 5000000, 6999999})
        owner.send(noise(1400), some_time + after);
    EXPECT_EQ(owner.order, "PPRPPPPRPPPPRPP");
}

// 3657455250 s and 180388626 / 2^32 s of NTP time; times 90000, modulo 2^32, that is 383971043. The packets count
// 1448466450.042 s since 1970, which gives 1133135588.
TEST(RtpReport, AndPacketsHaveTheBytesOfRfc3550OnEitherClock) {
    for (const bool ntp : {true, false}) {
        rtp_owner owner(av::fcc_univ);
        owner.track->seq = 65534;
        owner.object.set_report_clock(ntp ? rtp::report_clock_t::ntp : rtp::report_clock_t::packets);
        owner.send({'a', 'b'});
        const bytes time{0x43, 0x8A, 0x46, 0xE4}, ntp_time{0xDA, 0x00, 0x56, 0x92, 0x0A, 0xC0, 0x83, 0x12};
        EXPECT_EQ(join(owner.packets), join({{0x80, 0xE0, 0xFF, 0xFE}, time, {1, 2, 3, 4, 'a', 'b'}}));
        EXPECT_EQ(join(owner.reports), join({{0x80, 200, 0, 6, 1, 2, 3, 4},
                                             ntp_time,
                                             ntp ? bytes{0x16, 0xE2, 0xEE, 0xE3} : time,
                                             {0, 0, 0, 1, 0, 0, 0, 14}}));
    }
}

TEST(RtpClock, TimestampsKeepNoRoundingOverADay) {
    const std::tuple<double, uint64_t, uint64_t> cases[] = {
        {90000, 9, 100}, {8000, 1, 125}, {44100, 441, 10000}, {1e9, 1000, 1}, {12.5, 1, 80000}};
    for (const auto& [rate, times, over] : cases) {
        uint64_t wrong = 0;
        for (uint64_t time = some_time; time < some_time + 86400000000; time += 10010011)
            wrong += rtp::timestamp(time, rate) != static_cast<uint32_t>(time * times / over);
        EXPECT_EQ(wrong, 0U) << rate;
    }
    for (const double rate : {-1.0, 5e9, 1e300, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(rtp::timestamp(some_time, rate), 0U) << rate;
}

TEST(RtpClock, ConvertsToNtpAndBack) {
    const std::tuple<uint64_t, uint32_t, uint32_t, uint32_t> cases[] = {
        {0, 2208988800, 0, 0},
        {some_time, 3657455250, 1448466450, 0x0AC08312},
        {999999, 2208988800, 0, 0xFFFFEF39},
        {2085978496000000, 0, 2085978496, 0},  // the era ends in 2036
    };
    for (const auto& [us, ntp, unix_seconds, fraction] : cases) {
        unsigned sec = 1, frac = 1;
        EXPECT_EQ(time_core_to_ntp(us, &sec, &frac), uint64_t{ntp} << 32 | fraction);
        EXPECT_TRUE(sec == unix_seconds && frac == fraction);
        EXPECT_LE(us - time_ntp_to_core(ntp, fraction), 1U) << "both ways truncate";
    }
}

bytes segment(uint8_t marker, const bytes& body) {
    return join({{0xFF, marker, 0, static_cast<uint8_t>(body.size() + 2)}, body});
}

bytes table(uint8_t id, uint8_t value) { return join({{id}, bytes(64, value)}); }

bytes sof0(uint32_t width, uint32_t height, uint8_t luma, uint8_t cb = 0x11, uint8_t cr = 0x11) {
    return segment(0xC0, {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8), uint8_t(width), 3, 1, luma, 0,
                          2, cb, 1, 3, cr, 1});
}

const bytes soi{0xFF, 0xD8}, eoi{0xFF, 0xD9}, sos = segment(0xDA, {3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0});

TEST(RtpJpeg, WritesTheHeadersOfRfc2435) {
    // A thumbnail with tables of its own must not be taken for the picture's.
    const bytes app1 = segment(0xE1, join({soi, segment(0xDB, table(0, 99)), segment(0xDD, {0, 77})}));
    const bytes luma = segment(0xDB, table(0, 3)), chroma = segment(0xDB, table(1, 4));
    const bytes both = segment(0xDB, join({table(0, 3), table(1, 4)}));
    const bytes dri = segment(0xDD, {0x01, 0x02}), sof = sof0(1280, 720, 0x22);
    const bytes sent_both = join({{0, 0, 0, 128}, bytes(64, 3), bytes(64, 4)});
    const std::tuple<bytes, uint8_t, bytes, bytes> cases[] = {
        {join({app1, both, dri, sof}), 65, {0x01, 0x02, 0xFF, 0xFF}, sent_both},
        {join({chroma, luma, sof0(1280, 720, 0x21)}), 0, {}, sent_both},
        {join({luma, sof}), 1, {}, join({{0, 0, 0, 128}, bytes(128, 3)})},
        {join({chroma, sof}), 1, {}, {}},
    };
    for (const auto& [headers, type, restart, tables] : cases) {
        rtp_owner owner(av::fcc_jpeg);
        const bytes scan = noise(3900);
        owner.send(join({soi, headers, sos, scan, eoi}));
        std::vector<bytes> expected;
        for (size_t at = 0, end = 0; end < scan.size(); at = end) {
            const bytes offset{0, 0, uint8_t(at >> 8), uint8_t(at), type, 255, 160, 90};
            expected.push_back(join({offset, restart, at == 0 ? tables : bytes{}}));
            end = std::min(scan.size(), at + 1388 - expected.back().size());
            expected.back().insert(expected.back().end(), &scan[at], scan.data() + end);
        }
        EXPECT_EQ(payloads(owner), expected) << int{type};
        EXPECT_TRUE(owner.packets.at(0)[1] == 26 && owner.packets.back()[1] == (0x80 | 26));
    }
}

TEST(RtpJpeg, SendsALargePictureWholeInAHeaderExtension) {
    const std::tuple<uint32_t, uint32_t, size_t, std::vector<size_t>> cases[] = {
        {2048, 1536, 1373, {344}}, {1536, 2041, 1374, {343, 1}}, {4000, 3000, 1372 + 1373, {343, 344}}};
    for (const auto& [width, height, rest, words] : cases) {
        rtp_owner owner(av::fcc_jpeg);
        const bytes headers = join({segment(0xDB, table(0, 3)), sof0(width, height, 0x22), sos});
        const bytes file = join({headers, noise(rest - 2 - headers.size()), eoi});
        owner.send(join({soi, file}));
        ASSERT_EQ(owner.packets.size(), words.size());
        for (size_t i = 0; i < words.size(); ++i) {
            const bytes& packet = owner.packets[i];
            EXPECT_EQ(packet.size(), 18 + 4 * words[i]);
            EXPECT_EQ(be16(packet, 0), &packet == &owner.packets.back() ? 0x909AU : 0x901AU);
            EXPECT_EQ(bytes(&packet[12], &packet[16]), (i ? bytes(4, 0xFF) : join({soi, soi})));
            EXPECT_EQ(be16(packet, 16), words[i]);
        }
        // Padding up to words of 4 bytes is all that is added.
        bytes sent = join(payloads(owner, 18));
        ASSERT_GE(sent.size(), file.size());
        EXPECT_EQ(sent, join({file, bytes(sent.size() - file.size(), 0xFF)}));
    }
}

TEST(RtpJpeg, SendsWholeWhatRfc2435CannotDescribe) {
    const bytes wide_tables = segment(0xDB, bytes(129, 0x10)), grey = segment(0xC0, {8, 1, 0, 1, 0, 1, 1, 0x11, 0});
    for (const bytes& header : {wide_tables, grey, sof0(640, 480, 0x22, 0x21), sof0(640, 480, 0x22, 0x11, 0x21)}) {
        rtp_owner owner(av::fcc_jpeg);
        const bytes jpeg = join({soi, segment(0xDD, {0, 9}), header, sos, noise(10)});
        owner.send(jpeg);
        // What was scanned before stands in the header.
        EXPECT_EQ(payloads(owner), std::vector<bytes>{join({{0, 0, 0, 0, 64, 255, 0, 0, 0, 9, 0xFF, 0xFF}, jpeg})});
    }
}

}  // namespace
