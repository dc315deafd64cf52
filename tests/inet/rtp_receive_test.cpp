#include "support/fault.h"

#include "avc/jpeg.h"
#include "inet/rtp_capture.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr uint8_t pt = 96;
constexpr uint32_t first_time = 500000;
constexpr uint64_t some_time = 1448466450042000;

bytes join(const std::vector<bytes>& parts) {
    bytes out;
    for (const bytes& part : parts)
        append(out, part);
    return out;
}

bytes text(const char* from) { return {from, from + std::char_traits<char>::length(from)}; }

bytes packet(uint32_t seq, const bytes& payload, bool marked = true, uint32_t time = first_time, uint8_t first = 0x80) {
    const auto byte = [](uint32_t of, int shift) { return static_cast<uint8_t>(of >> shift); };
    return join({{first, uint8_t(marked ? 0x80 | pt : pt), byte(seq, 8), byte(seq, 0)},
                 {byte(time, 24), byte(time, 16), byte(time, 8), byte(time, 0), 0x0A, 0x0B, 0x0C, 0x0D},
                 payload});
}

// An owner that brings packets in blocks of exactly their size and keeps what it is handed.
class receiver : public rtp::IRtp {
public:
    explicit receiver(uint32_t fcc, double clock_rate = 90000) {
        object.set_handler(this);
        object.id = 7;
        track = object.add_trak(pt, fcc);
        track->clock_rate = clock_rate;
        track->rtp_time = first_time;
    }

    void on_rtp_event(rtp::Rtp* rtp, rtp::event_t::enum_t event) noexcept override {
        const buf_t& data = event == rtp::event_t::rtcp ? rtp->packet : rtp->current->frame;
        EXPECT_TRUE(data.length > 0 && event != rtp::event_t::packet);
        order += event == rtp::event_t::rtcp ? 'R' : 'F';
        if (keep) (event == rtp::event_t::rtcp ? reports : media).emplace_back(data.data, data.data + data.length);
    }

    void take(bytes data) { object.unpack_rtp({data.data(), static_cast<uint32_t>(data.size())}); }
    void take_all(const std::vector<bytes>& packets) {
        for (const bytes& one : packets)
            take(one);
    }

    rtp::Rtp object{CORE_HERE};
    rtp::trak_t* track;
    std::vector<bytes> media, reports;
    std::string order;
    bool keep = true;
};

bytes jpeg_file(uint32_t width, uint32_t height, const bytes& scan) {
    buf_t out;
    EXPECT_TRUE(jpeg_rtp_header(&out, 1, width, height, 5, bytes(128, 9), CORE_HERE));
    bytes file(out.data, out.data + out.length);
    core_buf_free(&out);
    return join({file, scan, {0xFF, 0xD9}});
}

bytes nal_of(uint8_t header, size_t size) {
    bytes nal = noise(size);
    nal[0] = header;
    return nal;
}

TEST(RtpReceive, BringsBackWhatThePackerSent) {
    const bytes idr = nal_of(0x65, 5000), slice = nal_of(0x41, 1387), small = nal_of(0x01, 1386), code{0, 0, 1};
    const bytes jpeg = jpeg_file(640, 360, noise(4000));
    const bytes sound = noise(3000);
    struct {
        uint32_t fcc;
        bytes sent;
        std::vector<bytes> received;  // one by one, or all of it in any pieces
    } const cases[] = {
        {av::fcc_h264, join({code, idr, code, slice, code, small}), {idr, slice, small}},
        {av::fcc_jpeg, jpeg, {jpeg}},
        {av::fcc_pcmu, sound, {sound}},
    };
    for (const auto& [fcc, sent, expected] : cases) {
        SCOPED_TRACE(fcc);
        capture sender(fcc, fcc == av::fcc_jpeg ? 26 : pt);  // the numbers wrap under way
        receiver owner(fcc);
        owner.track->pt = sender.track->pt;
        sender.send(sent, some_time);
        owner.take_all(sender.packets);
        EXPECT_EQ(expected.size() == 1 ? std::vector<bytes>{join(owner.media)} : owner.media, expected);
        EXPECT_EQ(owner.track->received, sender.packets.size());
        EXPECT_EQ(owner.track->lost + owner.track->late + owner.track->discarded, 0U);
        EXPECT_EQ(owner.track->nal_type, fcc == av::fcc_h264 ? 1 : 0);
    }
}

