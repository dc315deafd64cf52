#include "media/watcher.h"

#include "support/sockets.h"

#include "avc/fcc.h"
#include "core/thread.h"
#include "core/time.h"
#include "media/rtsp_service.h"
#include "media/station.h"

#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <string>
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
constexpr char report[] = R"({"objects":[{"id":1}]})";

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

    void push(uint32_t fcc, const void* data, size_t size) {
        av::frame_t frame{};
        frame.fcc = fcc;
        frame.time = time_now();
        frame.data = static_cast<const uint8_t*>(data);
        frame.size = static_cast<uint32_t>(size);
        frame.key = 1;
        live_->push(frame);
    }
    void push_all() {
        push(av::fcc_h264, key_picture, sizeof key_picture);
        push(av::fcc_pcmu, sound, sizeof sound);
        push(av::fcc_univ, report, sizeof report - 1);
    }

    void start_source() {
        media::failure_t error;
        ASSERT_EQ(source_.start(&error), 1) << error.text;
        push_all();
        url_ = "rtsp://127.0.0.1:" + std::to_string(service_->port()) + "/live";
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

TEST_F(Watcher, ASourceThatDiesAndReturnsLeavesNothingBehind) {
    start_source();
    media::watcher watcher(url_.c_str(), {.transport = transport_t::udp, .nt = nt_});
    watcher.into(*into_);
    ASSERT_EQ(watcher.start(), 1);
    constexpr int warm = 5;
    constexpr int rounds = 100;
    size_t blocks = 0;
    size_t sockets = 0;
    for (int round = 0; round < rounds; ++round) {
        const uint64_t had = into_->status().pushed;
        ASSERT_TRUE(until([&] { return into_->status().pushed > had + 3; })) << round;
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
}

TEST_F(Watcher, DeclaresFormatsTellsGapsAndNeverEndsTheStream) {
    start_source();
    media::cursor cursor;
    ASSERT_EQ(cursor.open(*into_, {}), 1);
    for (const auto way : {transport_t::tcp, transport_t::http}) {
        SCOPED_TRACE(static_cast<int>(way));
        media::watcher watcher(url_.c_str(), {.transport = way});
        watcher.into(*into_);
        ASSERT_EQ(watcher.start(), 1);
        std::string found;
        bool utc = false;
        media::entry_t entry;
        const auto read = [&] {
            for (read_t what = cursor.next(entry); what != read_t::nothing; what = cursor.next(entry)) {
                if (what == read_t::gap) found += 'G';
                if (what == read_t::ended) found += 'E';
                if (what != read_t::frame) continue;
                found += entry.kind == kind_t::video ? 'v' : entry.kind == kind_t::audio ? 'a' : 'm';
                utc = utc || entry.utc != 0;
                if (entry.kind == kind_t::meta) {
                    EXPECT_EQ(std::string(entry.frame.data, entry.frame.data + entry.frame.size), report);
                }
            }
            return found.find('v') != found.npos && found.find('a') != found.npos && found.find('m') != found.npos;
        };
        EXPECT_TRUE(until(read)) << found;
        EXPECT_TRUE(utc);
        EXPECT_EQ(found.find('E'), found.npos);
        EXPECT_EQ(found.front() == 'G', way == transport_t::http) << "behind the first watcher there is a gap";
        watcher.stop();
        EXPECT_EQ(watcher.status().state, state_t::ended);
        EXPECT_EQ(watcher.status().outcome, outcome_t::ok);
    }
    media::format_t format;
    ASSERT_EQ(into_->format(kind_t::audio, &format, nullptr), 1);
    EXPECT_EQ(format.rate, 8000U);
    EXPECT_EQ(format.channels, 1U);
    ASSERT_EQ(into_->format(kind_t::video, &format, nullptr), 1);
    EXPECT_EQ(format.generation, 2U) << "of the first picture; the second watcher changes nothing";
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
            static_cast<taken_t*>(arg)->events += "ctprfPE"[event.what];
            if (event.what == media::watch_event_t::tracks) {
                EXPECT_EQ(event.format_count, 1U);
                EXPECT_EQ(event.formats[0].fcc, av::fcc_pcmu);
            }
        },
        &taken);
    for (const size_t frames : {5U, 10U}) {  // it can be started again
        ASSERT_EQ(watcher.start(), 1);
        ASSERT_TRUE(until([&] { return watcher.wait(0) != 0; }));
        EXPECT_EQ(taken.frames.size(), frames);
    }
    EXPECT_EQ(taken.events, "ctpEctpE");
    EXPECT_EQ(watcher.status().outcome, outcome_t::ok);
    EXPECT_EQ(watcher.status().track_count, 1U);
    EXPECT_EQ(watcher.status().tracks[0].frames, 5U);
    for (size_t i = 1; i < 5; ++i)
        EXPECT_EQ(taken.frames[i].frame.time - taken.frames[0].frame.time,
                  static_cast<uint64_t>(taken.frames[i].media_time - taken.frames[0].media_time));
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
    struct told_t {
        media::watcher* of;
        uint32_t pause;
        outcome_t outcome;
    };
    for (const auto& each : cases) {
        SCOPED_TRACE(each.url);
        media::watcher watcher(each.url.c_str(), {.reconnect = 2, .insist = each.insist, .nt = nt_});
        told_t told{&watcher, 0, outcome_t::ok};
        watcher.on_event(
            [](void* arg, const media::watch_event_t& event) {
                auto* to = static_cast<told_t*>(arg);
                if (event.pause) to->pause = event.pause;
                if (event.pause == 30) to->of->end();
                if (to->outcome == outcome_t::ok) to->outcome = event.outcome;
            },
            &told);
        ASSERT_EQ(watcher.start(), 1);
        EXPECT_TRUE(until([&] {
            if (watcher.status().state == state_t::pausing) jump();
            return watcher.wait(1) != 0;
        }));
        EXPECT_EQ(watcher.status().attempts, each.attempts);
        EXPECT_EQ(told.outcome, each.outcome) << watcher.status().text;
        EXPECT_EQ(told.pause, each.pause);
    }
    for (const char* none : {"", "http://h/x", "rtsp://", "rtsp://h:0/x", "rtsp://u:p@[::1]/x"}) {
        media::watcher watcher(none);
        media::failure_t error;
        EXPECT_EQ(watcher.start(&error), 0) << none;
        EXPECT_STRNE(error.text, "");
    }
}

}  // namespace
