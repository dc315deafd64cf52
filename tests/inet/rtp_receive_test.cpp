#include "support/fault.h"

#include "avc/jpeg.h"
#include "core/owned.h"
#include "inet/rtp_owner.h"
#include "inet/rtp_reorder.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace {

bytes text(std::string_view from) { return {from.begin(), from.end()}; }

bytes headed(uint8_t first, const bytes& payload, uint32_t seq = 5, bool marked = true) {
    return packet(seq, payload, marked, 0, first);
}

// And allocates nothing for it once its buffers have grown. Fragments are put together in two that change places.
TEST(RtpReceive, HandsOverWhatThePacketsHold) {
    const bytes hello = text("hello"), one{0x67};
    const bytes start = packet(10, {0x7C, 0x85, 'a', 'b'}), middle = packet(11, {0x7C, 0x05, 'c'}),
                end = packet(12, {0x7C, 0x45, 'd'}), whole{0x65, 'a', 'b', 'c', 'd'};
    const bytes file_start = headed(0x90, {0xFF, 0xD8, 0, 1, 'a', 'b', 'c', 'd', 'e'}, 1, false);
    const std::tuple<const char*, uint32_t, std::vector<bytes>, std::vector<bytes>> cases[] = {
        {"nine sources", av::fcc_pcma, {headed(0x89, join({noise(36), hello}))}, {hello}},
        {"padding", av::fcc_pcma, {headed(0xA0, {'h', 'e', 'l', 'l', 'o', 0, 2})}, {hello}},
        {"padding of all", av::fcc_pcma, {headed(0xA0, {0, 2})}, {}},
        {"padding beyond all", av::fcc_pcma, {headed(0xA0, {0, 3})}, {}},
        {"extension counts as payload", av::fcc_pcma, {headed(0x90, hello)}, {hello}},
        {"skipped extension", av::fcc_pcma, {headed(0x90, join({{0xAB, 0xAC, 0, 1, 1, 2, 3, 4}, hello}))}, {hello}},
        {"skipped beyond all", av::fcc_pcma, {headed(0x90, {0xAB, 0xAC, 0, 9, 1})}, {}},
        {"skipped, but not of a file", av::fcc_jpeg, {file_start}, {{0xFF, 0xD8, 'a', 'b', 'c', 'd'}}},
        {"version 1", av::fcc_pcma, {headed(0x40, hello)}, {}},
        {"sources that are not there", av::fcc_pcma, {headed(0x8F, hello)}, {}},
        {"a format that is only sent", av::fcc_univ, {packet(1, hello)}, {}},
        {"fragments", av::fcc_h264, {start, middle, end}, {whole}},
        {"start and end in one", av::fcc_h264, {packet(1, {0x5C, 0xC1, 'x'})}, {{0x41, 'x'}}},
        {"no start", av::fcc_h264, {middle, end}, {}},
        {"a start before the numbers began anew", av::fcc_h264, {packet(1, {0x7C, 0x45}), packet(9, {0x7C, 0x85})}, {}},
        {"a gap", av::fcc_h264, {start, end, packet(13, one)}, {one}},
        {"started again", av::fcc_h264, {packet(9, {0x7C, 0x85, 'z'}), start, middle, end}, {whole}},
        {"nothing inside", av::fcc_h264, {packet(1, {0x7C}), packet(2, {}), packet(3, one)}, {one}},
        {"aggregation as it is", av::fcc_h264, {packet(1, {24, 0, 1, 9}), packet(2, {29, 0xC1, 1})}, {{24, 0, 1, 9}}},
        {"AU headers", av::fcc_mp4a, {packet(1, {0, 16, 1, 2, 'a'}), packet(2, {0, 17, 1, 2, 3, 'b'})}, {{'a'}, {'b'}}},
        {"AU headers alone", av::fcc_mp4a, {packet(1, {0, 16, 1, 2}), packet(2, {255, 255, 1}), packet(3, {0})}, {}},
        {"a text", av::fcc_meta, {packet(1, text("hel"), false), packet(2, text("lo"))}, {hello}},
        {"a file begins", av::fcc_jpeg, {file_start}, {{0xFF, 0xD8, 'a', 'b', 'c', 'd'}}},
        {"a file ends", av::fcc_jpeg, {headed(0x90, {0xFF, 0xFF, 0, 9, 'f'}, 2), headed(0x90, one, 3)}, {{'f'}}},
    };
    for (const auto& [name, fcc, packets, media] : cases) {
        SCOPED_TRACE(name);
        rtp_owner owner(fcc);
        owner.object.skip_extensions(std::string_view(name).starts_with("skipped"));
        for (const bool grown : {false, false, true}) {
            owner.media.clear();
            owner.track->seq = 0;
            const test::allocation_count count;
            owner.take(packets);
            EXPECT_EQ(owner.media, media);
            EXPECT_TRUE(!grown || count.value() == 0);
        }
        EXPECT_EQ(owner.track->discarded, 0U);
    }
}

