#include "media/watcher.h"

#include "support/frames.h"
#include "support/sockets.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace {

using media::kind_t;
using media::outcome_t;
using media::read_t;
using media::transport_t;
using state_t = media::watcher::state_t;

constexpr uint64_t second = 1'000'000;
constexpr uint8_t key_picture[] = {0, 0, 0, 1,    0x67, 0x42, 0xc0, 0x1e, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10, 0,
                                   0, 0, 1, 0x68, 0xce, 0x3c, 0x80, 0,    0,    0,    1,    0x65, 0x88, 2,    3};
constexpr uint8_t sound[160] = {};
constexpr uint8_t report[] = {'{', '}'};

/// Passes as the system's does, and jumps where a pause is to be over.
std::atomic<uint64_t> ahead;
uint64_t clock_now() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return ahead + static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

/// A source on a port of its own, that a watcher fetches into a stream.
class Watcher : public testing::Test {
protected:
    Watcher() {
        core_time_set_clock(clock_now);
        net::net_nt_start(nt_, CORE_HERE);
        live_ = source_.add_stream("live", {.frames = 16});
        service_ = media::rtsp_service({.port = 0});
        source_.add(service_);
        into_ = media::stream::create("fetched", {.frames = 16}, CORE_HERE);
    }
    ~Watcher() override {
        media::stream::drop(into_);
        source_.stop();
        net::net_nt_stop(nt_);
        core_time_set_clock(nullptr);
    }

    void push_all() {
        const std::pair<uint32_t, std::span<const uint8_t>> all[] = {
            {av::fcc_h264, key_picture}, {av::fcc_pcmu, sound}, {av::fcc_univ, report}};
        for (const auto& [fcc, bytes] : all) {
            av::frame_t frame = test::borrowed(fcc, bytes, time_now());
            frame.key = 1;
            live_->push(frame);
        }
    }
    void start_source() {
        media::failure_t error;
        ASSERT_EQ(source_.start(&error), 1) << error.text;
        push_all();
        url_ = "rtsp://localhost:" + std::to_string(service_->port()) + "/live";
    }

    /// Feeds the source until it holds.
    template <class Holds>
    bool until(Holds holds) {
        for (int i = 0; i < 5000 && !holds(); ++i) {
            push_all();
            core_sleep(2);
        }
        return holds();
    }
    /// Ends a pause.
    void jump() {
        ahead += 31 * second;
        net::net_nt_unlock(nt_);
    }

    net::nt_ctx* nt_ = nullptr;
    media::station source_;
    media::stream* live_ = nullptr;
    media::service* service_ = nullptr;
    media::stream* into_ = nullptr;
    std::string url_;
};

TEST_F(Watcher, ASourceThatDiesAndReturnsLeavesAGapAndNothingElse) {
    start_source();
    media::cursor cursor;
    ASSERT_EQ(cursor.open(*into_, {}), 1);
    std::set<std::string> found;
    const auto read = [&] {
        media::entry_t entry;
        for (read_t what; (what = cursor.next(entry)) != read_t::nothing;) {
            if (what == read_t::gap) found.insert("gap");
            if (what == read_t::ended) found.insert("ended");
            if (what != read_t::frame) continue;
            found.insert("frame " + std::to_string(static_cast<int>(entry.kind)));
            if (entry.utc) found.insert("utc");
        }
    };
    media::watcher watcher(url_.c_str(), {.transport = transport_t::udp, .nt = nt_});
    watcher.into(*into_);
    ASSERT_EQ(watcher.start(), 1);
    constexpr int warm = 5;
    constexpr int rounds = 100;
    size_t blocks = 0;
    size_t sockets = 0;
    for (int round = 0; round < rounds; ++round) {
        EXPECT_TRUE(round > 0 || !found.contains("gap"));
        ASSERT_TRUE(until([&, had = into_->status().pushed] { return read(), into_->status().pushed > had + 3; }));
        source_.stop();
        ASSERT_TRUE(until([&] { return watcher.status().state == state_t::pausing; })) << round;
        if (round == warm) {
            blocks = core_mem_blocks();
            sockets = test::open_sockets();
        }
        if (round + 1 == rounds) break;
        start_source();
        jump();
    }
    EXPECT_LE(core_mem_blocks(), blocks + 16);  // held frames may be more
    EXPECT_EQ(test::open_sockets(), sockets);
    EXPECT_EQ(watcher.status().outcome, outcome_t::connection_lost);
    EXPECT_GE(watcher.status().attempts, unsigned{rounds});
    EXPECT_EQ(found, (std::set<std::string>{"frame 0", "frame 1", "frame 2", "gap", "utc"}));
    watcher.stop();
    EXPECT_EQ(watcher.status().state, state_t::ended);
    media::format_t format;
    ASSERT_EQ(into_->format(kind_t::audio, &format, nullptr), 1);
    EXPECT_EQ(std::pair(format.rate, format.channels), std::pair(8000U, 1U));
    ASSERT_EQ(into_->format(kind_t::video, &format, nullptr), 1);
    EXPECT_EQ(format.generation, 1U) << "that of the description; who comes back changes nothing";
}

