#include "support/fault.h"

#include "core/owned.h"
#include "inet/net_analytics.h"
#include "inet/rtp_capture.h"
#include "inet/rtp_packets.h"

#include <array>
#include <cstring>
#include <limits>

namespace {

constexpr uint64_t some_time = 1448466450042000;  // 2015-11-25 15:47:30.042

const std::string json =
    R"([{"objects":[{"rectangle":{"type_graphic":3,"id":7,"points":[{"x":100,"y":200},{"x":300,"y":400}]}}]}])";

bytes nal_unit(uint8_t header, size_t size, uint32_t seed = 1) {
    bytes nal = noise(size, seed);
    nal[0] = header;
    return nal;
}

bytes annex_b(const std::vector<bytes>& nals) {
    bytes out;
    for (size_t i = 0; i < nals.size(); ++i) {
        append(out, i % 2 ? bytes{0, 0, 1} : bytes{0, 0, 0, 1});
        append(out, nals[i]);
    }
    return out;
}

// The receiver's half of RFC 6184, 5.6 and 5.8, and of our rule that the marker ends every NAL unit.
std::vector<bytes> depacketize(const std::vector<bytes>& packets) {
    std::vector<bytes> nals;
    bytes open;
    for (const bytes& packet : packets) {
        const bool marked = packet[1] & 0x80;
        if ((packet[12] & 0x1F) != 28) {
            EXPECT_TRUE(marked && open.empty());
            nals.emplace_back(packet.begin() + 12, packet.end());
            continue;
        }
        const bool start = packet[13] & 0x80;
        const bool end = packet[13] & 0x40;
        EXPECT_EQ(start, open.empty());
        EXPECT_EQ(end, marked);
        if (start) open.push_back(static_cast<uint8_t>((packet[12] & 0xE0) | (packet[13] & 0x1F)));
        open.insert(open.end(), packet.begin() + 14, packet.end());
        if (end) nals.push_back(std::exchange(open, {}));
    }
    EXPECT_TRUE(open.empty());
    return nals;
}

TEST(RtpH264, CutsAtTheLimitAndComesTogetherBitByBit) {
    struct {
        size_t size;
        std::vector<size_t> packets;  // their sizes
    } const cases[] = {
        {1, {13}},
        {1386, {1398}},
        {1387, {14 + 1385, 14 + 1}},
        {2772, {14 + 1385, 1400}},
        {2773, {14 + 1385, 1400, 14 + 1}},
        {4158, {14 + 1385, 1400, 1400}},
    };
    for (const auto& [size, expected] : cases) {
        SCOPED_TRACE(size);
        capture owner(av::fcc_h264);
        const bytes nal = nal_unit(0xE5, size);
        owner.send(annex_b({nal}), some_time);
        std::vector<size_t> sizes;
        for (const bytes& packet : owner.packets)
            sizes.push_back(packet.size());
        EXPECT_EQ(sizes, expected);
        EXPECT_EQ(depacketize(owner.packets), std::vector<bytes>{nal});
        EXPECT_EQ(owner.track->packets, expected.size());
    }
}

TEST(RtpH264, OrdersTheNalUnitsOfAnAccessUnit) {
    const bytes aud = nal_unit(9, 2), sei = nal_unit(6, 3000), sps = nal_unit(0x67, 20), pps = nal_unit(0x68, 6),
                pps2 = nal_unit(0x68, 7, 2), slice = nal_unit(0x41, 5000), idr = nal_unit(0x65, 900);
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
        {"no start code", {}, {}},
        {"many", many, many_sent},
    };
    for (const auto& [name, nals, sent] : cases) {
        SCOPED_TRACE(name);
        capture owner(av::fcc_h264);
        owner.send(annex_b(nals), some_time);
        EXPECT_EQ(depacketize(owner.packets), sent);
    }
}