// Sizes of 13 bits and indices of 3, and once 6 and 2: of each access unit, its bytes and its time.
TEST(RtpReceive, TellsAccessUnitsApart) {
    struct unit_owner : rtp_owner {
        unit_owner() : rtp_owner(av::fcc_mp4a, 48000) {}
        void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
            const buf_t& data = rtp->current->frame;
            if (event != rtp::event_t::frame) return;
            units += std::string(data.data, data.data + data.length) + '@' + std::to_string(rtp->current->rtp_time);
            units += ' ';
        }
        std::string units;
    };
    const bytes two{0, 32, 0, 0x10, 0, 0x08, 'a', 'b', 'c'}, half{0, 16, 0, 0x20, 'd', 'e'};
    const std::tuple<const char*, uint8_t, std::vector<bytes>, const char*, uint32_t> cases[] = {
        {"two in a packet",
         13,
         {packet(1, two, true, 0), packet(2, two, true, 4096), packet(3, two, true, 8192)},
         "ab@0 c@1024 ab@4096 c@6144 ab@8192 c@10240 ",
         0},  // the second packet tells how long they are
        {"pieces", 13, {packet(1, half, false), packet(2, half), packet(3, two, true, 9)}, "dede@0 ab@9 c@1033 ", 0},
        {"a piece lost", 13, {packet(1, half, false), packet(3, half), packet(4, two, true, 9)}, "ab@9 c@1033 ", 1},
        {"pieces without an end",
         13,
         {packet(1, half, false), packet(2, half, false, 9), packet(3, half, true, 9)},
         "dede@9 ",
         0},
        {"more than there is", 13, {packet(1, {0, 32, 0, 0x08, 0, 0x10, 'a', 'b'})}, "a@0 ", 1},
        {"a header cut short", 13, {packet(1, {0, 31, 0, 0x08, 0, 0x08, 'a', 'b'})}, "a@0 ", 0},
        {"other headers", 6, {packet(1, {0, 16, 0x08, 0x04, 'a', 'b', 'c'})}, "ab@0 c@1024 ", 0},
    };
    for (const auto& [name, size_bits, packets, units, discarded] : cases) {
        unit_owner owner;
        owner.track->au_size_bits = size_bits;
        owner.track->au_index_bits = owner.track->au_delta_bits = size_bits == 6 ? 2 : 3;
        owner.take(packets);
        EXPECT_EQ(owner.units, units) << name;
        EXPECT_EQ(owner.track->discarded, discarded) << name;
    }
}

