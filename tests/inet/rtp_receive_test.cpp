#include "support/fault.h"

#include "avc/jpeg.h"
#include "inet/rtp_owner.h"

#include <algorithm>
#include <cmath>

namespace {

bytes text(const char* from) { return {from, from + std::char_traits<char>::length(from)}; }

TEST(RtpReceive, BringsBackTheJpegThatThePackerSent) {
    buf_t header{};
    ASSERT_TRUE(jpeg_rtp_header(&header, 1, 640, 360, 5, noise(128), CORE_HERE));
    const bytes jpeg = join({{header.data, header.data + header.length}, noise(4000), {0xFF, 0xD9}});
    core_buf_free(&header);
    rtp_owner sender(av::fcc_jpeg), owner(av::fcc_jpeg, 90000, 26);
    sender.track->seq = 65534;
    sender.send(jpeg);
    owner.take_all(sender.packets);
    EXPECT_EQ(join(owner.media), jpeg);
    EXPECT_EQ(owner.track->jpeg_seq, 65534);
}

// And allocates nothing for it once its buffers have grown. Fragments are put together in two that change places.
TEST(RtpReceive, HandsOverWhatThePacketsHold) {
    const bytes hello = text("hello"), one{0x67};
    const bytes start = packet(10, {0x7C, 0x85, 'a', 'b'}), middle = packet(11, {0x7C, 0x05, 'c'}),
                end = packet(12, {0x7C, 0x45, 'd'}), whole{0x65, 'a', 'b', 'c', 'd'};
    const auto headed = [](uint8_t first, const bytes& payload, uint32_t seq = 5, bool marked = true) {
        return packet(seq, payload, marked, first_time, first);
    };
    struct {
        const char* name;
        uint32_t fcc;
        std::vector<bytes> packets, media;
    } const cases[] = {
        {"nine sources", av::fcc_pcma, {headed(0x89, join({noise(36), hello}))}, {hello}},
        {"padding", av::fcc_pcma, {headed(0xA0, {'h', 'e', 'l', 'l', 'o', 0, 2})}, {hello}},
        {"padding of all", av::fcc_pcma, {headed(0xA0, {0, 2})}, {}},
        {"padding beyond all", av::fcc_pcma, {headed(0xA0, {0, 3})}, {}},
        {"extension counts as payload", av::fcc_pcma, {headed(0x90, hello)}, {hello}},
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
        {"file in extensions",
         av::fcc_jpeg,
         {headed(0x90, {0xFF, 0xD8, 0, 1, 'a', 'b', 'c', 'd', 'e'}, 1, false), headed(0x90, {0xFF, 0xFF, 0, 9, 'f'}, 2),
          headed(0x90, one, 3)},
         {{0xFF, 0xD8, 'a', 'b', 'c', 'd'}, {'f'}}},
    };
    for (const auto& [name, fcc, packets, media] : cases) {
        SCOPED_TRACE(name);
        rtp_owner owner(fcc);
        for (const bool grown : {false, false, true}) {
            owner.media.clear();
            owner.track->seq = 0;
            const test::allocation_count count;
            owner.take_all(packets);
            EXPECT_EQ(owner.media, media);
            EXPECT_TRUE(!grown || count.value() == 0);
        }
        EXPECT_EQ(owner.track->discarded, 0U);
    }
}

// What is late over the wrap is taken and no loss; a step of more than 3000 is another start of the sender.
TEST(RtpReceive, TakesNumbersInOrderOnly) {
    struct {
        std::vector<uint16_t> numbers;
        const char* taken;
        uint32_t lost, restarts;
    } const cases[] = {
        {{65530, 3}, "++", 8, 0},          {{200, 150, 201}, "+-+", 0, 0},     {{7, 7, 8, 8, 8}, "+-+--", 0, 0},
        {{65535, 0, 0, 2}, "++-+", 1, 0},  {{64999, 3}, "+-", 0, 0},           {{65000, 101, 100}, "+-+", 635, 0},
        {{10, 13, 12, 14}, "++-+", 2, 0},  {{3, 65530, 4}, "+++", 0, 0},       {{65528, 3, 65530, 4}, "++++", 9, 0},
        {{1, 3001, 6002}, "+++", 2999, 1}, {{100, 40000, 40003}, "+++", 2, 1},
    };
    for (const auto& [numbers, taken, lost, restarts] : cases) {
        SCOPED_TRACE(testing::Message() << numbers[0] << " " << numbers[1]);
        rtp_owner owner(av::fcc_g726, 8000);
        std::string got;
        for (const uint16_t number : numbers) {
            const size_t before = owner.media.size();
            owner.take(packet(number, {1}));
            got += owner.media.size() > before ? '+' : '-';
        }
        EXPECT_EQ(got, taken);
        EXPECT_EQ(owner.track->lost, lost);
        EXPECT_EQ(owner.track->restarts, restarts);
        EXPECT_EQ(owner.track->late, static_cast<uint32_t>(std::ranges::count(got, '-')));
    }
    // The number announced for the first packet is no packet that came.
    rtp_owner owner(av::fcc_g726);
    owner.track->seq = 300;
    owner.take_all({packet(299, {1}), packet(300, {2}), packet(300, {3})});
    EXPECT_EQ(owner.media, std::vector<bytes>{{2}});
}

TEST(RtpReceive, AnotherTimestampEndsATextAndMovesTheTime) {
    struct {
        double rate;
        uint32_t step;
        uint64_t ms;
    } const cases[] = {{90000, 3003, 33}, {8000, 160, 20}, {90000, 5000000, 7833},  {90000, 0 - 3600U, 47681},
                       {0, 1000, 0},      {0.5, 1000, 0},  {std::nan(""), 1000, 0}, {44100, 1024, 23}};
    for (const auto& [rate, step, ms] : cases) {
        SCOPED_TRACE(step);
        rtp_owner owner(av::fcc_meta, rate);
        owner.track->time = some_time;
        owner.take_all({packet(1, text("open "), false), packet(2, text("end"), false),
                        packet(3, text("next"), true, first_time + step)});
        EXPECT_EQ(owner.media, (std::vector{text("open end"), text("next")}));
        EXPECT_EQ(owner.track->time, some_time + ms * 1000);
    }
}

TEST(RtpReceive, RebuildsTheHeaderOfAJpeg) {
    const auto payload = [](uint8_t type, uint8_t q, const bytes& more) {
        return join({{0, 0, 0, 0, type, q, 80, 45}, more});
    };
    const bytes tables(128, 3);
    struct {
        bytes payload;
        bool picture;
    } const cases[] = {
        {payload(1, 128, join({{0, 0, 0, 128}, tables})), true},
        {payload(64, 255, join({{0, 9, 0xFF, 0xFF, 0, 0, 0, 64}, tables})), true},  // one table; the rest is scan
        {payload(1, 255, join({{0, 1, 0, 128}, tables})), true},                    // of 16 bits, taken as of 8
        {payload(0, 50, {}), true},                                                 // tables of appendix A
        {payload(1, 255, {0, 0, 0, 0, 1}), false},                                  // none
        {payload(1, 255, {0, 0, 0, 3, 1, 2}), false},
        {payload(1, 255, {0, 0, 0}), false},
        {payload(65, 50, {0, 0, 0}), false},
        {{0, 0, 0, 0, 1, 50, 80}, false},
        {payload(2, 50, {}), false},  // unknown type
    };
    for (const auto& [data, picture] : cases) {
        SCOPED_TRACE(&data - &cases[0].payload);
        rtp_owner owner(av::fcc_jpeg);
        owner.take(packet(9, data));
        EXPECT_EQ(owner.track->discarded, data[4] == 2 ? 1U : 0U);
        ASSERT_EQ(owner.media.size(), picture ? 1U : 0U);
        if (!picture) continue;
        const bytes& file = owner.media[0];
        jpeg_info_t info{};
        ASSERT_TRUE(jpeg_inspect(file, &info));
        EXPECT_EQ(info.width * 1000 + info.height, 640360U);
        EXPECT_EQ(info.restart_interval, data[4] == 64 ? 9U : 0U);
        EXPECT_EQ(be16(file, file.size() - 2), 0xFFD9U);
    }
    // No piece of a picture that was given up is handed over, and the next picture is whole.
    rtp_owner owner(av::fcc_jpeg);
    owner.take_all({packet(1, payload(2, 50, {}), false), packet(2, {0, 0, 0, 8, 2, 50, 80, 45, 'x'})});
    EXPECT_EQ(owner.order, "R");
    owner.take_all({packet(3, payload(1, 50, {'x'}), false), packet(4, {0, 1, 0, 0, 1, 50, 80, 45, 'y'})});
    EXPECT_EQ(owner.order, "RFF");
    EXPECT_EQ(owner.media.back(), (bytes{'y', 0xFF, 0xD9}));
}

TEST(RtpReceiveReport, FollowsTheFirstPacketThenEveryTwoSecondsOfMedia) {
    rtp_owner owner(av::fcc_pcma, 8000);
    owner.track->lsr_sec = 0x11223344;
    owner.track->lsr_frac = 0x55667788;
    for (const uint32_t ms : {0, 1999, 2000, 3999, 4001})
        owner.take(packet(1 + ms, {1}, true, first_time + ms * 8));
    EXPECT_EQ(owner.order, "FRFFRFFR");
    EXPECT_EQ(owner.reports[1], (bytes{0x81, 201, 0, 7,    0, 0, 0, 0, 0xA,  0xB,  0xC,  0xD,  0, 0xFF, 0xFF, 0xFF,
                                       0,    0,   7, 0xD1, 0, 0, 0, 0, 0x33, 0x44, 0x55, 0x66, 0, 0,    0,    1}));
}

TEST(RtpReceiveReport, AnswersAReportOfATracksSourceAndNotesItsBye) {
    const bytes sr{0x80, 200, 0, 6, 0xA, 0xB, 0xC, 0xD, 1, 2, 3, 4, 5, 6, 7, 8};
    const bytes head{0x80, 200, 0, 2, 0xA, 0xB, 0xC, 0xD, 1, 2, 3, 4};  // with no NTP time
    const auto with = [&](size_t at, uint8_t value, ptrdiff_t size = 16) {
        bytes changed(sr.begin(), sr.begin() + size);
        changed.at(at) = value;
        return changed;
    };
    const auto then = [&](const bytes& more) { return join({head, more}); };
    struct {
        bytes packet;
        const char* answer;
        uint32_t lsr_sec;
        uint8_t bye;
    } const cases[] = {
        {sr, "R", 0x01020304, 0},
        {with(1, 77), "R", 0x01020304, 0},  // any type
        {with(3, 4), "R", 0x01020304, 0},
        {with(3, 3), "R", 9, 0},
        {with(3, 6, 15), "R", 9, 0},
        {with(3, 1), "", 9, 0},
        {with(3, 6, 7), "", 9, 0},
        {with(7, 0), "", 9, 0},     // another source
        {with(0, 0x40), "", 9, 0},  // version 1
        {{}, "", 9, 0},
        {then({0x81, 203, 0, 1, 0xA, 0xB, 0xC, 0xD}), "R", 9, 1},
        {then({0x81, 202, 0, 0, 0x82, 203, 0, 2, 0, 0, 0, 9, 0xA, 0xB, 0xC, 0xD}), "R", 9, 1},
        {then({0x81, 203, 0, 2, 0, 0, 0, 9, 0xA, 0xB, 0xC, 0xD}), "R", 9, 0},  // a reason, no source
        {then({0x81, 203, 0, 2, 0xA, 0xB, 0xC, 0xD}), "R", 9, 0},              // cut
        {then({0x9F, 203, 0, 0, 0x81, 203, 0, 0}), "R", 9, 0},                 // names more than it holds
    };
    for (const auto& [packet_in, answer, lsr_sec, bye] : cases) {
        SCOPED_TRACE(&packet_in - &cases[0].packet);
        rtp_owner owner(av::fcc_pcma);
        owner.track->ssrc = 0x0A0B0C0D;
        owner.track->lsr_sec = 9;
        bytes data = packet_in;
        owner.object.unpack_rtc({data.data(), static_cast<uint32_t>(data.size())});
        EXPECT_EQ(owner.order, answer);
        EXPECT_EQ(owner.track->lsr_sec, lsr_sec);
        EXPECT_EQ(owner.track->bye, bye);
        owner.take(packet(1, {1}));
        EXPECT_EQ(owner.track->bye, 0);
    }
}

TEST(RtpReceive, CountsJitterAsRfc3550Says) {
    rtp_owner owner(av::fcc_pcma, 8000);
    double jitter = 0, last = 0;
    uint32_t seed = 1;
    for (uint16_t i = 1; i <= 500; ++i) {
        seed = seed * 1664525 + 1013904223;
        const uint32_t late = (seed >> 16) % 400;  // up to 50 ms
        owner.object.set_arrival(1000000000 + uint64_t{i} * 20000 + uint64_t{late} * 125);
        owner.take(packet(i, {1}, true, first_time + i * 160U));
        if (i > 1) jitter += (std::abs(late - last) - jitter) / 16;
        last = late;
    }
    EXPECT_NEAR(owner.track->jitter, jitter, 2);
    EXPECT_GT(jitter, 50);
}

TEST(RtpReceiveMemory, AFrameBeyondTheBoundIsGivenUpWhole) {
    struct {
        uint32_t fcc;
        bytes start, middle, end, small;
    } const cases[] = {{av::fcc_h264, {0x7C, 0x85}, {0x7C, 0x05}, {0x7C, 0x45}, {0x41}},
                       {av::fcc_meta, {}, {}, {}, {'m'}}};
    for (const auto& [fcc, start, middle, end, small] : cases) {
        rtp_owner owner(fcc);
        const bytes piece = noise(60000);
        for (uint32_t seq = 1; seq < 200; ++seq)
            owner.take(packet(seq, join({seq == 1 ? start : middle, piece}), false));
        owner.take_all({packet(200, join({end, piece})), packet(201, small)});
        EXPECT_EQ(owner.media, std::vector<bytes>{small});
        EXPECT_EQ(owner.track->discarded, 1U);
        EXPECT_LE(std::max(owner.track->frame.size, owner.track->fua.size), rtp::max_frame);
    }
}

}  // namespace
