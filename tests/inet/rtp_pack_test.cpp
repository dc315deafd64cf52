#include "support/fault.h"
#include "support/log_lines.h"

#include "core/owned.h"
#include "inet/net_analytics.h"
#include "inet/rtp_owner.h"

#include <cstring>
#include <limits>

namespace {

bytes annex_b(const std::vector<bytes>& nals) {
    bytes out;
    for (const bytes& nal : nals)
        out = join({out, {0, 0, 0, 1}, nal});
    return out;
}

TEST(RtpPack, CutsAtTheLimitAndMarksByFormat) {
    struct {
        uint32_t fcc;
        size_t size;
        std::vector<size_t> sizes;  // of the packets
        const char* marks;
        bytes fu;  // second header bytes of fragments
    } const cases[] = {
        {av::fcc_h264, 1, {13}, "M", {}},
        {av::fcc_h264, 1386, {1398}, "M", {}},
        {av::fcc_h264, 1387, {1399, 15}, ".M", {0x85, 0x45}},
        {av::fcc_h264, 2772, {1399, 1400}, ".M", {0x85, 0x45}},
        {av::fcc_h264, 2773, {1399, 1400, 15}, "..M", {0x85, 0x05, 0x45}},
        {av::fcc_pcmu, 0, {}, "", {}},
        {av::fcc_pcmu, 2777, {1400, 1400, 13}, "MMM", {}},
        {av::fcc_univ, 1388, {1400}, "M", {}},
        {av::fcc_univ, 1389, {1400, 13}, ".M", {}},
    };
    for (const auto& [fcc, size, expected_sizes, expected_marks, expected_fu] : cases) {
        SCOPED_TRACE(size);
        const bool h264 = fcc == av::fcc_h264, fragmented = !expected_fu.empty();
        rtp_owner owner(fcc);
        const bytes media = h264 ? join({{0xE5}, noise(size - 1)}) : noise(size);
        owner.send(h264 ? annex_b({media}) : media);
        std::vector<size_t> sizes;
        std::string marks;
        bytes fu;
        for (const bytes& packet : owner.packets) {
            sizes.push_back(packet.size());
            marks += packet[1] & 0x80 ? 'M' : '.';
            if (!fragmented) continue;
            EXPECT_EQ(packet[12], 0xE0 | 28);
            fu.push_back(packet[13]);
        }
        EXPECT_EQ(sizes, expected_sizes);
        EXPECT_EQ(marks, expected_marks);
        EXPECT_EQ(fu, expected_fu);
        EXPECT_EQ(join(owner.payloads(fragmented ? 14 : 12)), behind(media, fragmented ? 1 : 0));
    }
}

TEST(RtpPack, OrdersTheNalUnitsOfAnAccessUnit) {
    const bytes aud{9, 1}, sei{6, 1}, sps{0x67, 1}, pps{0x68, 1}, pps2{0x68, 2}, slice{0x41, 1}, idr{0x65, 1};
    // More NAL units than are remembered, the parameter sets behind them all.
    std::vector<bytes> many(100, slice), many_sent{sps, pps};
    many_sent.insert(many_sent.end(), many.begin(), many.end());
    many.insert(many.end(), {sps, pps});
    struct {
        const char* name;
        std::vector<bytes> nals, sent;
    } const cases[] = {
        {"parameter sets first, once", {aud, idr, pps, sei, sps, pps2, slice}, {sps, pps, idr, pps2, slice}},
        {"already in order", {aud, sps, pps, sei, idr, idr}, {sps, pps, idr, idr}},
        {"one of the two alone", {slice, sps}, {slice, sps}},
        {"repeated sets", {sps, pps, sps, pps, idr}, {sps, pps, sps, pps, idr}},
        {"nothing to send", {aud, sei}, {}},
        {"many", many, many_sent},
    };
    for (const auto& [name, nals, sent] : cases) {
        SCOPED_TRACE(name);
        rtp_owner owner(av::fcc_h264);
        owner.send(annex_b(nals));
        EXPECT_EQ(owner.payloads(), sent);
    }
}

TEST(RtpPack, SendsMetadataAsItIsAndAnalyticsConverted) {
    const std::string json =
        R"([{"objects":[{"rectangle":{"type_graphic":3,"id":7,"points":[{"x":100,"y":200},{"x":300,"y":400}]}}]}])";
    const bytes data(json.begin(), json.end());  // no NUL behind it
    const core::owned_text text(net_analytics_convert(json.c_str(), some_time, CORE_HERE));
    const bytes converted(text.get(), text.get() + std::strlen(text.get()));
    for (const auto& [fcc, expected] : {std::pair{av::fcc_meta, converted}, {av::fcc_univ, data}}) {
        rtp_owner frame(fcc), record(fcc);
        frame.send(data);
        const auto meta = record_of<av::meta_t>(fcc, data);
        record.object.pack_meta(&meta);
        EXPECT_EQ(join(frame.payloads()), expected);
        EXPECT_EQ(record.packets, frame.packets);
        EXPECT_EQ(record.reports, frame.reports);
    }
}

TEST(RtpPack, SendsNothingWithoutAnActiveTrackOfAKnownFormat) {
    rtp_owner owner(av::fcc_pcmu);
    EXPECT_EQ(owner.object.add_trak(any_pt, av::fcc_h264), owner.track);  // one track for a payload type
    const bytes data = noise(10);
    const auto other = record_of(av::fcc_h264, data);
    owner.object.pack(&other);
    owner.track->active = 0;
    owner.send(data, some_time + 5);
    EXPECT_EQ(owner.object.start_time, some_time);

    owner.object.add_trak(97, av::fcc_mp4a)->active = 1;
    const auto unknown = record_of(av::fcc_mp4a, data, some_time - 1);
    owner.object.pack(&unknown);
    const auto meta = record_of<av::meta_t>(av::fcc_mp4a, data);
    owner.object.pack_meta(&meta);
    EXPECT_EQ(owner.order, "");
    EXPECT_EQ(owner.object.start_time, some_time - 1);
}

TEST(RtpReport, FollowsTheFirstPacketsThenEveryTwoSecondsOfMedia) {
    rtp_owner owner(av::fcc_pcmu, 8000);
    for (const uint64_t after : {0, 1999999, 2000000, 3999999, 5000000, 6999999})
        owner.send(noise(1400), some_time + after);
    EXPECT_EQ(owner.order, "PPRPPPPRPPPPRPP");
}

TEST(RtpReport, AndPacketsHaveTheBytesOfRfc3550OnEitherClock) {
    test::log_lines log("rtp");
    // 3657455250 s and 180388626 / 2^32 s of NTP time; times 90000, modulo 2^32, that is 383971043. The packets count
    // 1448466450.042 s since 1970, which gives 1133135588.
    struct {
        rtp::report_clock_t clock;
        bytes rtp_time;
        const char* logged;
    } const cases[] = {{rtp::report_clock_t::ntp, {0x16, 0xE2, 0xEE, 0xE3}, "383971043"},
                       {rtp::report_clock_t::packets, {0x43, 0x8A, 0x46, 0xE4}, "1133135588"}};
    for (const auto& [clock, rtp_time, logged] : cases) {
        rtp_owner owner(av::fcc_univ);
        owner.track->seq = 65534;
        owner.object.set_report_clock(clock);
        owner.send({'a', 'b'});
        EXPECT_EQ(owner.packets, std::vector<bytes>{(bytes{0x80, 0xE0, 0xFF, 0xFE, 0x43, 0x8A, 0x46, 0xE4,  //
                                                           1, 2, 3, 4, 'a', 'b'})});
        const bytes ntp{0xDA, 0x00, 0x56, 0x92, 0x0A, 0xC0, 0x83, 0x12};
        EXPECT_EQ(owner.reports,
                  std::vector<bytes>{join({{0x80, 200, 0, 6, 1, 2, 3, 4}, ntp, rtp_time, {0, 0, 0, 1, 0, 0, 0, 14}})});
        const std::string report = "7: send rtcp sr 16909060: 2015-11-25 15:47:30.042 3657455250.180388626 rtp:";
        EXPECT_EQ(log.take(), (std::vector{std::string("7: UNIV ssrc:16909060: 2015-11-25 15:47:30.042 "
                                                       "rtp:1133135588 seq:65534-65535"),
                                           report + logged + " count:1 bytes:14"}));
    }
}

TEST(RtpClock, TimestampsKeepNoRoundingOverADay) {
    struct {
        double rate;
        uint64_t times, over;  // rate in ticks a microsecond, as a fraction that 64 bits hold
    } const cases[] = {{90000, 9, 100}, {8000, 1, 125}, {44100, 441, 10000}, {1e9, 1000, 1}, {12.5, 1, 80000}};
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
    struct {
        uint64_t us;
        uint32_t ntp, unix_seconds, fraction;
    } const cases[] = {
        {0, 2208988800, 0, 0},
        {some_time, 3657455250, 1448466450, 0x0AC08312},
        {500000, 2208988800, 0, 0x80000000},
        {999999, 2208988800, 0, 0xFFFFEF39},
        {2085978496000000, 0, 2085978496, 0},  // the era ends in 2036
    };
    for (const auto& [us, ntp, unix_seconds, fraction] : cases) {
        unsigned sec = 1, frac = 1;
        EXPECT_EQ(time_core_to_ntp(us, &sec, &frac), uint64_t{ntp} << 32 | fraction);
        EXPECT_EQ(sec, unix_seconds);
        EXPECT_EQ(frac, fraction);
        // Both ways truncate, so a microsecond may be lost.
        const uint64_t back = time_ntp_to_core(ntp, fraction);
        EXPECT_TRUE(back == us || back + 1 == us) << back;
    }
}

TEST(RtpMemory, AFrameAllocatesNothing) {
    const bytes access_unit = annex_b({{0x67, 1}, {0x68, 1}, noise(50000)});
    for (const uint32_t fcc : {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ}) {
        rtp_owner owner(fcc);
        const test::allocation_count count;
        owner.send(access_unit);
        EXPECT_EQ(count.value(), 0U) << fcc;
        EXPECT_GT(owner.track->packets, 36U);
    }
}

}  // namespace
