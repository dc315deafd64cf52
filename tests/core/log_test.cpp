#include "core/log.h"

#include "log/sinks.h"
#include "support/scratch.h"
#include "support/side_thread.h"

#include "core/memory.h"
#include "core/time.h"

#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
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
        if (self.then) self.then(self);
    }

    std::vector<std::string> lines;
    log_line_t last{};
    void (*then)(keeper& self) = nullptr;
    log_ctx* other = nullptr;
    uint32_t sink;  // last: lines may come as soon as it is set
};

using lines_t = std::vector<std::string>;

struct log_handle {
    explicit log_handle(const char* name) : log(core_log_create(CORE_HERE, name)) {}
    log_handle(const log_handle&) = delete;
    log_handle& operator=(const log_handle&) = delete;
    ~log_handle() { core_log_free(log); }
    log_ctx* log;
};

TEST(Log, LineNobodyWantsIsNotFormatted) {
    // %n is where formatting would leave a trace.
    log_handle quiet("quiet");
    log_handle loud("loud");
    int written = -1;
    core_log_print(quiet.log, "abc%n", &written);
    EXPECT_EQ(written, -1);
    keeper sink("loud");
    core_log_print(quiet.log, "abc%n", &written);
    EXPECT_EQ(written, -1);
    core_log_print(loud.log, "abc%n", &written);
    EXPECT_EQ(written, 3);
    core_log_print(nullptr, "abc%n", &written);
    EXPECT_EQ(sink.lines, lines_t{"loud:abc"});
}

TEST(Log, SameNameIsOneLog) {
    log_handle a("net");
    log_handle b("net");
    log_handle error("error");
    EXPECT_EQ(a.log, b.log);
    core_log_free(b.log);
    EXPECT_FALSE(b.log);
    keeper sink("net,error");
    core_log_print(a.log, "%d", 1);
    core_log_err("%s", "bad");
    core_log_print(error.log, "worse");
    EXPECT_EQ(sink.lines, (lines_t{"net:1", "error:bad", "error:worse"}));
}

TEST(Log, SinksChooseLogsByName) {
    log_handle before("rtp");
    const struct {
        const char* logs;
        bool rtp, rtsp;
    } cases[] = {{"*", true, true},          {"rtp", true, false}, {"rtsp,rtp", true, true},
                 {"rt,rtspx", false, false}, {"", false, false},   {",rtsp,", false, true}};
    for (const auto& c : cases) {
        keeper sink(c.logs);
        log_handle after("rtsp");  // made after the sink
        EXPECT_EQ(core_log_wanted(before.log), c.rtp) << c.logs;
        EXPECT_EQ(core_log_wanted(after.log), c.rtsp) << c.logs;
    }
    EXPECT_EQ(core_log_wanted(before.log), 0);
}

TEST(Log, ConsoleMessagesCarryTheirColourAndTime) {
    core_time_set_clock([] { return uint64_t{42}; });
    keeper sink("console");
    core_con_printf(2, "up %d", 3);
    core_time_set_clock(nullptr);
    EXPECT_EQ(sink.lines, lines_t{"console:up 3"});
    EXPECT_EQ(sink.last.color, 2);
    EXPECT_EQ(sink.last.time, 42U);
}

TEST(Log, LongLinesAreCutBetweenCharacters) {
    log_handle log("long");
    keeper sink("long");
    constexpr size_t limit = 16 * 1024;
    const struct {
        std::string text;
        size_t length;
    } cases[] = {
        {std::string(limit, 'a') + "\r\n", limit},
        {std::string(limit + 100, 'a'), limit},
        {std::string(limit - 1, 'a') + "é", limit - 1},
        {std::string(limit - 3, 'a') + "😀", limit - 3},
        {std::string(limit - 4, 'a') + "😀", limit},
        {std::string(limit + 100, '\x80'), limit},
        {"two\nlines\n\n", 9},
        {"\n", 0},
    };
    for (const auto& c : cases) {
        core_log_print(log.log, "%s", c.text.c_str());
        EXPECT_EQ(sink.lines.back(), "long:" + c.text.substr(0, c.length));
    }
}

TEST(Log, PrintingAllocatesNothing) {
    log_handle log("bare");
    int lines = 0;
    const uint32_t sink = core_log_sink_add(
        "*", [](void* arg, const log_line_t*) { ++*static_cast<int*>(arg); }, &lines);
    core_mem_set_fault([](size_t, const char*, int) { return true; });
    core_log_print(log.log, "%d", 1);
    core_log_err("%d", 2);
    EXPECT_EQ(core_log_create(CORE_HERE, "another"), nullptr);
    EXPECT_EQ(core_log_sink_add("*", keeper::write, nullptr), 0U);
    core_mem_set_fault(nullptr);
    EXPECT_EQ(lines, 2);
    core_log_sink_rem(sink);
}

TEST(Log, SinkMayPrintAndDoesNotGetItsOwnLines) {
    log_handle log("chatty");
    keeper first("*");
    keeper second("*");
    first.other = second.other = log.log;
    first.then = [](keeper& self) { core_log_print(self.other, "from first"); };
    second.then = [](keeper& self) { core_log_print(self.other, "from second"); };
    core_log_print(log.log, "start");
    // Each line a sink causes goes to the sinks that have no part in it.
    EXPECT_EQ(first.lines, (lines_t{"chatty:start", "chatty:from second"}));
    EXPECT_EQ(second.lines, (lines_t{"chatty:start", "chatty:from first"}));
}

