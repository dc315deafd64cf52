#include "core/log.h"

#include "log/sinks.h"
#include "support/files.h"
#include "support/held.h"
#include "support/scratch.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/time.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

/// A sink that keeps what it gets as "log:text", and may do something for each line.
struct keeper {
    explicit keeper(const char* logs) : sink(core_log_sink_add(logs, write, this)) {}
    keeper(const keeper&) = delete;
    keeper& operator=(const keeper&) = delete;
    ~keeper() { core_log_sink_rem(sink); }

    static void write(void* arg, const log_line_t* line) {
        auto& self = *static_cast<keeper*>(arg);
        self.lines.push_back(std::string(line->log) + ':' + line->text);
        self.last = *line;
        if (self.then) self.then();
    }

    std::vector<std::string> lines;
    log_line_t last{};
    std::function<void()> then;
    uint32_t sink;  // last: lines may come as soon as it is set
};

using lines_t = std::vector<std::string>;

using log_handle = test::held<log_ctx, core_log_free>;

log_handle open_log(const char* name) { return log_handle(core_log_create(CORE_HERE, name)); }

TEST(Log, SinksChooseLogsByNameAndTheSameNameIsOneLog) {
    const log_handle before = open_log("rtp");
    const struct {
        const char* logs;
        lines_t lines;
    } cases[] = {{"*", {"rtp:1", "rtsp:2", "rtsp:3", "error:4", "console:5"}},
                 {"rtp,console", {"rtp:1", "console:5"}},
                 {"rtsp", {"rtsp:2", "rtsp:3"}},
                 {"rt,rtspx", {}},
                 {",error,", {"error:4"}}};
    core_time_set_clock([] { return uint64_t{42}; });
    for (const auto& c : cases) {
        const keeper sink(c.logs);
        const log_handle after = open_log("rtsp");  // made after the sink
        open_log("rtsp");                           // and once more
        core_log_print(before.get(), "%d", 1);
        core_log_print(after.get(), "%d", 2);
        core_log_print(open_log("rtsp").get(), "%d", 3);
        core_log_err("%d", 4);
        core_con_printf(6, "%d", 5);
        EXPECT_EQ(sink.lines, c.lines);
        if (c.lines.empty() || c.lines.back() != "console:5") continue;
        EXPECT_EQ(sink.last.time, 42U);
        EXPECT_EQ(sink.last.color, 6);
    }
    core_time_set_clock(nullptr);
    EXPECT_EQ(core_log_wanted(before.get()), 0);
}

TEST(Log, LongLinesAreCutBetweenCharacters) {
    const log_handle log = open_log("long");
    const keeper sink("long");
    constexpr size_t limit = 16 * 1024;
    const struct {
        std::string text;
        size_t length;
    } cases[] = {{std::string(limit, 'a') + "\r\n", limit},
                 {std::string(limit + 100, 'a'), limit},
                 {std::string(limit - 1, 'a') + "é", limit - 1},
                 {std::string(limit - 3, 'a') + "😀", limit - 3},
                 {std::string(limit - 4, 'a') + "😀", limit},
                 {std::string(limit + 100, '\x80'), limit},
                 {"two\nlines\n\n", 9},
                 {"\n", 0}};
    for (const auto& c : cases) {
        core_log_print(log.get(), "%s", c.text.c_str());
        EXPECT_EQ(sink.lines.back(), "long:" + c.text.substr(0, c.length));
    }
}

TEST(Log, SinkMayPrintAndDoesNotGetItsOwnLines) {
    const log_handle log = open_log("chatty");
    keeper first("*");
    keeper second("*");
    first.then = [&log] { core_log_print(log.get(), "from first"); };
    second.then = [] {
        const log_handle passing = open_log("passing");
        core_log_print(passing.get(), "from second");
    };
    core_log_print(log.get(), "start");
    // Each line a sink causes goes to the sinks that have no part in it.
    EXPECT_EQ(first.lines, (lines_t{"chatty:start", "passing:from second"}));
    EXPECT_EQ(second.lines, (lines_t{"chatty:start", "chatty:from first"}));
}