TEST(RtpReceive, JoinsNothingAcrossANewStartOfTheNumbers) {
    for (const uint32_t next : {1U, 501U, 30000U}) {
        receiver owner(av::fcc_h264);
        owner.take(packet(500, {0x7C, 0x85, 'a'}));
        owner.track->seq = 0;  // the owner takes whatever comes next
        owner.take(packet(next, {0x7C, 0x45, 'b'}));
        EXPECT_TRUE(owner.media.empty()) << next;
        EXPECT_EQ(owner.track->restarts, next == 501 ? 0U : 1U) << next;
    }
}

TEST(RtpReceive, HandsOverWhatThePacketsHold) {
    const bytes hello = text("hello"), one{0x67};
    const bytes start = packet(10, {0x7C, 0x85, 'a', 'b'}), middle = packet(11, {0x7C, 0x05, 'c'}),
                end = packet(12, {0x7C, 0x45, 'd'}), whole{0x65, 'a', 'b', 'c', 'd'};
    const auto headed = [](uint8_t first, const bytes& payload) { return packet(5, payload, true, first_time, first); };
    struct {
        const char* name;
        uint32_t fcc;
        std::vector<bytes> packets, media;
    } const cases[] = {
        {"two sources", av::fcc_pcma, {headed(0x82, text("source 2hello"))}, {hello}},
        {"padding", av::fcc_pcma, {headed(0xA0, {'h', 'e', 'l', 'l', 'o', 0, 2})}, {hello}},
        {"padding of all", av::fcc_pcma, {headed(0xA0, {0, 2})}, {}},
        {"padding beyond all", av::fcc_pcma, {headed(0xA0, {0, 15})}, {}},
        {"extension counts as payload", av::fcc_pcma, {headed(0x90, hello)}, {hello}},
        {"version 1", av::fcc_pcma, {headed(0x40, hello)}, {}},
        {"sources that are not there", av::fcc_pcma, {headed(0x8F, hello)}, {}},
        {"a format that is only sent", av::fcc_univ, {packet(1, hello)}, {}},
        {"fragments", av::fcc_h264, {start, middle, end}, {whole}},
        {"start and end in one", av::fcc_h264, {packet(1, {0x5C, 0xC1, 'x'})}, {{0x41, 'x'}}},
        {"no start", av::fcc_h264, {middle, end}, {}},
        {"a gap", av::fcc_h264, {start, end, packet(13, one)}, {one}},
        {"started again", av::fcc_h264, {packet(9, {0x7C, 0x85, 'z'}), start, middle, end}, {whole}},
        {"nothing inside", av::fcc_h264, {packet(1, {0x7C}), packet(2, {}), packet(3, one)}, {one}},
        {"aggregation as it is", av::fcc_h264, {packet(1, {24, 0, 1, 9}), packet(2, {29, 1})}, {{24, 0, 1, 9}}},
        {"AU headers", av::fcc_mp4a, {packet(1, {0, 16, 1, 2, 'a'}), packet(2, {0, 17, 1, 2, 3, 'b'})}, {{'a'}, {'b'}}},
        {"AU headers alone", av::fcc_mp4a, {packet(1, {0, 16, 1, 2}), packet(2, {255, 255, 1}), packet(3, {0})}, {}},
        {"file in extensions",
         av::fcc_jpeg,
         {packet(1, {0xFF, 0xD8, 0, 1, 'a', 'b', 'c', 'd', 'e'}, false, first_time, 0x90),
          packet(2, {0xFF, 0xFF, 0, 9, 'f'}, true, first_time, 0x90), packet(3, one, true, first_time, 0x90)},
         {{0xFF, 0xD8, 'a', 'b', 'c', 'd'}, {'f'}}},
    };
    for (const auto& [name, fcc, packets, media] : cases) {
        SCOPED_TRACE(name);
        receiver owner(fcc);
        owner.take_all(packets);
        EXPECT_EQ(owner.media, media);
        EXPECT_EQ(owner.track->discarded, 0U);
    }
}

