#include "media/stream.h"

#include "station/approach.h"
#include "stream/inside.h"
#include "support/fault.h"
#include "support/frames.h"
#include "support/threads.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <utility>

namespace {

using media::kind_t;
using media::read_t;

std::atomic<uint64_t> clock_now;

constexpr uint64_t second = 1'000'000;
constexpr uint8_t key_picture[] = {0,    0,    0,    1,    0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 0, 1,
                                   0x68, 0xce, 0x3c, 0x80, 0,    0,    0,    1,    0x65, 1, 2, 3};
constexpr std::span sps_pps = std::span(key_picture).first(17);
constexpr std::span idr = std::span(key_picture).subspan(17);
uint8_t short_codes[] = {0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 1, 0x68, 0xce, 0x3c, 0x80};  // the same
constexpr uint8_t slice[] = {0, 0, 0, 1, 0x41, 1, 2, 3};
constexpr uint8_t sound[160] = {};

/// A stream with a clock that stands still unless it is moved.
class Stream : public testing::Test {
protected:
    Stream() {
        clock_now = 1000 * second;
        core_time_set_clock([] { return clock_now.load(); });
        make();
    }
    ~Stream() override {
        drop();
        core_time_set_clock(nullptr);
    }

    void make(const media::limits_t& limits = {}) { stream_ = media::stream::create("live", limits, CORE_HERE); }
    void drop() {
        cursor_.close();
        recorder_.close();
        media::stream::drop(std::exchange(stream_, nullptr));
    }

    int push(uint32_t fcc, std::span<const uint8_t> bytes, bool key, uint64_t time = clock_now) {
        av::frame_t frame = test::borrowed(fcc, bytes, time);
        frame.key = key;
        return stream_->push(frame);
    }
    int key() { return push(av::fcc_h264, key_picture, true); }
    int picture() { return push(av::fcc_h264, slice, false); }

    /// What a cursor finds until there is nothing more: k a key picture, p another, s sound, L lost, G gap, F format, E
    /// ended.
    static std::string read(media::cursor& from) {
        std::string found;
        media::entry_t entry;
        for (read_t what; (what = from.next(entry)) != read_t::nothing;) {
            if (what == read_t::frame) found += entry.kind == kind_t::audio ? 's' : entry.frame.key ? 'k' : 'p';
            if (what == read_t::lost) found += 'L';
            if (what == read_t::gap) found += 'G';
            if (what == read_t::format) found += 'F';
            if (what == read_t::ended) return found + "E|";
        }
        return found + '|';
    }

    std::string newcomer(const media::cursor::settings_t& settings = {}) {
        media::cursor one;
        EXPECT_EQ(one.open(*stream_, settings), 1);
        return read(one);
    }

    /// Does one step of a story (below), and tells what came of it.
    std::string tell(char step) {
        const auto taken = [](int pushed) { return pushed ? "" : "!"; };
        if (step == 'k') return taken(key());
        if (step == 'p') return taken(picture());
        if (step == 's') return taken(push(av::fcc_pcmu, sound, true));
        if (step == 'o') return taken(push(av::fcc_pcma, sound, true));
        if (step == 'f') return taken(stream_->declare(kind_t::audio, {.fcc = av::fcc_pcmu, .rate = 16000}));
        if (step == 'v') return taken(stream_->declare(kind_t::audio, {.fcc = av::fcc_h264}));
        if (step == 'd') return taken(stream_->declare(kind_t::video, {.fcc = av::fcc_h264}));
        if (step == 'D')
            return taken(
                stream_->declare(kind_t::video, {.fcc = av::fcc_h264, .config = {short_codes, sizeof short_codes}}));
        if (step == '?') return std::to_string(stream_->ready()) + '|';
        if (step == '<') return taken(cursor_.open(*stream_, {}));
        if (step == 'O') return taken(recorder_.open(*stream_, {.reserve = 20 * second}));
        if (step == 'r') return read(cursor_);
        if (step == 'R') return read(recorder_);
        if (step == 'n') return newcomer();
        if (step == 'a') return newcomer({.kinds = media::only(kind_t::audio)});
        if (step == 'l') return newcomer({.at_key = false});
        if (step == 'b') return std::to_string(cursor_.behind()) + '|';
        if (step == '#') return std::to_string(stream_->status().held) + '|';
        if (step == '.') clock_now += second * 9 / 10;
        if (step == 'x') cursor_.skip();
        if (step == 'G') stream_->gap();
        if (step == 'E') stream_->end();
        return "";
    }