TEST(Log, RemovedSinkIsNeitherRunningNorCalledAgain) {
    const log_handle log = open_log("slow");
    for (const bool leaves : {false, true}) {
        keeper sink("slow");
        std::unique_ptr<keeper> successor;
        const test::event entered;
        const test::event never;
        std::atomic<bool> finished = false;
        sink.then = [&] {
            if (leaves) core_log_sink_rem(sink.sink);
            if (leaves) successor = std::make_unique<keeper>("slow");
            entered.set();
            never.wait(20);  // time for the removal to come too early
            finished = true;
        };
        const test::side_thread printer([&log] { core_log_print(log.get(), "one"); });
        ASSERT_TRUE(entered.wait());
        core_log_sink_rem(sink.sink);
        EXPECT_TRUE(finished) << leaves;
        core_log_print(log.get(), "two");
        EXPECT_EQ(sink.lines, lines_t{"slow:one"});
        EXPECT_TRUE(!leaves || successor->lines == lines_t{"slow:two"});
    }
}

TEST(Log, ThirtyTwoSinksAndNumbersThatAreNotUsedAgain) {
    std::vector<uint32_t> sinks;
    while (const uint32_t sink = core_log_sink_add("many", keeper::write, nullptr))
        sinks.push_back(sink);
    EXPECT_EQ(sinks.size(), 32U);
    const uint32_t old = sinks.back();
    core_log_sink_rem(old);
    sinks.back() = core_log_sink_add("many", keeper::write, nullptr);
    core_log_sink_rem(old);  // takes nobody else's sink away
    EXPECT_EQ(core_log_sink_add("many", keeper::write, nullptr), 0U);
    for (const uint32_t sink : sinks)
        core_log_sink_rem(sink);
}

TEST(Log, EverythingAtOnceFromManyThreads) {
    std::atomic<uint64_t> lines = 0;
    // Sinks of two threads print to logs that the other one wants: no ring of waiting.
    const auto write = [](void* arg, const log_line_t*) {
        if (++*static_cast<std::atomic<uint64_t>*>(arg) % 5 == 0) core_log_err("%s", "again");
    };
    test::on_four_threads([&] {
        for (int round = 0; round < 200; ++round) {
            const log_handle log = open_log(round % 3 ? "shared" : "other");
            const uint32_t sink = core_log_sink_add("shared,error", write, &lines);
            core_log_print(log.get(), "%d", round);
            core_log_sink_rem(sink);
        }
    });
    EXPECT_GE(lines, 400U);
}

TEST(Log, TerminalShowsWhatAPeerSentWithoutObeyingIt) {
    const test::scratch dir;
    const std::string path = dir / "shown";
    const std::string head = "1970-01-01T00:00:00.000Z [graph] ";
    const struct {
        const char* text;
        bool colour;
        int code;
        std::string shown;
    } cases[] = {{"plain é\t😀", false, 1, head + "plain é\t😀\n"},
                 {"\x1b]0;title\x07", false, 0, head + "\\x1b]0;title\\x07\n"},
                 {"\xc2\x9f\xc2\xa0", false, 0, head + "\\xc2\\x9f\xc2\xa0\n"},
                 {"\x9b;\xff\xc3", false, 0, head + "\\x9b;\\xff\\xc3\n"},
                 {"one\r\n1970 forged", false, 0, head + "one\n    1970 forged\n"},
                 {"blue", true, 4, "\x1b[34m" + head + "blue\x1b[0m\n"},
                 {"odd", true, 5, head + "odd\n"},
                 {"none", true, -1, head + "none\n"}};
    for (const auto& c : cases) {
        core::log::terminal_t terminal{std::fopen(path.c_str(), "wb"), c.colour};
        const log_line_t line{0, "graph", c.text, c.code};
        core::log::write_terminal(&terminal, &line);
        std::fclose(terminal.out);
        EXPECT_EQ(test::read_file(path), c.shown);
    }
}

TEST(Log, FileSinkAppendsWhatPassesForNothingElse) {
    const test::scratch dir;
    const std::string path = dir / "log";
    const std::string big(16 * 1024, 'x');
    core_time_set_clock([] { return uint64_t{1'448'466'450'042'000}; });
    const log_handle log = open_log("disk");
    for (int i = 0; i < 2; ++i) {
        const uint32_t sink = core_log_sink_file("disk", path.c_str());
        core_log_print(log.get(), "a\x1b\n%s\n", "2015-11-25T15:47:30.042Z [disk] forged");
        core_log_print(log.get(), "%s", big.c_str());
        core_log_sink_rem(sink);
    }
    core_time_set_clock(nullptr);
    const std::string head = "2015-11-25T15:47:30.042Z [disk] ";
    const std::string once = head + "a\\x1b\n    " + head + "forged\n" + head + big + "\n";
    EXPECT_EQ(test::read_file(path), once + once);
    EXPECT_EQ(core_log_sink_file("disk", (path + "/log").c_str()), 0U);
}

}  // namespace