// What is late over the wrap is taken and no loss; a step of more than 3000 is another start of the sender.
TEST(RtpReceive, TakesNumbersInOrderOnly) {
    const std::tuple<std::vector<uint16_t>, const char*, uint32_t, uint32_t> cases[] = {
        {{65530, 3}, "++", 8, 0},          {{200, 150, 201}, "+-+", 0, 0},     {{7, 7, 8, 8, 8}, "+-+--", 0, 0},
        {{65535, 0, 0, 2}, "++-+", 1, 0},  {{64999, 3}, "+-", 0, 0},           {{65000, 101, 100}, "+-+", 635, 0},
        {{10, 13, 12, 14}, "++-+", 2, 0},  {{3, 65530, 4}, "+++", 0, 0},       {{65528, 3, 65530, 4}, "++++", 9, 0},
        {{1, 3001, 6002}, "+++", 2999, 1}, {{100, 40000, 40003}, "+++", 2, 1},
    };
    for (const auto& [numbers, taken, lost, restarts] : cases) {
        rtp_owner owner(av::fcc_g726, 8000);
        std::string got;
        for (const uint16_t number : numbers) {
            const size_t before = owner.media.size();
            owner.take({packet(number, {1})});
            got += owner.media.size() > before ? '+' : '-';
        }
        EXPECT_EQ(got, taken) << numbers[0];
        EXPECT_EQ(owner.track->lost, lost) << numbers[0];
        EXPECT_EQ(owner.track->restarts, restarts) << numbers[0];
        EXPECT_EQ(owner.track->late, static_cast<uint32_t>(std::ranges::count(got, '-')));
    }
    // The number announced for the first packet is no packet that came.
    rtp_owner owner(av::fcc_g726);
    owner.track->seq = 300;
    owner.take({packet(299, {1}), packet(300, {2}), packet(300, {3})});
    EXPECT_EQ(owner.media, std::vector<bytes>{{2}});
}

TEST(RtpReceive, AnotherTimestampEndsATextAndMovesTheTime) {
    const std::tuple<double, uint32_t, uint64_t> cases[] = {{90000, 3003, 33},         {90000, 5000000, 7833},
                                                            {90000, 0 - 3600U, 47681}, {0, 1000, 0},
                                                            {std::nan(""), 1000, 0},   {44100, 1024, 23}};
    for (const auto& [rate, step, ms] : cases) {
        rtp_owner owner(av::fcc_meta, rate);
        owner.take(
            {packet(1, text("open "), false), packet(2, text("end"), false), packet(3, text("next"), true, step)});
        EXPECT_EQ(owner.media, (std::vector{text("open end"), text("next")}));
        EXPECT_EQ(owner.track->time, ms * 1000) << step;
    }
}

