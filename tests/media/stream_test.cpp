#include "media/stream.h"

#include "stream/inside.h"
#include "support/fault.h"
#include "support/side_thread.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"

#include <atomic>
#include <gtest/gtest.h>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

using media::kind_t;
using media::read_t;

std::atomic<uint64_t> clock_now;

constexpr uint64_t second = 1'000'000;
constexpr uint8_t sps_pps[] = {0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 0, 1, 0x68, 0xce, 0x3c, 0x80};
constexpr uint8_t idr[] = {0, 0, 0, 1, 0x65, 1, 2, 3};
constexpr uint8_t slice[] = {0, 0, 0, 1, 0x41, 1, 2, 3};
constexpr uint8_t sound[160] = {};

/// A stream with a clock that stands still unless it is moved.
class Stream : public testing::Test {
protected:
    Stream() {
        clock_now = 1000 * second;
        core_time_set_clock([] { return clock_now.load(); });
    }
    ~Stream() override {
        cursor_.close();
        media::stream::drop(stream_);
        core_time_set_clock(nullptr);
    }

    void make(const media::limits_t& limits = {}) { stream_ = media::stream::create("live", limits, CORE_HERE); }

    int push(uint32_t fcc, std::span<const uint8_t> bytes, bool key, uint64_t time = 0) {
        av::frame_t frame{};
        frame.fcc = fcc;
        frame.time = time ? time : clock_now.load();
        frame.data = bytes.data();
        frame.size = static_cast<uint32_t>(bytes.size());
        frame.key = key;
        return stream_->push(frame);
    }
    int key() {
        std::vector<uint8_t> whole(std::begin(sps_pps), std::end(sps_pps));
        whole.insert(whole.end(), std::begin(idr), std::end(idr));
        return push(av::fcc_h264, whole, true);
    }
    int picture() { return push(av::fcc_h264, slice, false); }
    int block() { return push(av::fcc_pcmu, sound, true); }

    /// What a cursor finds until there is nothing more: k a key picture, p another, s sound, L lost, G gap, F format, E
    /// ended.
    std::string read(media::cursor& from) {
        std::string found;
        media::entry_t entry;
        for (;;) {
            switch (from.next(entry)) {
                case read_t::frame:
                    found += entry.kind == kind_t::audio ? 's' : entry.frame.key ? 'k' : 'p';
                    break;
                case read_t::lost:
                    found += 'L';
                    break;
                case read_t::gap:
                    found += 'G';
                    break;
                case read_t::format:
                    found += 'F';
                    break;
                case read_t::ended:
                    return found + 'E';
                case read_t::nothing:
                    return found;
            }
        }
    }
    std::string read() { return read(cursor_); }

    /// What a reader that comes now begins with.
    std::string newcomer(const media::cursor::settings_t& settings = {}) {
        media::cursor one;
        EXPECT_EQ(one.open(*stream_, settings), 1);
        return read(one);
    }

    media::stream* stream_ = nullptr;
    media::cursor cursor_;
};

TEST_F(Stream, BeginsWithTheHeldKeyPictureAndLosesNoTail) {
    make();
    EXPECT_EQ(picture(), 0);  // nothing to build on
    for (int group = 0; group < 3; ++group) {
        EXPECT_EQ(key(), 1);
        EXPECT_EQ(block(), 1);
        EXPECT_EQ(picture(), 1);
        cursor_.is_open() || cursor_.open(*stream_, {});
        clock_now += second * 9 / 10;
    }
    EXPECT_EQ(newcomer(), "FkFsp");
    EXPECT_EQ(newcomer({.kinds = media::only(kind_t::audio)}), "Fs");
    EXPECT_EQ(newcomer({.at_key = false}), "");
    EXPECT_EQ(read(), "FkFspkspksp");
    EXPECT_EQ(stream_->status().refused, 1U);
}

TEST_F(Stream, HoldsTwoSecondsTheGroupAndWhatIsReserved) {
    make();
    media::cursor recorder;
    ASSERT_EQ(recorder.open(*stream_, {.reserve = 20 * second}), 1);
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    for (int i = 0; i < 10; ++i) {
        key();
        clock_now += second;
    }
    EXPECT_EQ(stream_->status().held, 10U);
    EXPECT_EQ(read(recorder), "Fkkkkkkkkkk");
    key();
    // The recorder has read; the other one is behind what is held now.
    EXPECT_EQ(read(), "LFk");
    EXPECT_EQ(stream_->status().held, 2U);
}