TEST(RtpRaw, CutsAndMarksByFormat) {
    struct {
        uint32_t fcc;
        size_t size;
        const char* marks;
    } const cases[] = {
        {av::fcc_pcmu, 0, ""},     {av::fcc_pcmu, 1388, "M"},  {av::fcc_pcmu, 2777, "MMM"},
        {av::fcc_univ, 1388, "M"}, {av::fcc_univ, 1389, ".M"}, {av::fcc_univ, 4164, "..M"},
    };
    for (const auto& [fcc, size, marks] : cases) {
        SCOPED_TRACE(size);
        capture owner(fcc);
        const bytes data = noise(size);
        owner.send(data, some_time);
        EXPECT_EQ(owner.marks(), marks);
        EXPECT_EQ(owner.payload(), data);

        if (fcc != av::fcc_univ) continue;
        owner.packets.clear();
        const auto meta = record_of<av::meta_t>(fcc, data, some_time);
        owner.object.pack_meta(&meta);
        EXPECT_EQ(owner.marks(), marks);
        EXPECT_EQ(owner.payload(), data);
    }
}

TEST(RtpMeta, SendsWhatTheAnalyticsConverterMakes) {
    const bytes data(json.begin(), json.end());  // no NUL behind it
    const core::owned_text text(net_analytics_convert(json.c_str(), some_time, CORE_HERE));
    ASSERT_TRUE(text);
    const bytes expected(text.get(), text.get() + std::strlen(text.get()));

    capture owner(av::fcc_meta, 107);
    owner.send(data, some_time);
    EXPECT_EQ(owner.payload(), expected);
    EXPECT_EQ(owner.marks().find('M'), owner.packets.size() - 1);

    owner.packets.clear();
    test::log_lines log("rtp");
    const auto meta = record_of<av::meta_t>(av::fcc_meta, data, some_time);
    owner.object.pack_meta(&meta);
    EXPECT_EQ(owner.payload(), expected);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_TRUE(lines[0].starts_with("7: META ssrc:16909060: rtp:")) << lines[0];
    EXPECT_TRUE(lines[0].ends_with(std::string("\n") + text.get())) << lines[0];
}

TEST(Rtp, SendsNothingWithoutAnActiveTrackOfAKnownFormat) {
    capture owner(av::fcc_pcmu);
    const bytes data = noise(10);
    const av::frame_t other = frame_of(av::fcc_h264, data, some_time);
    owner.object.pack(&other);
    owner.object.pack(nullptr);
    owner.object.pack_meta(nullptr);
    owner.track->active = 0;
    owner.send(data, some_time + 5);
    EXPECT_EQ(owner.object.start_time, some_time);

    test::log_lines log("rtp");
    owner.object.add_trak(97, av::fcc_mp4a)->active = 1;
    const av::frame_t unknown = frame_of(av::fcc_mp4a, data, some_time - 1);
    owner.object.pack(&unknown);
    const auto meta = record_of<av::meta_t>(av::fcc_mp4a, data, some_time);
    owner.object.pack_meta(&meta);
    EXPECT_EQ(log.take(), (std::vector<std::string>{"7: 0: unknown fcc:mp4a", "7: 0: unknown metadata fcc:mp4a"}));
    EXPECT_TRUE(owner.order.empty());
    EXPECT_EQ(owner.object.start_time, some_time - 1);
}

TEST(Rtp, KeepsOneTrackAPayloadTypeUntilClosed) {
    capture owner(av::fcc_h264, 96);
    rtp::Rtp& object = owner.object;
    rtp::trak_t* const sound = object.add_trak(97, av::fcc_pcmu);
    EXPECT_EQ(object.add_trak(96, av::fcc_jpeg), owner.track);
    EXPECT_EQ(object.get_trak_pt(97), sound);
    EXPECT_EQ(object.get_trak_fcc(av::fcc_pcmu), sound);
    EXPECT_EQ(object.get_trak_fcc(av::fcc_jpeg), nullptr);
    EXPECT_EQ(object.traks[1], sound);
    EXPECT_EQ(object.traks[2], nullptr);
    EXPECT_EQ(sound->active + sound->seq + sound->next_rtcp + sound->frame.size, 0U);
    object.close();
    EXPECT_EQ(object.get_trak_pt(96), nullptr);
}

TEST(RtpReport, FollowsTheFirstPacketsThenEveryTwoSecondsOfMedia) {
    capture owner(av::fcc_pcmu, 96, 8000);
    owner.object.set_report_clock(rtp::report_clock_t::packets);
    for (const uint64_t after : {0, 1999999, 2000000, 3999999, 5000000, 6999999}) {
        const size_t before = owner.reports.size();
        owner.order.clear();
        owner.send(noise(1400), some_time + after);
        const bool due = after == 0 || after == 2000000 || after == 5000000;
        EXPECT_EQ(owner.order, due ? std::vector<int>({0, 0, 2}) : std::vector<int>({0, 0})) << after;
        if (!due) continue;
        ASSERT_EQ(owner.reports.size(), before + 1);
        EXPECT_EQ(be32(owner.reports.back(), 16), be32(owner.packets.back(), 4));
    }
}