// Of a picture that is given up no piece is handed over, and the next one is whole.
TEST(RtpReceive, RebuildsTheHeaderOfAJpeg) {
    const bytes tables(128, 3), sizes{80, 45};
    const std::tuple<uint8_t, uint8_t, bytes, bool, uint16_t, uint16_t> cases[] = {
        {1, 128, join({{0, 0, 0, 128}, tables}), true, 0, 0},
        {64, 255, join({{0, 9, 0xFF, 0xFF, 0, 0, 0, 64}, tables}), true, 9, 0},  // one table; the rest is scan
        {1, 255, join({{0, 1, 0, 128}, tables}), true, 0, 0},                    // of 16 bits, taken as of 8
        {0, 50, {}, true, 0, 0},                                                 // tables of appendix A
        {1, 128, {0, 0, 0, 0, 1}, false, 0, 1},                                  // none
        {1, 255, {0, 0, 0, 3, 1, 2}, false, 0, 1},
        {1, 255, {0, 0, 0}, false, 0, 1},
        {65, 50, {0, 0, 0}, false, 0, 0},
        {2, 50, {}, false, 0, 1},  // unknown type
    };
    for (const auto& [type, q, more, picture, restart, discarded] : cases) {
        SCOPED_TRACE(testing::PrintToString(more));
        rtp_owner owner(av::fcc_jpeg);
        owner.take({packet(9, join({{0, 0, 0, 0, type, q}, sizes, more}))});
        ASSERT_EQ(owner.media.size(), picture ? 1U : 0U);
        EXPECT_EQ(owner.track->discarded, discarded);
        jpeg_info_t info{};
        if (!picture) continue;
        ASSERT_TRUE(jpeg_inspect(owner.media[0], &info));
        EXPECT_EQ(info.width * 1000 + info.height, 640360U);
        EXPECT_EQ(info.restart_interval, restart);
        EXPECT_EQ(be16(owner.media[0], owner.media[0].size() - 2), 0xFFD9U);
    }
    // Without tables those hold that came with the same Q; 255 has its own in each picture.
    rtp_owner kept(av::fcc_jpeg);
    const auto picture_of = [&](uint32_t seq, uint8_t q, const bytes& table) {
        return packet(seq, join({{0, 0, 0, 0, 1, q}, sizes, {0, 0, 0, uint8_t(table.size())}, table, {'x'}}), true,
                      seq);
    };
    kept.take({picture_of(1, 200, tables), picture_of(2, 200, {}), picture_of(3, 201, {}), picture_of(4, 255, tables),
               picture_of(5, 255, {})});
    EXPECT_EQ(kept.order, "FRFF");
    EXPECT_EQ(kept.media[0], kept.media[1]);
    EXPECT_EQ(kept.track->discarded, 2U);

    rtp_owner owner(av::fcc_jpeg);
    owner.take({packet(1, {0, 0, 0, 0, 2, 50, 80, 45}, false), packet(2, {0, 0, 0, 8, 2, 50, 80, 45, 'x'}),
                packet(3, {0, 0, 0, 0, 1, 50, 80, 45}, false), packet(4, {0, 1, 0, 0, 1, 50, 80, 45, 'y'})});
    EXPECT_EQ(owner.order, "RFF");
    EXPECT_EQ(owner.media.back(), (bytes{'y', 0xFF, 0xD9}));
}

TEST(RtpReceiveReport, FollowsTheFirstPacketThenEveryTwoSecondsOfMedia) {
    rtp_owner owner(av::fcc_pcma, 8000);
    owner.track->lsr_sec = 0x11223344;
    owner.track->lsr_frac = 0x55667788;
    for (const uint32_t ms : {0, 1999, 2000, 3999, 4001})
        owner.take({packet(1 + ms, {1}, true, ms * 8)});
    EXPECT_EQ(owner.order, "FRFFRFFR");
    EXPECT_EQ(owner.reports[1], (bytes{0x81, 201, 0, 7,    0, 0, 0, 0, 0xA,  0xB,  0xC,  0xD,  0, 0xFF, 0xFF, 0xFF,
                                       0,    0,   7, 0xD1, 0, 0, 0, 0, 0x33, 0x44, 0x55, 0x66, 0, 0,    0,    1}));
}