TEST(Log, SinkMayFreeTheLogItHasJustPrintedTo) {
    log_handle log("outer");
    keeper first("outer");
    keeper second("inner");
    first.then = [](keeper&) {
        log_handle inner("inner");
        core_log_print(inner.log, "gone");
    };
    core_log_print(log.log, "go");
    EXPECT_EQ(second.lines, lines_t{"inner:gone"});
}

TEST(Log, SinkMayRemoveItselfAndAddOthersWhileItWrites) {
    log_handle log("self");
    static keeper* added;
    keeper sink("self");
    sink.then = [](keeper& self) {
        core_log_sink_rem(self.sink);
        added = new keeper("self");
    };
    core_log_print(log.log, "one");
    core_log_print(log.log, "two");
    EXPECT_EQ(sink.lines, lines_t{"self:one"});
    EXPECT_EQ(added->lines, lines_t{"self:two"});
    delete added;
}

TEST(Log, RemovedSinkIsNeitherRunningNorCalledAgain) {
    struct state_t {
        bool leaves = false;
        uint32_t sink = 0;
        test::event entered;
        test::event never;
        std::atomic<int> finished = 0;
    };
    const auto write = [](void* arg, const log_line_t*) {
        auto& s = *static_cast<state_t*>(arg);
        if (s.leaves) core_log_sink_rem(s.sink);
        s.entered.set();
        s.never.wait(20);  // time for the removal to come too early
        ++s.finished;
    };
    log_handle log("slow");
    for (const bool leaves : {false, true}) {
        state_t state;
        state.leaves = leaves;
        state.sink = core_log_sink_add("slow", write, &state);
        const test::side_thread printer([&log] { core_log_print(log.log, "line"); });
        ASSERT_TRUE(state.entered.wait());
        core_log_sink_rem(state.sink);
        EXPECT_EQ(state.finished, 1) << leaves;
        core_log_print(log.log, "line");
        EXPECT_EQ(state.finished, 1) << leaves;
    }
}

TEST(Log, ThirtyTwoSinksAndNumbersThatAreNotUsedAgain) {
    std::vector<uint32_t> sinks;
    while (const uint32_t sink = core_log_sink_add("many", keeper::write, nullptr))
        sinks.push_back(sink);
    EXPECT_EQ(sinks.size(), 32U);
    core_log_sink_rem(sinks.back());
    const uint32_t again = core_log_sink_add("many", keeper::write, nullptr);
    EXPECT_NE(again, sinks.back());
    core_log_sink_rem(sinks.back());  // an old number takes nobody else's sink away
    EXPECT_EQ(core_log_sink_add("many", keeper::write, nullptr), 0U);
    sinks.back() = again;
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
            log_handle log(round % 3 ? "shared" : "other");
            const uint32_t sink = core_log_sink_add("shared,error", write, &lines);
            core_log_print(log.log, "%d", round);
            core_log_sink_rem(sink);
        }
    });
    EXPECT_GE(lines, 400U);
}

std::string content(std::FILE* file) {
    std::string text(100'000, 0);
    std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return text;
}

TEST(Log, TerminalShowsWhatAPeerSentWithoutObeyingIt) {
    const struct {
        const char* text;
        bool colour;
        int code;
        std::string shown;
    } cases[] = {
        {"plain é\t😀", false, 1, "plain é\t😀"},
        {"\x1b]0;title\x07", false, 0, "\\x1b]0;title\\x07"},
        {"a\rb\x7f", false, 0, "a\\x0db\\x7f"},
        {"\xc2\x9b"
         "31m",
         false, 0, "\\xc2\\x9b31m"},
        {"\x9b"
         "31m\xff\xc3",
         false, 0, "\\x9b31m\\xff\\xc3"},
        {"one\n1970-01-01T00:00:00.000Z [graph] forged", false, 0, "one\n    1970-01-01T00:00:00.000Z [graph] forged"},
        {"red", true, 1, "red\x1b[0m"},
        {"odd", true, 77, "odd"},
        {"none", true, -1, "none"},
    };
    for (const auto& c : cases) {
        std::FILE* file = std::tmpfile();
        core::log::terminal_t terminal{file, c.colour};
        const log_line_t line{0, "graph", c.text, c.code};
        core::log::write_terminal(&terminal, &line);
        const std::string head = "1970-01-01T00:00:00.000Z [graph] ";
        EXPECT_EQ(content(file), (c.code == 1 && c.colour ? "\x1b[31m" : "") + head + c.shown + "\n");
        std::fclose(file);
    }
}

TEST(Log, FileSinkAppendsWhatPassesForNothingElse) {
    const test::scratch dir;
    const std::string path = dir / "log";
    log_handle log("disk");
    const std::string big(16 * 1024, 'x');
    core_time_set_clock([] { return uint64_t{1'448'466'450'042'000}; });
    for (int i = 0; i < 2; ++i) {
        const uint32_t sink = core_log_sink_file("disk", path.c_str());
        ASSERT_NE(sink, 0U);
        core_log_print(log.log, "a\x1b\r\n%s\n", "2015-11-25T15:47:30.042Z [disk] forged");
        core_log_print(log.log, "%s", big.c_str());
        core_log_sink_rem(sink);
    }
    core_time_set_clock(nullptr);
    std::ifstream in(path, std::ios::binary);
    const std::string head = "2015-11-25T15:47:30.042Z [disk] ";
    const std::string once = head + "a\\x1b\n    " + head + "forged\n" + head + big + "\n";
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), once + once);
    EXPECT_EQ(core_log_sink_file("disk", "/nonexistent/log"), 0U);
}

}  // namespace