TEST(RtpReport, HasTheBytesOfRfc3550OnEitherClock) {
    test::log_lines log("rtp");
    // 3657455250 s and 180388626 / 2^32 s of NTP time; times 90000, modulo 2^32, that is 383971043. The packets count
    // 1448466450.042 s since 1970, which gives 1133135588.
    struct {
        rtp::report_clock_t clock;
        uint32_t rtp_time;
    } const cases[] = {{rtp::report_clock_t::ntp, 0x16E2EEE3}, {rtp::report_clock_t::packets, 0x438A46E4}};
    for (const auto& [clock, rtp_time] : cases) {
        capture owner(av::fcc_univ);
        owner.object.set_report_clock(clock);
        owner.send(noise(100), some_time);
        ASSERT_EQ(owner.reports.size(), 1U);
        const bytes expected{0x80, 200, 0, 6, 1, 2, 3, 4, 0xDA, 0x00, 0x56, 0x92, 0x0A, 0xC0, 0x83, 0x12};
        const bytes report = owner.reports[0];
        EXPECT_EQ(bytes(report.begin(), report.begin() + 16), expected);
        EXPECT_EQ(be32(report, 16), rtp_time);
        EXPECT_EQ(bytes(report.begin() + 20, report.end()), (bytes{0, 0, 0, 1, 0, 0, 0, 112}));
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[0], "7: UNIV ssrc:16909060: 2015-11-25 15:47:30.042 rtp:1133135588 seq:65534-65535");
        EXPECT_EQ(lines[1], "7: send rtcp sr 16909060: 2015-11-25 15:47:30.042 3657455250.180388626 rtp:" +
                                std::to_string(rtp_time) + " count:1 bytes:112");
    }
}

TEST(RtpClock, TimestampsKeepNoRoundingOverADay) {
    struct {
        double rate;
        uint64_t times, over;  // rate in ticks a microsecond, as a fraction that 64 bits hold
    } const cases[] = {{90000, 9, 100}, {8000, 1, 125}, {44100, 441, 10000}, {1e9, 1000, 1}, {12.5, 1, 80000}};
    for (const auto& [rate, times, over] : cases) {
        SCOPED_TRACE(rate);
        capture owner(av::fcc_univ, 96, rate);
        const bytes data{1};
        uint64_t wrong = 0;
        for (uint64_t time = some_time; time < some_time + 86400000000; time += 1001001) {
            const av::frame_t frame = frame_of(av::fcc_univ, data, time);
            owner.object.pack(&frame);
            wrong += owner.track->rtp_time != static_cast<uint32_t>(time * times / over);
        }
        EXPECT_EQ(wrong, 0U);
    }
    for (const double rate : {-1.0, 5e9, 1e300, std::numeric_limits<double>::quiet_NaN()}) {
        capture owner(av::fcc_univ, 96, rate);
        owner.send({1}, some_time);
        EXPECT_EQ(owner.track->rtp_time, 0U);
    }
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
        EXPECT_EQ(time_core_to_ntp(us, nullptr, nullptr), uint64_t{ntp} << 32 | fraction);
        EXPECT_EQ(sec, unix_seconds);
        EXPECT_EQ(frac, fraction);
        // Both ways truncate, so a microsecond may be lost.
        const uint64_t back = time_ntp_to_core(ntp, fraction);
        EXPECT_TRUE(back == us || back + 1 == us) << back;
    }
}

// An owner that has every packet built behind the one before, as a session does in its send buffer.
class in_a_row : public rtp::IRtp {
public:
    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t) noexcept override {
        EXPECT_EQ(rtp->packet.data, room.data() + used);
        used += rtp->packet.length;
        rtp->set_packet_room(room.data() + used);
    }
    std::array<uint8_t, 10000> room{};
    size_t used = 0;
};