TEST_F(Watcher, FramesOfTheWantedKindsUntilTheCallbackHasEnough) {
    start_source();
    struct taken_t {
        std::vector<media::watched_t> frames;
        std::string events;
    } taken;
    media::watcher watcher(url_.c_str(), {.kinds = media::only(kind_t::audio)});
    watcher.on_frame(
        [](void* arg, const media::watched_t& got) {
            auto& frames = static_cast<taken_t*>(arg)->frames;
            frames.push_back(got);
            return frames.size() % 5 ? 1 : 0;
        },
        &taken);
    watcher.on_event(
        [](void* arg, const media::watch_event_t& event) {
            static_cast<taken_t*>(arg)->events += "ctpsrfPE"[event.what];
            EXPECT_TRUE(event.what != media::watch_event_t::tracks ||
                        (event.format_count == 1 && event.formats[0].fcc == av::fcc_pcmu));
        },
        &taken);
    for (const size_t frames : {5U, 10U}) {  // it can be started again
        ASSERT_EQ(watcher.start(), 1);
        ASSERT_TRUE(until([&] { return watcher.wait(0) != 0; }));
        EXPECT_EQ(taken.frames.size(), frames);
        EXPECT_EQ(watcher.status().tracks[0].frames, 5U);
    }
    EXPECT_EQ(taken.events, "ctpEctpE");
    EXPECT_EQ(watcher.status().outcome, outcome_t::ok);
    const auto passed = [&](size_t i) { return taken.frames[i].frame.time - taken.frames[0].frame.time; };
    for (size_t i = 1; i < 5; ++i)
        EXPECT_EQ(passed(i), static_cast<uint64_t>(taken.frames[i].media_time - taken.frames[0].media_time));
}

TEST_F(Watcher, RetriesWhatCanPassAndTellsWhatCannot) {
    start_source();
    const std::string nowhere = url_ + "/nowhere";
    const std::string unheard = "rtsp://127.0.0.1:" + std::to_string(test::free_port()) + "/x";
    const struct {
        std::string url;
        bool insist;
        uint32_t pause;     ///< the last one
        uint32_t attempts;  ///< with two that may follow
        outcome_t outcome;
    } cases[] = {
        {nowhere, false, 0, 1, outcome_t::not_found},
        {nowhere, true, 30, 1, outcome_t::not_found},
        {unheard, false, 2, 3, outcome_t::no_connection},
        {"rtsp://no.such.host.invalid/x", false, 2, 3, outcome_t::no_connection},
    };
    for (const auto& each : cases) {
        media::watcher watcher(each.url.c_str(), {.reconnect = 2, .insist = each.insist, .nt = nt_});
        std::pair<uint32_t, outcome_t> told;
        watcher.on_event(
            [](void* arg, const media::watch_event_t& event) {
                auto& [pause, outcome] = *static_cast<decltype(told)*>(arg);
                if (event.pause) pause = event.pause;
                if (outcome == outcome_t::ok) outcome = event.outcome;
            },
            &told);
        ASSERT_EQ(watcher.start(), 1);
        EXPECT_TRUE(until([&] {
            if (watcher.status().state == state_t::pausing) each.insist ? watcher.end() : jump();
            return watcher.wait(1) != 0;
        }));
        EXPECT_EQ(watcher.status().attempts, each.attempts) << each.url;
        EXPECT_EQ(told, std::pair(each.pause, each.outcome)) << each.url << watcher.status().text;
    }
    for (const char* none : {"", "ftp://h/x", "rtsp://", "http://u%0a@h/x", "rtsp://h:0/x", "rtsp://u:p@[::1]/x"})
        EXPECT_EQ(media::watcher(none).start(), 0) << none;
}

}  // namespace