TEST(RtpReceiveReport, AnswersAReportOfATracksSourceAndNotesItsBye) {
    const bytes ntp{1, 2, 3, 4, 5, 6, 7, 8}, ssrc{0xA, 0xB, 0xC, 0xD};
    const auto then = [&](const bytes& more) { return join({{0x80, 200, 0, 2}, ssrc, {1, 2, 3, 4}, more}); };
    std::tuple<bytes, const char*, uint32_t, uint8_t> cases[] = {
        {join({{0x80, 200, 0, 6}, ssrc, ntp}), "R", 0x01020304, 0},
        {join({{0x80, 77, 0, 4}, ssrc, ntp}), "R", 0x01020304, 0},  // any type
        {join({{0x80, 200, 0, 3}, ssrc, ntp}), "R", 9, 0},
        {join({{0x80, 200, 0, 6}, ssrc, bytes(7, 1)}), "R", 9, 0},
        {join({{0x80, 200, 0, 1}, ssrc, ntp}), "", 9, 0},
        {{0x80, 200, 0, 6, 0xA, 0xB, 0xC}, "", 9, 0},
        {join({{0x80, 200, 0, 6, 0xA, 0xB, 0xC, 0}, ntp}), "", 9, 0},
        {join({{0x40, 200, 0, 6}, ssrc, ntp}), "", 9, 0},
        {{}, "", 9, 0},
        {then(join({{0x81, 203, 0, 1}, ssrc})), "R", 9, 1},
        {then(join({{0x81, 202, 0, 0, 0x82, 203, 0, 2, 0, 0, 0, 9}, ssrc})), "R", 9, 1},
        {then(join({{0x81, 203, 0, 2, 0, 0, 0, 9}, ssrc})), "R", 9, 0},  // a reason, no source
        {then(join({{0x81, 203, 0, 2}, ssrc})), "R", 9, 0},              // cut
        {then({0x9F, 203, 0, 0, 0x81, 203, 0, 0}), "R", 9, 0},           // names more than it holds
    };
    for (auto& [data, answer, lsr_sec, bye] : cases) {
        SCOPED_TRACE(testing::PrintToString(data));
        rtp_owner owner(av::fcc_pcma);
        owner.track->ssrc = 0x0A0B0C0D;
        owner.track->lsr_sec = 9;
        owner.object.unpack_rtc({data.data(), static_cast<uint32_t>(data.size())});
        EXPECT_EQ(owner.order, answer);
        EXPECT_EQ(owner.track->lsr_sec, lsr_sec);
        EXPECT_EQ(owner.track->bye, bye);
        owner.take({packet(1, {1})});
        EXPECT_EQ(owner.track->bye, 0);
    }
}

TEST(RtpReceive, CountsJitterAsRfc3550Says) {
    rtp_owner owner(av::fcc_pcma, 8000);
    double jitter = 0, last = 0;
    const bytes lates = noise(500);
    for (uint16_t i = 0; i < 500; ++i) {
        const uint32_t late = lates[i];  // up to 31 ms
        owner.object.set_arrival(1000000000 + uint64_t{i} * 20000 + uint64_t{late} * 125);
        owner.take({packet(1U + i, {1}, true, i * 160U)});
        if (i > 0) jitter += (std::abs(late - last) - jitter) / 16;
        last = late;
    }
    EXPECT_NEAR(owner.track->jitter, jitter, 2);
    EXPECT_GT(jitter, 50);
}

TEST(RtpReceiveMemory, AFrameBeyondTheBoundIsGivenUpWhole) {
    const std::tuple<uint32_t, bytes, bytes, bytes, bytes> cases[] = {
        {av::fcc_h264, {0x7C, 0x85}, {0x7C, 0x05}, {0x7C, 0x45}, {0x41}}, {av::fcc_meta, {}, {}, {}, {'m'}}};
    for (const auto& [fcc, start, middle, end, small] : cases) {
        rtp_owner owner(fcc);
        const bytes piece = noise(60000);
        for (uint32_t seq = 1; seq < 200; ++seq)
            owner.take({packet(seq, join({seq == 1 ? start : middle, piece}), false)});
        owner.take({packet(200, join({end, piece})), packet(201, small)});
        EXPECT_EQ(owner.media, std::vector<bytes>{small});
        EXPECT_EQ(owner.track->discarded, 1U);
        EXPECT_LE(std::max(owner.track->frame.size, owner.track->fua.size), rtp::max_frame);
    }
}

using numbers = std::vector<uint16_t>;

struct window {
    explicit window(uint32_t packets = 8) : object(rtp::Reorder::create({packets, 1000}, keep, this, CORE_HERE)) {}

    void push(bytes data, uint64_t now = 1) { object->push({data.data(), static_cast<uint32_t>(data.size())}, now); }
    static bytes numbered(uint16_t seq, size_t size = 28) { return packet(seq, noise(size, seq)); }
    static void keep(void* self, buffer_t data) {
        const bytes got(data.data, data.data + data.size);
        const auto seq = static_cast<uint16_t>(be16(got, 2));
        EXPECT_TRUE(got == numbered(seq, got.size() - 12)) << seq;
        static_cast<window*>(self)->out.push_back(seq);
    }