TEST(RtpReceive, TakesNumbersInOrderOnly) {
    struct {
        std::vector<uint16_t> numbers;
        const char* taken;
        uint32_t lost;
    } const cases[] = {
        {{65530, 3}, "++", 8},           {{200, 150, 201}, "+-+", 0}, {{7, 7, 8, 8, 8}, "+-+--", 0},
        {{65535, 0, 0, 2}, "++-+", 1},   {{64999, 3}, "+-", 0},       {{65000, 101, 100}, "+-+", 635},
        {{10, 13, 12, 14}, "++-+", 2},   {{3, 65530, 4}, "+++", 0},  // late over the wrap: not 65526 lost
        {{100, 40000, 40003}, "+++", 2},                             // another start of the sender
    };
    for (const auto& [numbers, taken, lost] : cases) {
        SCOPED_TRACE(testing::Message() << numbers[0] << " " << numbers[1]);
        receiver owner(av::fcc_g726, 8000);
        std::string got;
        for (const uint16_t number : numbers) {
            const size_t before = owner.media.size();
            owner.take(packet(number, {1}));
            got += owner.media.size() > before ? '+' : '-';
        }
        EXPECT_EQ(got, taken);
        EXPECT_EQ(owner.track->lost, lost);
        EXPECT_EQ(owner.track->late, static_cast<uint32_t>(std::ranges::count(got, '-')));
    }
    // The number announced for the first packet is no packet that came.
    receiver owner(av::fcc_g726);
    owner.track->seq = 300;
    owner.take_all({packet(299, {1}), packet(300, {2}), packet(300, {3})});
    EXPECT_EQ(owner.media, std::vector<bytes>{{2}});
}

TEST(RtpReceive, AnotherTimestampEndsATextAndMovesTheTime) {
    struct {
        double rate;
        uint32_t step;
        uint64_t ms;
    } const cases[] = {{90000, 3003, 33}, {8000, 160, 20},         {90000, 5000000, 7833}, {90000, 0 - 3600U, 47681},
                       {0, 1000, 0},      {std::nan(""), 1000, 0}, {44100, 1024, 23}};
    for (const auto& [rate, step, ms] : cases) {
        SCOPED_TRACE(step);
        receiver owner(av::fcc_meta, rate);
        owner.track->time = some_time;
        owner.take_all({packet(1, text("open "), false), packet(2, text("end"), false),
                        packet(3, text("next"), true, first_time + step)});
        EXPECT_EQ(owner.media, (std::vector{text("open end"), text("next")}));
        EXPECT_EQ(owner.track->time, some_time + ms * 1000);
    }
}

TEST(RtpReceive, RebuildsTheHeaderOfAJpegOrSaysWhyNot) {
    const auto payload = [](uint8_t type, uint8_t q, const bytes& between) {
        return join({{0, 0, 0, 0, type, q, 80, 45}, between});
    };
    const bytes tables(128, 3);
    const char* const cut = "Too short RTP/JPEG packet.";
    struct {
        bytes payload;
        bool picture;
        const char* line;  // in the log, if any
    } const cases[] = {
        {payload(1, 255, join({{0, 0, 0, 128}, tables})), true, ""},
        {payload(64, 255, join({{0, 9, 0xFF, 0xFF, 0, 0, 0, 64}, tables})), true, ""},  // one table; the rest is scan
        {payload(1, 255, join({{0, 1, 0, 128}, tables})), true, "Only 8-bit precision is supported."},
        {payload(1, 255, {0, 1, 0, 0, 1}), false, "Only 8-bit precision is supported."},
        {payload(0, 50, {}), true, ""},                 // tables of appendix A
        {payload(1, 255, {0, 0, 0, 0, 1}), false, ""},  // none
        {payload(1, 255, {0, 0, 0, 3, 1, 2}), false, cut},
        {payload(1, 255, {0, 0, 0}), false, cut},
        {payload(65, 50, {0, 0, 0}), false, cut},
        {{0, 0, 0, 0, 1, 50, 80}, false, cut},
        {payload(2, 50, {}), false, "7: 168496141: frame given up, bytes:0"},  // unknown type
    };
    for (const auto& [data, picture, line] : cases) {
        SCOPED_TRACE(&data - &cases[0].payload);
        receiver owner(av::fcc_jpeg);
        test::log_lines log("rtp");
        owner.take(packet(9, data));
        EXPECT_EQ(std::ranges::count(log.take(), line), *line ? 1 : 0);
        ASSERT_EQ(owner.media.size(), picture ? 1U : 0U);
        if (!picture) continue;
        const bytes& file = owner.media[0];
        jpeg_info_t info{};
        ASSERT_TRUE(jpeg_inspect(file, &info));
        EXPECT_EQ(info.width * 1000 + info.height, 640360U);
        EXPECT_EQ(info.restart_interval, data[4] == 64 ? 9U : 0U);
        EXPECT_EQ(be16(file, file.size() - 2), 0xFFD9U);
    }
}