TEST(Rtp, BuildsPacketsWhereTheOwnerSays) {
    const bytes data = noise(3000);
    capture own(av::fcc_univ);
    own.send(data, some_time);
    bytes expected;
    for (const bytes& packet : own.packets)
        append(expected, packet);
    append(expected, own.reports.at(0));

    capture lent(av::fcc_univ);
    in_a_row row;
    lent.object.set_handler(&row);
    lent.object.set_packet_room(row.room.data());
    const av::frame_t frame = frame_of(av::fcc_univ, data, some_time);
    lent.object.pack(&frame);
    EXPECT_EQ(bytes(row.room.begin(), row.room.begin() + static_cast<ptrdiff_t>(row.used)), expected);

    lent.object.set_packet_room(nullptr);
    lent.object.set_handler(&lent);
    lent.send(data, some_time);
    EXPECT_EQ(lent.payload(), data);
}

TEST(RtpPackets, CutOnceTheyAreThoseOfEachStream) {
    const bytes access_unit = annex_b({nal_unit(0x67, 20), nal_unit(0x68, 5), nal_unit(0x65, 5000)});
    const bytes meta(json.begin(), json.end());
    rtp::Packets packets(CORE_HERE);
    for (const auto& [fcc, data] : std::initializer_list<std::pair<uint32_t, bytes>>{{av::fcc_h264, access_unit},
                                                                                     {av::fcc_jpeg, access_unit},
                                                                                     {av::fcc_pcmu, noise(3000)},
                                                                                     {av::fcc_univ, noise(3000)},
                                                                                     {av::fcc_meta, meta}}) {
        capture cut(fcc), first(fcc, 101), second(fcc, 102, 8000);
        second.track->ssrc = 7;
        second.track->seq = 10;
        const av::frame_t frame = frame_of(fcc, data, some_time);
        ASSERT_EQ(packets.cut(&frame), 1) << fcc;
        for (capture* shared : {&first, &second}) {
            capture own(fcc, shared->track->pt, shared->track->clock_rate);
            own.track->ssrc = shared->track->ssrc;
            own.track->seq = shared->track->seq;
            for (int i = 0; i < 2; ++i) {
                own.object.pack(&frame);
                shared->object.pack(packets);
            }
            EXPECT_EQ(own.packets.size(), 2U * packets.count());
            EXPECT_EQ(shared->packets, own.packets) << fcc;
            EXPECT_EQ(shared->reports, own.reports);
            EXPECT_EQ(shared->order, own.order);
        }
    }
    const av::frame_t unknown = frame_of(av::fcc_g726, access_unit, some_time);
    EXPECT_EQ(packets.cut(&unknown), 0);
    EXPECT_EQ(packets.cut(nullptr), 0);
    EXPECT_EQ(packets.interleaved().size, 0U);
}

TEST(RtpMemory, AFrameAllocatesNothing) {
    const bytes access_unit = annex_b({nal_unit(0x67, 20), nal_unit(0x68, 5), nal_unit(0x65, 50000)});
    for (const uint32_t fcc : {av::fcc_h264, av::fcc_jpeg, av::fcc_pcmu, av::fcc_univ}) {
        capture owner(fcc);
        owner.object.set_handler(nullptr);
        const av::frame_t frame = frame_of(fcc, access_unit, some_time);
        const test::failing_allocation first(1);
        owner.object.pack(&frame);
        EXPECT_FALSE(first.hit()) << fcc;
        EXPECT_GT(owner.track->packets, 36U);
    }
}

TEST(RtpMemory, EveryAllocationMayFail) {
    const bytes data(json.begin(), json.end());
    const av::frame_t frame = frame_of(av::fcc_meta, data, some_time);
    const size_t failed = test::fail_each_allocation([&] {
        rtp::Rtp* const object = rtp::Rtp::create(CORE_HERE);
        if (!object) return;
        for (unsigned char pt = 96; pt < 106; ++pt) {
            const rtp::trak_t* const added = object->add_trak(pt, av::fcc_h264);
            EXPECT_EQ(object->get_trak_pt(pt), added);
        }
        if (rtp::trak_t* const meta = object->add_trak(107, av::fcc_meta)) {
            meta->active = 1;
            object->pack(&frame);
        }
        rtp::Rtp::destroy(object);
    });
    EXPECT_GT(failed, 4U);
    rtp::Rtp::destroy(nullptr);
}

}  // namespace