    numbers out;
    core::owned<rtp::Reorder, rtp::Reorder::destroy> object;
};

TEST(RtpReorder, DeliversInOrderWhatComesInReach) {
    const std::tuple<const char*, numbers, numbers, std::vector<uint32_t>> cases[] = {
        {"two swapped", {1, 3, 2, 4}, {1, 2, 3, 4}, {0, 0, 0, 0}},
        {"as far as the window reaches", {1, 9, 8, 7, 6, 5, 4, 3, 2}, {1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 0, 0, 0}},
        {"one missing", {1, 3, 4, 5, 6, 7, 8, 9, 10}, {1, 3, 4, 5, 6, 7, 8, 9, 10}, {0, 0, 1, 0}},
        {"over the wrap", {65534, 1, 65535, 0, 2}, {65534, 65535, 0, 1, 2}, {0, 0, 0, 0}},
        {"twice", {1, 1, 3, 3, 2, 3}, {1, 2, 3}, {2, 1, 0, 0}},
        {"too late", {10, 30, 11, 31, 9}, {10}, {2, 0, 13, 0}},
        {"a stray number", {10, 9000, 11}, {10, 11}, {1, 0, 0, 0}},
        {"a new start", {5000, 5002, 7, 8, 9, 5003}, {5000, 5002, 8, 9}, {2, 0, 1, 1}},
    };
    for (const auto& [name, in, out, counts] : cases) {
        window one;
        const test::allocation_count count;
        for (const uint16_t number : in)
            one.push(window::numbered(number));
        EXPECT_EQ(count.value(), 0U) << name;
        const auto& [late, repeated, given_up, restarts] = one.object->counts();
        EXPECT_EQ(one.out, out) << name;
        EXPECT_EQ((std::vector{late, repeated, given_up, restarts}), counts) << name;
    }
}

TEST(RtpReorder, WaitsNoLongerThanItMay) {
    const std::tuple<uint16_t, uint64_t, uint16_t, uint64_t> steps[] = {
        {1, 100, 1, 0},     {3, 200, 1, 1200},   {6, 500, 1, 1200},
        {0, 1199, 1, 1200}, {0, 1200, 3, 1500},  {8, 1500, 6, 2500},  // a packet sees to it as well
        {0, 2500, 8, 0},    {16, 2600, 8, 3600}, {0, 3600, 16, 0},    // the last place of the window
    };
    window one;
    for (const auto& [number, now, last, due] : steps) {  // 0: no packet, time passes
        number ? one.push(window::numbered(number), now) : one.object->expire(now);
        EXPECT_EQ(one.out.back(), last) << now;
        EXPECT_EQ(one.object->due(), due) << now;
    }
}

TEST(RtpReorder, DoesNotWaitWithWhatIsNoPacketOrTooLong) {
    window one;
    for (const bytes& data : {window::numbered(1), window::numbered(4), window::numbered(3, rtp::reorder_packet - 11),
                              window::numbered(6, rtp::reorder_packet - 12), bytes(11, 0x80), bytes{}, headed(0x40, {}),
                              window::numbered(5, 0)})
        one.push(data);
    EXPECT_EQ(one.out, (numbers{1, 3, 4, 5, 6}));
}

TEST(RtpReorder, HoldsTheWindowAndNoMore) {
    for (const auto& [asked, packets] : {std::pair{1U, 2U}, {5U, 8U}, {1000U, 256U}}) {
        const size_t before = core_mem_bytes();
        const window one(asked);
        const size_t held = core_mem_bytes() - before;
        EXPECT_GE(held, packets * rtp::reorder_packet);
        EXPECT_LT(held, packets * (rtp::reorder_packet + 64) + 512);
    }
}

}  // namespace