TEST(RtpReceiveReport, FollowsTheFirstPacketThenEveryTwoSecondsOfMedia) {
    receiver owner(av::fcc_pcma, 8000);
    test::log_lines log("rtp");
    owner.track->lsr_sec = 0x11223344;
    owner.track->lsr_frac = 0x55667788;
    for (const uint32_t ms : {0, 1999, 2000, 3999, 4001})
        owner.take(packet(1 + ms, {1}, true, first_time + ms * 8));
    EXPECT_EQ(owner.order, "FRFFRFFR");
    EXPECT_EQ(owner.reports[0], (bytes{0x81, 201, 0, 7, 0, 0, 0, 0, 0xA,  0xB,  0xC,  0xD,  0, 0xFF, 0xFF, 0xFF,
                                       0,    0,   0, 1, 0, 0, 0, 0, 0x33, 0x44, 0x55, 0x66, 0, 0,    0,    1}));
    const auto lines = log.take();
    EXPECT_EQ(lines.at(0), "7: 168496141: unpack rtp size:13, seq: 1");
    EXPECT_EQ(lines.at(1), "7: send rtcp rr 168496141: seq: 1 lsr:287454020.1432778632");
}

TEST(RtpReceiveReport, AnswersAPacketFromATracksSource) {
    const bytes report{0x80, 200, 0, 6, 0xA, 0xB, 0xC, 0xD, 1, 2, 3, 4, 5, 6, 7, 8};
    struct {
        size_t size, changed;
        uint8_t value;
        bool answered;
        uint32_t lsr_sec;
    } const cases[] = {
        {16, 0, 0x80, true, 0x01020304},
        {16, 1, 77, true, 0x01020304},  // any type
        {16, 3, 3, true, 9},
        {15, 3, 6, true, 9},  // no NTP time
        {16, 3, 1, false, 9},
        {7, 3, 6, false, 9},  // no source
        {16, 7, 0, false, 9},
        {16, 0, 0x40, false, 9},  // another source, version 1
        {0, 0, 0x80, false, 9},
    };
    for (const auto& [size, changed, value, answered, lsr_sec] : cases) {
        SCOPED_TRACE(testing::Message() << size << " " << changed);
        receiver owner(av::fcc_h264);
        owner.track->ssrc = 0x0A0B0C0D;
        owner.track->lsr_sec = 9;
        bytes data = report;
        data[changed] = value;
        data = bytes(data.begin(), data.begin() + static_cast<ptrdiff_t>(size));
        owner.object.unpack_rtc({data.data(), static_cast<uint32_t>(size)});
        EXPECT_EQ(owner.order, answered ? "R" : "");
        EXPECT_EQ(owner.track->lsr_sec, lsr_sec);
    }
}

TEST(RtpReceiveReport, NotesABye) {
    const bytes report{0x80, 200, 0, 2, 0xA, 0xB, 0xC, 0xD, 1, 2, 3, 4};
    struct {
        bytes behind;
        uint8_t bye;
    } const cases[] = {
        {{}, 0},
        {{0x81, 203, 0, 1, 0xA, 0xB, 0xC, 0xD}, 1},
        {{0x81, 202, 0, 1, 0xA, 0xB, 0xC, 0xD, 0x82, 203, 0, 2, 0, 0, 0, 9, 0xA, 0xB, 0xC, 0xD}, 1},
        {{0x81, 203, 0, 2, 0, 0, 0, 9, 0xA, 0xB, 0xC, 0xD}, 0},  // a reason, no source
        {{0x81, 203, 0, 2, 0xA, 0xB, 0xC, 0xD}, 0},              // cut
        {{0x9F, 203, 0, 0, 0x81, 203, 0, 0}, 0},                 // names more than it holds
        {{0x81, 203, 0}, 0},
    };
    for (const auto& [behind, bye] : cases) {
        SCOPED_TRACE(&behind - &cases[0].behind);
        receiver owner(av::fcc_pcma);
        owner.track->ssrc = 0x0A0B0C0D;
        bytes data = join({report, behind});
        data.shrink_to_fit();
        owner.object.unpack_rtc({data.data(), static_cast<uint32_t>(data.size())});
        EXPECT_EQ(owner.track->bye, bye);
        owner.take(packet(1, {1}));
        EXPECT_EQ(owner.track->bye, 0);
    }
}

TEST(RtpReceive, CountsJitterAsRfc3550Says) {
    receiver owner(av::fcc_pcma, 8000);
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
        receiver owner(fcc);
        const bytes piece = noise(60000);
        uint32_t seq = 1;
        owner.take(packet(seq++, join({start, piece}), false));
        while (seq < 200)
            owner.take(packet(seq++, join({middle, piece}), false));
        owner.take_all({packet(200, join({end, piece})), packet(201, small)});
        EXPECT_EQ(owner.media, std::vector<bytes>{small});
        EXPECT_EQ(owner.track->discarded, 1U);
        EXPECT_LE(std::max(owner.track->frame.size, owner.track->fua.size), rtp::max_frame);
    }
}