    media::stream* stream_ = nullptr;
    media::cursor cursor_;
    media::cursor recorder_;
};

// k, p, s push a key picture, another, sound; o sound of another format. f and v declare other sound, and pictures as
// sound, d and D pictures without and with their parameter sets, and ? whether all formats are known. G is a gap, E the
// end, . passes 0.9 seconds. < opens the reader, O a recorder that reserves 20 seconds; r and R have them read; x
// skips, b is how far behind it is, # what is held. n is a newcomer, a one for sound, l one that does not begin with a
// key picture. What is not taken gives '!'.
TEST_F(Stream, TellsEachReaderInOrder) {
    const struct {
        const char* promise;
        media::limits_t limits;
        const char* story;
        const char* told;
    } cases[] = {
        {"begins with the held key picture", {}, "p ksp<. ksp. ksp. nalr", "!FkFsp|Fs||FkFspkspksp|"},
        {"holds two seconds and what is reserved", {}, "O< k.k.k.k.k.k.k.k.k.k. #R k r#", "10|Fkkkkkkkkkk|LFk|3|"},
        {"a group beyond the frames loses its key", {.frames = 16}, "<k pppppppppppppppppppp nrpr kpr", "|L||Fkp|"},
        {"a group beyond the bytes loses its key", {.bytes = 100}, "<k pppppppppppppppppppp nrpr kpr", "|L||Fkp|"},
        {"a group beyond the time loses its key", {.time = 3 * second}, "<k .p.p.p.p.p nrpr kpr", "|L||Fkp|"},
        {"tells a change of format in order", {}, "< sfs r vo", "FsFs|!!"},
        {"a declared format is that of its frames", {}, "<D?k d?k r", "1|1|Fkk|"},
        {"tells a gap and the end where they are", {}, "<kGp rn skE kr", "!Fk||!GFskE|"},
        {"skips to the next key picture", {}, "k<r pxpr kkpb xr", "Fk||3|kp|"},
    };
    for (const auto& [promise, limits, story, told] : cases) {
        drop();
        make(limits);
        std::string all;
        for (const char* step = story; *step; ++step) {
            all += tell(*step);
            EXPECT_LE(stream_->status().held, limits.frames) << promise;
            EXPECT_LE(stream_->status().held_bytes, limits.bytes) << promise;
        }
        EXPECT_EQ(all, told) << promise;
    }
}

TEST_F(Stream, KeyPicturesCarryTheParameterSetsThatAreKnown) {
    EXPECT_EQ(push(av::fcc_h264, idr, true), 0);  // none are known
    ASSERT_EQ(stream_->declare(kind_t::video, {.fcc = av::fcc_h264}), 1);
    EXPECT_EQ(stream_->ready(), 0);
    key();
    EXPECT_EQ(stream_->ready(), 1);
    EXPECT_EQ(push(av::fcc_h264, idr, true), 1);
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    media::entry_t entry;
    ASSERT_EQ(cursor_.next(entry), read_t::format);
    EXPECT_EQ(entry.format->generation, 2U);
    const buffer_t config = entry.format->config;
    EXPECT_TRUE(std::ranges::equal(sps_pps, std::span(config.data, config.size)));
    ASSERT_EQ(cursor_.next(entry), read_t::frame);
    EXPECT_TRUE(std::ranges::equal(key_picture, std::span(entry.frame.data, entry.frame.size)));
}

TEST_F(Stream, ReportsAreConvertedOnceAndDocumentsStay) {
    const std::string report =
        R"( [{"objects":[{"rectangle":{"type_graphic":3,"id":7,"points":[{"x":1,"y":2},{"x":3,"y":4}]}}]}])";
    const std::string document = "<tt:MetadataStream/>";
    const auto pushed = [&](const std::string& text) {
        return push(av::fcc_meta, std::span(reinterpret_cast<const uint8_t*>(text.data()), text.size()), true);
    };
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    EXPECT_EQ(pushed("[]"), 1);  // names nothing
    EXPECT_EQ(stream_->ready() * 10 + static_cast<int>(stream_->status().held), 10);
    EXPECT_EQ(pushed(report), 1);
    EXPECT_EQ(pushed(document), 1);
    media::entry_t entry;
    ASSERT_EQ(cursor_.next(entry), read_t::format);
    ASSERT_EQ(cursor_.next(entry), read_t::frame);
    const auto text = [&] { return std::string(entry.frame.data, entry.frame.data + entry.frame.size); };
    EXPECT_TRUE(text().starts_with("<?xml") && text().ends_with("</tt:MetadataStream>")) << text();
    ASSERT_EQ(cursor_.next(entry), read_t::frame);
    EXPECT_EQ(text(), document);
    EXPECT_EQ(entry.frame.fcc, av::fcc_meta);
}

TEST_F(Stream, MediaTimeRunsOnWhereTheSourceJumps) {
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    constexpr int64_t hour = 3600 * int64_t{second};
    struct {
        int64_t step;       ///< of the source's time
        uint64_t passes;    ///< between the pushes
        uint64_t expected;  ///< step of the media time
    } const cases[] = {{40'000, 40'000, 40'000}, {-hour, 40'000, 40'000}, {40'000, 40'000, 40'000},
                       {hour, 40'000, 40'000},   {second, 5'000, second},  // a burst
                       {-20'000, 20'000, 0}};                              // out of order
    uint64_t time = 5000 * second;
    uint64_t last = time;
    push(av::fcc_pcmu, sound, true, time);
    EXPECT_EQ(read(cursor_), "Fs|");
    for (const auto& [step, passes, expected] : cases) {
        clock_now += passes;
        time += static_cast<uint64_t>(step);
        push(av::fcc_pcmu, sound, true, time);
        media::entry_t entry;
        ASSERT_EQ(cursor_.next(entry), read_t::frame);
        EXPECT_EQ(entry.frame.time - last, expected) << step;
        last = entry.frame.time;
    }
}

// In pictures of 40 ms.
TEST(DecodingClock, NeverRunsBackAndIsNoLaterThanTheDisplay) {
    const struct {
        const char* what;
        uint32_t told;
        std::vector<int64_t> shown, decoded;
    } cases[] = {
        {"in order", 0, {0, 1, 2, 5}, {0, 1, 2, 5}},
        {"one ahead", 1, {0, 3, 1, 2, 6, 4, 5, 9}, {-1, 0, 1, 2, 3, 4, 5, 6}},
        {"two ahead", 2, {0, 4, 2, 1, 3, 8, 6, 5}, {-2, -1, 0, 1, 2, 3, 4, 5}},
        {"learned", 0, {0, 3, 1, 2, 6, 4, 5, 9, 7}, {0, 3, 3, 3, 3, 4, 5, 6, 7}},
        {"told more than is", 2, {0, 1, 2, 3, 4}, {-2, -1, 0, 1, 2}},
        {"set back a little",
         0,
         {20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 10, 12, 13},
         {20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 10, 12, 13}},
        {"another clock", 1, {0, 3, 1, 1000, 1003, 1001, 500}, {-1, 0, 1, 999, 1000, 1001, 499}},
    };
    constexpr int64_t step = 40'000;
    for (const auto& [what, told, shown, decoded] : cases) {
        media::decoding_clock clock;
        std::vector<int64_t> found;
        for (const int64_t each : shown)
            found.push_back(clock.take(each * step, told) / step);
        EXPECT_EQ(found, decoded) << what;
    }
}

TEST_F(Stream, DemandIsToldWhenReadersComeAndStayAway) {
    std::string told;
    const auto tell_it = [](void* arg, int yes) { *static_cast<std::string*>(arg) += yes ? '+' : '-'; };
    stream_->on_demand(tell_it, &told, 5 * second);
    const auto settle_after = [&](uint64_t seconds) {
        clock_now += seconds * second;
        return media::settle_demand(*stream_, clock_now);
    };
    settle_after(0);
    EXPECT_EQ(told, "");
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(cursor_.open(*stream_, {}), 1);
        settle_after(0);
        settle_after(10);
        cursor_.close();
        media::cursor uncounted;
        ASSERT_EQ(uncounted.open(*stream_, {.counts = false}), 1);
        EXPECT_EQ(settle_after(0), clock_now + 5 * second);
        settle_after(4);
    }
    EXPECT_EQ(told, "+");
    settle_after(1);
    EXPECT_EQ(told, "+-");
}

TEST_F(Stream, ReadingAllocatesNothingAndPayloadsAreShared) {
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    key();
    read(cursor_);
    av::frame_t* own = avc_frame_create(av::fcc_h264, 1, slice, sizeof slice, CORE_HERE);
    const test::allocation_count counted;
    stream_->push(*own);
    media::entry_t entry;
    ASSERT_EQ(cursor_.next(entry), read_t::frame);
    EXPECT_EQ(entry.frame.data, own->data);
    EXPECT_EQ(counted.value(), 0U);
    avc_frame_need(own);
    EXPECT_EQ(entry.frame.data[4], slice[4]);  // held by the cursor
}

TEST_F(Stream, ReadersOnManyThreadsLoseNothingWhileOthersComeAndGo) {
    core_time_set_clock(nullptr);
    constexpr int pictures = 500;
    std::atomic<int> ready = 0;
    const std::jthread coming([&] {
        std::atomic<int> woken = 0;
        for (int i = 0; i < 200; ++i) {
            media::cursor one;
            one.open(*stream_, {});
            one.told([](void* arg) { ++*static_cast<std::atomic<int>*>(arg); }, &woken);
            read(one);
        }
    });
    const std::jthread pushing([&] {
        while (ready != 4)
            core_sleep(1);
        for (int i = 0; i < pictures; ++i)
            i % 25 == 0 ? key() : picture();
        stream_->end();
    });
    test::on_four_threads([&] {
        media::cursor own;
        EXPECT_EQ(own.open(*stream_, {.reserve = 30 * second}), 1);
        ++ready;
        int seen = 0;
        media::entry_t entry;
        for (read_t found = read_t::nothing; found != read_t::ended; found = own.wait(entry, 1000)) {
            seen += found == read_t::frame;
            EXPECT_NE(found, read_t::lost);
        }
        EXPECT_EQ(seen, pictures);
    });
}

TEST_F(Stream, APlayerComesUpAtFourTimesThePaceAndLeavesOutWhatIsTooLate) {
    using step_t = media::approach::step_t;
    media::approach way;
    // Waits as milliseconds, frames as f.
    const auto look = [&](int steps) {
        std::string seen;
        while (steps-- > 0) {
            const step_t step = way.look(clock_now);
            if (step == step_t::wait) seen += std::to_string((way.due() - clock_now) / 1000);
            if (step == step_t::wait) clock_now = way.due();
            if (step == step_t::frame) seen += 'f';
            if (step == step_t::frame) way.take();
            if (step == step_t::present) return seen + "P";
            if (step == step_t::lost) return seen + "L";
            if (step == step_t::ended) return seen + "E";
        }
        return seen;
    };
    const auto play = [&](int pictures) {
        for (key(); pictures > 0; --pictures) {
            clock_now += 40'000;
            picture();
        }
    };
    play(3);
    ASSERT_TRUE(way.begin(*stream_, true, clock_now));
    EXPECT_EQ(way.first_time(), clock_now - 120'000);
    EXPECT_EQ(look(100), "f10f10f10fP");
    play(3);
    EXPECT_EQ(look(3), "fff");         // ahead of the pace, which counts from the first one
    clock_now += second + second / 5;  // a second later than at the beginning is too late
    EXPECT_EQ(look(100), "L");
    picture();
    EXPECT_EQ(look(100), "P");
    stream_->gap();
    clock_now += 10 * second;  // the pace counts anew
    play(1);
    EXPECT_EQ(look(100), "f10fP");
    stream_->end();
    EXPECT_EQ(look(100), "E");
    ASSERT_TRUE(way.begin(*stream_, false, clock_now));
    EXPECT_EQ(way.first_time(), 0U);
}

}  // namespace