TEST_F(Stream, GroupBeyondABoundLosesItsKey) {
    struct {
        media::limits_t limits;
        uint64_t step;
    } const cases[] = {{{.frames = 16}, 1}, {{.bytes = 100}, 1}, {{.time = 3 * second}, second}};
    for (const auto& [limits, step] : cases) {
        make(limits);
        ASSERT_EQ(cursor_.open(*stream_, {}), 1);
        key();
        for (int i = 0; i < 20; ++i) {
            clock_now += step;
            EXPECT_EQ(picture(), 1);
        }
        EXPECT_EQ(stream_->status().key, 0);
        EXPECT_LE(stream_->status().held, 16U);
        EXPECT_LE(stream_->status().held_bytes, limits.bytes);
        EXPECT_EQ(newcomer(), "");
        EXPECT_EQ(read(), "L");
        picture();
        EXPECT_EQ(read(), "");  // up to the next key
        key();
        picture();
        EXPECT_EQ(read(), "Fkp");
        cursor_.close();
        media::stream::drop(std::exchange(stream_, nullptr));
    }
}

TEST_F(Stream, KeyPicturesCarryTheParameterSetsThatAreKnown) {
    make();
    EXPECT_EQ(push(av::fcc_h264, idr, true), 0);  // none are known
    EXPECT_EQ(stream_->ready(), 0);
    ASSERT_EQ(stream_->declare(kind_t::video, {.fcc = av::fcc_h264}), 1);
    EXPECT_EQ(stream_->ready(), 0);
    key();
    EXPECT_EQ(stream_->ready(), 1);
    EXPECT_EQ(push(av::fcc_h264, idr, true), 1);
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    media::entry_t entry;
    ASSERT_EQ(cursor_.next(entry), read_t::format);
    EXPECT_EQ(entry.format->generation, 2U);
    EXPECT_EQ(std::string(entry.format->config.data, entry.format->config.data + entry.format->config.size),
              std::string(std::begin(sps_pps), std::end(sps_pps)));
    ASSERT_EQ(cursor_.next(entry), read_t::frame);
    EXPECT_EQ(entry.frame.size, sizeof sps_pps + sizeof idr);
    EXPECT_EQ(entry.frame.data[4], 0x67);
}

TEST_F(Stream, ADeclaredFormatIsThatOfItsFrames) {
    make();
    constexpr uint8_t short_codes[] = {0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 1, 0x68, 0xce, 0x3c, 0x80};
    const std::vector<uint8_t> config(std::begin(short_codes), std::end(short_codes));
    const buffer_t told{const_cast<uint8_t*>(config.data()), static_cast<uint32_t>(config.size())};
    ASSERT_EQ(stream_->declare(kind_t::video, {.fcc = av::fcc_h264, .config = told}), 1);
    EXPECT_EQ(stream_->ready(), 1);
    key();
    ASSERT_EQ(stream_->declare(kind_t::video, {.fcc = av::fcc_h264}), 1);  // the source came back
    EXPECT_EQ(stream_->ready(), 1);
    media::format_t format;
    ASSERT_EQ(stream_->format(kind_t::video, &format, nullptr), 1);
    EXPECT_EQ(format.generation, 1U);
}

TEST_F(Stream, ChangeOfFormatIsToldInOrder) {
    make();
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    block();
    ASSERT_EQ(stream_->declare(kind_t::audio, {.fcc = av::fcc_pcmu, .rate = 16000, .channels = 1}), 1);
    block();
    EXPECT_EQ(read(), "FsFs");
    EXPECT_EQ(stream_->declare(kind_t::audio, {.fcc = av::fcc_h264}), 0);
    EXPECT_EQ(push(av::fcc_pcma, sound, true), 0);  // not the format of the track
}

TEST_F(Stream, GapAndEndAreToldWhereTheyAre) {
    make();
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    key();
    stream_->gap();
    EXPECT_EQ(picture(), 0);
    EXPECT_EQ(read(), "Fk");
    EXPECT_EQ(newcomer(), "");  // what was before it is not the present
    block();
    key();
    stream_->end();
    EXPECT_EQ(key(), 0);
    EXPECT_EQ(read(), "GFskE");
}

