// Threads, events, locks and time; logs; the profile bus.
#include "log/sinks.h"
#include "support/files.h"
#include "support/log_keeper.h"
#include "support/scratch.h"
#include "support/threads.h"

#include "core/log.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/thread.h"
#include "core/time.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>

namespace {

TEST(Thread, CancelEndsASleepAtOnceAndStopWaitsForTheEnd) {
    struct state_t {
        test::event slept;
        std::atomic<int> hooks = 0, ends = 0;
    } state;
    const auto body = [](void* arg, thread_ctx* self) {
        auto& s = *static_cast<state_t*>(arg);
        EXPECT_EQ(core_thread_sleep(self, 1), 0);
        s.slept.set();
        EXPECT_EQ(core_thread_sleep(self, 60'000), 1);
        core_sleep(2);
        s.ends += core_thread_iscancel(self);
    };
    const auto hook = [](void* arg, thread_ctx*) { ++static_cast<state_t*>(arg)->hooks; };
    thread_ctx* thread = core_thread_start(&state, body, hook, CORE_HERE);
    ASSERT_TRUE(state.slept.wait());
    const uint64_t start = core_timer();
    core_thread_cancel(thread);
    core_thread_stop(thread);
    EXPECT_LT(core_timer() - start, 50'000'000U);
    EXPECT_TRUE(state.ends == 1 && state.hooks == 1);
}

TEST(Thread, BodyMayStopItsOwnThread) {
    const auto body = [](void* arg, thread_ctx* self) {
        thread_ctx* handle = self;
        core_thread_stop(handle);
        core_thread_setname(self, "leaving, with a name longer than the system holds");
        static_cast<test::event*>(arg)->set();
    };
    test::event done;
    const size_t held = core_mem_blocks();
    for (int i = 0; i < 50; ++i) {
        core_thread_start(&done, body, nullptr, CORE_HERE);
        ASSERT_TRUE(done.wait());
    }
    while (core_mem_blocks() > held)  // each handle is released as its body returns
        core_sleep(0);
}

TEST(Event, SetTwiceReleasesOneWait) {
    const test::event event;
    event.set();
    event.set();
    EXPECT_TRUE(event.wait(0));
    const uint64_t start = core_timer();
    EXPECT_FALSE(event.wait(20));
    EXPECT_GE(core_timer() - start, 20'000U);
}

TEST(Time, NowNeverGoesBackwards) {
    EXPECT_NEAR(static_cast<double>(time_now()), static_cast<double>(std::time(nullptr)) * 1e6, 3e6);
    static uint64_t shown;
    core_time_set_clock([] { return shown; });
    for (const uint64_t clock : {1000, 400, 1001}) {
        shown = clock;
        EXPECT_EQ(time_now(), std::max<uint64_t>(clock, 1000));
    }
    core_time_set_clock(nullptr);
}

TEST(Time, IsFormattedAndCutToTheBuffer) {
    constexpr uint64_t moment = 1'448'466'450'042'999;
    EXPECT_STREQ(core::owned_text(core_str_from_time(moment, "%a %d %s%%q%q%", CORE_HERE)).get(), "Wed 25 042%q%q%");
    char out[6] = "old";
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 6), 5U);
    EXPECT_STREQ(out, "2015-");
    EXPECT_EQ(time_format(moment, "%Y-%m", out, 1), 0U);
    EXPECT_EQ(time_to_FileTime(1), 116'444'736'000'000'010U);
}

TEST(Time, IsReadFromAStampAndFromNothingElse) {
    for (const std::string_view text : {"20151125T154730.042Z", "20151125T154730Z"}) {
        uint64_t read = 0;
        EXPECT_EQ(core_time_from_stamp(text.data(), static_cast<uint32_t>(text.size()), &read), 1);
        EXPECT_EQ(read, 1'448'466'450'000'000U + (text.size() > 16 ? 42'000U : 0U));
    }
    for (const std::string_view text : {"", "20151125T154730", "20151125 154730Z", "2015112-T154730Z",
                                        "19691231T235959Z", "20151125T154730.42Z", "20151125T154730.042Z "}) {
        uint64_t read = 1;
        EXPECT_EQ(core_time_from_stamp(text.data(), static_cast<uint32_t>(text.size()), &read), 0) << text;
        EXPECT_EQ(read, 1U);
    }
    EXPECT_EQ(core_time_from_stamp(nullptr, 3, nullptr), 0);
}

using keeper = test::log_keeper;
using log_handle = core::owned<log_ctx, core_log_free>;

log_handle open_log(const char* name) { return log_handle(core_log_create(CORE_HERE, name)); }

TEST(Log, SinksChooseLogsByNameAndTheSameNameIsOneLog) {
    const log_handle before = open_log("rtp");
    const std::pair<const char*, const char*> cases[] = {{"*", "rtp:1 rtsp:2 rtsp:3 error:4 console:5 "},
                                                         {"rtp,console", "rtp:1 console:5 "},
                                                         {"rt,rtspx", ""},
                                                         {",error,", "error:4 "}};
    for (const auto& [logs, lines] : cases) {
        const keeper sink(logs);
        const log_handle after = open_log("rtsp");
        core_log_print(before.get(), "%d", 1);
        core_log_print(after.get(), "%d", 2);
        core_log_print(open_log("rtsp").get(), "%d", 3);
        core_log_err("%d", 4);
        core_con_printf(6, "%d", 5);
        EXPECT_EQ(sink.lines, lines);
    }
    EXPECT_EQ(core_log_wanted(before.get()), 0);
}

TEST(Log, ConsoleIsTheErrorStreamUntilASinkTakesItOver) {
    const std::pair<const char*, bool> cases[] = {{"", true}, {"error", true}, {"console", false}, {"*", false}};
    for (const auto& [logs, shown] : cases) {
        keeper sink(logs);
        sink.then = [] { core_con_printf(1, "from a sink"); };
        testing::internal::CaptureStderr();
        core_con_printf(1, "%s", "port\x1b taken");
        const std::string text = testing::internal::GetCapturedStderr();
        EXPECT_EQ(text.ends_with(" [console] port\\x1b taken\n"), shown) << logs << text;
        EXPECT_EQ(text.empty(), !shown);
    }
}

TEST(Log, LongLinesAreCutBetweenCharacters) {
    const log_handle log = open_log("long");
    constexpr size_t limit = 16 * 1024;
    const std::pair<std::string, size_t> cases[] = {
        {std::string(limit, 'a') + "\r\n", limit},      {std::string(limit - 1, 'a') + "é", limit - 1},
        {std::string(limit - 3, 'a') + "😀", limit - 3}, {std::string(limit - 4, 'a') + "😀", limit},
        {std::string(limit + 100, '\x80'), limit},      {"two\nlines\n\n", 9}};
    for (const auto& [text, length] : cases) {
        const keeper sink("long");
        core_log_print(log.get(), "%s", text.c_str());
        EXPECT_EQ(sink.lines, "long:" + text.substr(0, length) + ' ');
    }
}

TEST(Log, SinkMayPrintAndDoesNotGetItsOwnLines) {
    const log_handle log = open_log("chatty");
    keeper first("*"), second("*");
    first.then = [&log] { core_log_print(log.get(), "first"); };
    second.then = [] { core_log_print(open_log("passing").get(), "second"); };
    core_log_print(log.get(), "start");
    // Each line a sink causes goes to the sinks that have no part in it.
    EXPECT_EQ(first.lines, "chatty:start passing:second ");
    EXPECT_EQ(second.lines, "chatty:start chatty:first ");
}

TEST(Log, RemovedSinkIsNeitherRunningNorCalledAgain) {
    const log_handle log = open_log("slow");
    for (const bool leaves : {false, true}) {
        keeper sink("slow");
        std::unique_ptr<keeper> successor;
        const test::event entered;
        std::atomic<bool> finished = false;
        sink.then = [&] {
            if (leaves) core_log_sink_rem(sink.sink);
            if (leaves) successor = std::make_unique<keeper>("slow");
            entered.set();
            test::event().wait(20);  // time for the removal to come too early
            finished = true;
        };
        const std::jthread printer([&log] { core_log_print(log.get(), "one"); });
        ASSERT_TRUE(entered.wait());
        core_log_sink_rem(sink.sink);
        EXPECT_TRUE(finished) << leaves;
        core_log_print(log.get(), "two");
        EXPECT_EQ(sink.lines, "slow:one ");
        EXPECT_TRUE(!leaves || successor->lines == "slow:two ");
    }
}

TEST(Log, ThirtyTwoSinksAndNumbersThatAreNotUsedAgain) {
    const auto add = [] { return core_log_sink_add("many", keeper::write, nullptr); };
    const uint32_t old = add();
    core_log_sink_rem(old);
    std::vector<uint32_t> sinks;
    while (const uint32_t sink = add())
        sinks.push_back(sink);
    EXPECT_EQ(sinks.size(), 32U);
    core_log_sink_rem(old);
    EXPECT_EQ(add(), 0U) << "nobody else's sink was taken away";
    for (const uint32_t sink : sinks)
        core_log_sink_rem(sink);
}

TEST(Log, FilesAndTerminalsShowWhatAPeerSentWithoutObeyingIt) {
    const test::scratch dir;
    const std::string path = dir / "log";
    const std::string head = "2015-11-25T15:47:30.042Z [disk] ";
    const std::string big(16 * 1024, 'x');
    const std::pair<std::string, std::string> cases[] = {{"plain é\t😀\xc2\xa0", "plain é\t😀\xc2\xa0"},
                                                         {"\x1b]0;title\x07\x7f", "\\x1b]0;title\\x07\\x7f"},
                                                         {"\xc2\x9f\x9b;\xff\xc3", "\\xc2\\x9f\\x9b;\\xff\\xc3"},
                                                         {"one\r\n" + head, "one\n    " + head},
                                                         {big, big}};
    core_time_set_clock([] { return uint64_t{1'448'466'450'042'000}; });
    const log_handle log = open_log("disk");
    std::string expected;
    for (const auto& [text, shown] : cases) {
        const uint32_t sink = core_log_sink_file("disk", path.c_str());
        core_log_print(log.get(), "%s", text.c_str());
        core_log_sink_rem(sink);
        expected += head + shown + '\n';
    }
    for (const auto& [colour, code] : {std::pair(true, 4), {false, 4}, {true, 5}, {true, -1}}) {
        core::log::terminal_t terminal{std::fopen(path.c_str(), "ab"), colour};
        const log_line_t line{time_now(), "disk", "a\x1b", code};
        core::log::write_terminal(&terminal, &line);
        std::fclose(terminal.out);
        expected += colour && code == 4 ? "\x1b[34m" + head + "a\\x1b\x1b[0m\n" : head + "a\\x1b\n";
    }
    core_time_set_clock(nullptr);
    EXPECT_EQ(test::read_file(path), expected);
    EXPECT_EQ(core_log_sink_file("disk", (path + "/log").c_str()), 0U);
}

using handle = core::owned<profile_ctx, profile_close>;

handle open(const char* name) { return handle(profile_open(name)); }

/// A subscriber that keeps what reaches it and may do something about it.
struct subscriber {
    using action = std::function<void(profile_ctx*, profile_event_t)>;
    explicit subscriber(const char* name, action acts = {})
        : then(std::move(acts)), profile(core_profile_open2(name, this, called, CORE_HERE)) {}

    static void called(void* arg, profile_ctx* profile, profile_event_t event, const param_t*) {
        auto& self = *static_cast<subscriber*>(arg);
        self.events += "paw"[event];
        if (self.then) self.then(profile, event);
    }

    std::string events;  ///< 'p' was put, 'a' was asked, 'w' was woken
    action then;
    handle profile;  // last: calls may come as soon as it is open
};

std::string ask(const handle& bus) {
    const core::owned_text answer(profile_request(bus.get(), nullptr, CORE_HERE));
    return answer ? answer.get() : "(none)";
}

/// The last data of "camera".
std::string taken() {
    const core::owned<param_t> data(profile_data("camera", CORE_HERE));
    std::string text;
    for (const param_t* p = data.get(); p && p->type != param_end; ++p) {
        const std::string value = p->type == param_integer ? std::to_string(p->integer) : p->text ? p->text : "(null)";
        text += p->key + ('=' + value) + ' ';
    }
    return data ? text : "(none)";
}

TEST(Profile, ReachesTheOtherSubscribersOfExactlyThatName) {
    const handle bus = open("camera");
    const subscriber a("camera"), b("camera"), other("Camera");
    EXPECT_EQ(core_archive_play(bus.get(), 1'448'466'450'042'000, -0.5), 2U);
    EXPECT_EQ(taken(), "command=play start=1448466450042000 speed=-0.5 ");
    EXPECT_EQ(core_archive_play(bus.get(), 0, -1e308), 2U);
    EXPECT_EQ(core_profile_wake(a.profile.get()), 1U) << "not what goes through its own handle";
    EXPECT_EQ(a.events + ',' + b.events + ',' + other.events, "pp,ppw,");
}

TEST(Profile, LastDataLivesAsLongAsTheName) {
    const std::string id(99, 'x');
    const param_t list[] = {{"state", "on"}, {"count", int64_t{-3}}, {"none", static_cast<const char*>(nullptr)}, {}};
    const param_t longer[] = {{"frame", static_cast<const void*>(&id)}, {"id", id.c_str()}, {}};
    for (int i = 0; i < 2; ++i) {
        const handle bus = open("camera");
        EXPECT_EQ(taken(), "(none)");
        for (const param_t* params : {list, longer, list}) {
            core_profile_put(bus.get(), params);
            EXPECT_EQ(taken(), params == list ? "state=on count=-3 none=(null) " : "id=" + id + ' ');
        }
    }
}

TEST(Profile, FirstAnswerIsTheAnswerAlsoOfARequestWithinARequest) {
    const handle bus = open("camera"), clock_bus = open("clock");
    const subscriber silent("camera");
    // "camera" asks "clock", whose subscriber puts to "camera" before it answers.
    const subscriber camera("camera", [&](profile_ctx* profile, profile_event_t event) {
        core_profile_answer(profile, event == profile_ask ? "draft" : "nobody asked");
        if (event == profile_ask) core_profile_answer(profile, ("camera at " + ask(clock_bus)).c_str());
    });
    const subscriber late("camera");
    const subscriber clock("clock", [&](profile_ctx* profile, profile_event_t) {
        core_profile_put(bus.get(), nullptr);
        core_profile_answer(profile, "noon");
    });
    EXPECT_EQ(ask(bus), "camera at noon");
    EXPECT_EQ(silent.events + ',' + camera.events + ',' + late.events, "ap,ap,p");
}

TEST(Profile, EndlessRecursionEndsAtSixteen) {
    const handle bus = open("camera");
    const subscriber echo("camera", [&](profile_ctx*, profile_event_t) { core_profile_put(bus.get(), nullptr); });
    core_profile_put(bus.get(), nullptr);
    EXPECT_EQ(echo.events.size(), 16U);
}

TEST(Profile, CallbackMayLeaveAndCloseAndOpenOthers) {
    handle bus = open("camera");
    subscriber first("camera"), second("camera"), third("camera");
    std::unique_ptr<subscriber> joined;
    first.then = [&](profile_ctx*, profile_event_t) {
        first.profile.reset();
        second.profile.reset();
        bus.reset();  // through which the put came
        joined = std::make_unique<subscriber>("camera");
    };
    EXPECT_EQ(core_profile_put(bus.get(), nullptr), 2U) << "the first and the third";
    EXPECT_EQ(joined->events, "") << "came during the put";
    EXPECT_EQ(core_profile_put(third.profile.get(), nullptr), 1U);
    EXPECT_EQ(first.events + ',' + second.events + ',' + joined->events, "p,,p");
}

TEST(Profile, AndLogsComeAndGoOnFourThreads) {
    test::on_four_threads([] {
        for (int i = 0; i < 150; ++i) {
            const keeper sink("shared");
            const subscriber prints("camera", [](auto...) { core_log_print(open_log("shared").get(), "asked"); });
            EXPECT_EQ(ask(open("camera")), "(none)");
        }
    });
}

TEST(Profile, RingOfCallbacksThatWaitForEachOtherIsBroken) {
    struct side_t {
        explicit side_t(const char* name) : self(name), bus(open(name)) {}
        subscriber self;
        handle bus;
        test::event entered;
        std::atomic<bool> ended = false;
    };
    for (const auto& [a_closes, b_closes] : {std::pair(false, false), {true, false}, {true, true}}) {
        side_t a("a"), b("b");
        std::atomic<uint32_t> reached = 0;
        // Both callbacks run at the same time on two threads; then each puts to the other one, or closes it.
        const auto meet = [&](side_t& own, side_t& other, bool closes, bool other_closes) {
            own.self.then = [&, closes, other_closes](profile_ctx*, profile_event_t) {
                if (own.self.events.size() > 1) return;  // what the other one has caused
                own.entered.set();
                ASSERT_TRUE(other.entered.wait());
                if (!closes) reached += core_profile_put(other.bus.get(), nullptr);
                if (closes) other.self.profile.reset();
                EXPECT_TRUE(!closes || other_closes || other.ended) << "a close waits for the callback";
                own.ended = true;
            };
        };
        meet(a, b, a_closes, b_closes);
        meet(b, a, b_closes, a_closes);
        {
            const std::jthread one([&a] { core_profile_put(a.bus.get(), nullptr); });
            core_profile_put(b.bus.get(), nullptr);
        }
        EXPECT_EQ(reached, a_closes ? 0U : 1U) << "one gave up, so the other came through";
    }
}

}  // namespace