struct recording_t {
    uint32_t fcc;
    std::vector<bytes> packets;
};

// A few packets of every format. Behind its headers a payload is not looked at, so the long ones are cut to be quick.
std::vector<recording_t> recorded() {
    std::vector<recording_t> out{{av::fcc_mp4a, {packet(1, {0, 16, 1, 2, 'a'}), packet(2, {0, 16, 1, 2, 'b'})}},
                                 {av::fcc_meta, {packet(1, text("<a>"), false), packet(2, text("</a>"))}},
                                 {av::fcc_jpeg,
                                  {packet(1, {0xFF, 0xD8, 0, 1, 'a', 'b', 'c', 'd'}, false, first_time, 0x90),
                                   packet(2, {0xFF, 0xFF, 0, 1, 'e', 'f'}, true, first_time, 0x90)}}};
    const bytes code{0, 0, 1};
    const recording_t sent[] = {{av::fcc_h264, {join({code, nal_of(0x65, 3000), code, nal_of(0x41, 20)})}},
                                {av::fcc_pcmu, {noise(40)}},
                                {av::fcc_jpeg, {jpeg_file(64, 64, noise(1300))}}};
    for (const auto& [fcc, frames] : sent) {
        capture sender(fcc, fcc == av::fcc_jpeg ? 26 : pt);
        sender.send(frames[0], some_time);
        for (bytes& data : sender.packets) {
            data[1] = static_cast<uint8_t>((data[1] & 0x80) | pt);
            data.resize(std::min<size_t>(data.size(), 180));
        }
        out.push_back({fcc, sender.packets});
    }
    return out;
}

// Calls with the packet changed in every byte to every value, and cut at every place.
template <class Take>
void with_each_fault(bytes data, Take take) {
    for (uint8_t& byte : data) {
        for (int value = 0; value < 256; ++value, ++byte)
            take(data);
    }
    for (; !data.empty(); data.pop_back())
        take(data);
}

TEST(RtpReceive, OutlivesEveryCutAndEveryChangedByte) {
    for (const recording_t& one : recorded()) {
        const std::vector<bytes>& packets = one.packets;
        receiver owner(one.fcc);
        owner.keep = false;
        for (size_t changed = 0; changed < packets.size(); ++changed) {
            with_each_fault(packets[changed], [&](const bytes& with) {
                owner.track->seq = 0;
                for (size_t i = 0; i < packets.size(); ++i)
                    owner.take(i == changed ? with : packets[i]);
                ASSERT_LT(owner.track->frame.size + owner.track->fua.size, 10000U);
            });
        }
        EXPECT_GT(owner.order.size(), packets.size());
    }
}

TEST(RtpReceiveReport, OutlivesEveryCutAndEveryChangedByte) {
    capture server(av::fcc_h264);
    server.send({0, 0, 1, 0x65}, some_time);
    receiver owner(av::fcc_h264);
    owner.track->ssrc = server.track->ssrc;
    size_t taken = 0;
    with_each_fault(server.reports.at(0), [&](bytes report) {
        owner.object.unpack_rtc({report.data(), static_cast<uint32_t>(report.size())});
        ++taken;
    });
    // One answer at most for each, none for another version, no length or another source.
    EXPECT_GT(owner.order.size(), taken / 2);
    EXPECT_LT(owner.order.size(), taken);
    EXPECT_EQ(owner.order.find('F'), std::string::npos);
}

TEST(RtpReceiveMemory, AllocatesNothingOnceGrownAndOutlivesEachFailure) {
    const auto formats = recorded();
    for (auto [fcc, packets] : formats) {
        receiver owner(fcc);
        owner.keep = false;
        owner.take_all(packets);
        owner.track->seq = 0;
        owner.take_all(packets);  // fragments are put together in two buffers that change places
        owner.track->seq = 0;
        const test::allocation_count count;
        owner.take_all(packets);
        EXPECT_EQ(count.value(), 0U) << fcc;
        EXPECT_EQ(owner.track->received, 3 * packets.size());
    }
    const size_t failed = test::fail_each_allocation([&] {
        for (const auto& [fcc, packets] : formats) {
            rtp::Rtp object(CORE_HERE);
            object.add_trak(pt, fcc);
            for (bytes data : packets)
                object.unpack_rtp({data.data(), static_cast<uint32_t>(data.size())});
        }
    });
    EXPECT_GT(failed, 15U);
}

}  // namespace