TEST_F(Stream, MediaTimeRunsOnWhereTheSourceJumps) {
    make();
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    struct {
        int64_t step;       ///< of the source's time
        uint64_t passes;    ///< between the pushes
        uint64_t expected;  ///< step of the media time
    } const cases[] = {{40'000, 40'000, 40'000}, {-3600 * int64_t{second}, 40'000, 40'000},
                       {40'000, 40'000, 40'000}, {3600 * int64_t{second}, 40'000, 40'000},
                       {second, 5'000, second},  // a burst
                       {-20'000, 20'000, 0}};    // out of order
    uint64_t time = 5000 * second;
    uint64_t last = time;
    push(av::fcc_pcmu, sound, true, time);
    media::entry_t entry;
    cursor_.next(entry);
    cursor_.next(entry);
    for (const auto& [step, passes, expected] : cases) {
        clock_now += passes;
        time += static_cast<uint64_t>(step);
        push(av::fcc_pcmu, sound, true, time);
        ASSERT_EQ(cursor_.next(entry), read_t::frame);
        EXPECT_EQ(entry.frame.time - last, expected) << step;
        last = entry.frame.time;
    }
}

TEST_F(Stream, SkipGoesOnWithAKeyPicture) {
    make();
    key();
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    EXPECT_EQ(read(), "Fk");
    picture();
    cursor_.skip();
    picture();
    EXPECT_EQ(read(), "");
    key();
    key();
    picture();
    EXPECT_EQ(cursor_.behind(), 3U);
    cursor_.skip();
    EXPECT_EQ(read(), "kp");
}

TEST_F(Stream, DemandIsToldWhenReadersComeAndStayAway) {
    make();
    std::string told;
    stream_->on_demand([](void* arg, int yes) { *static_cast<std::string*>(arg) += yes ? '+' : '-'; }, &told,
                       5 * second);
    const auto settle = [&] { return media::settle_demand(*stream_, clock_now); };
    settle();
    EXPECT_EQ(told, "");
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(cursor_.open(*stream_, {}), 1);
        settle();
        clock_now += 10 * second;
        settle();
        cursor_.close();
        media::cursor uncounted;
        ASSERT_EQ(uncounted.open(*stream_, {.counts = false}), 1);
        EXPECT_EQ(settle(), clock_now + 5 * second);
        clock_now += 4 * second;
        settle();
    }
    EXPECT_EQ(told, "+");
    clock_now += second;
    settle();
    EXPECT_EQ(told, "+-");
}

TEST_F(Stream, ReadingAllocatesNothingAndPayloadsAreShared) {
    make();
    ASSERT_EQ(cursor_.open(*stream_, {}), 1);
    key();
    read();
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
    make();
    constexpr int pictures = 500;
    constexpr int readers = 3;
    std::atomic<int> ready = 0;
    const auto read_all = [&](uint64_t reserve) {
        media::cursor own;
        EXPECT_EQ(own.open(*stream_, {.reserve = reserve}), 1);
        ++ready;
        int seen = 0;
        media::entry_t entry;
        for (read_t found = read_t::nothing; found != read_t::ended;) {
            found = own.wait(entry, 1000);
            seen += found == read_t::frame;
            EXPECT_NE(found, read_t::lost);
        }
        EXPECT_EQ(seen, pictures);
    };
    {
        const test::side_thread a([&] { read_all(30 * second); });
        const test::side_thread b([&] { read_all(30 * second); });
        const test::side_thread c([&] { read_all(30 * second); });
        const test::side_thread coming([&] {
            std::atomic<int> woken = 0;
            for (int i = 0; i < 200; ++i) {
                media::cursor one;
                one.open(*stream_, {});
                one.told([](void* arg) { ++*static_cast<std::atomic<int>*>(arg); }, &woken);
                read(one);
            }
        });
        while (ready != readers)
            core_sleep(1);
        for (int i = 0; i < pictures; ++i)
            i % 25 == 0 ? key() : picture();
        stream_->end();
    }
}

}  // namespace
