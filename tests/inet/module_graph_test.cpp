// Graphs with real modules: the example's "heartbeat", and a library that is none.
#include "support/fault.h"
#include "support/log_keeper.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/profile.h"
#include "inet/inet.h"
#include "inet/net_graph.h"
#include "inet/net_tab.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using graph_t = core::owned<net::Graph, net::Graph::destroy>;

std::string document(const char* track) {
    const net::cinfo_t__ node{"a", "b", "c", track, nullptr};
    const core::owned_text made(fish_archive_media(&node, "", CORE_HERE));
    return made.get();
}

/// What the modules say on one track, after the track's name.
class ear {
public:
    ear(const char* track, std::string& heard) : track_(track), heard_(heard) {
        const std::string name = std::string("a_b_c_") + track;
        profile_ = core_profile_open2(name.c_str(), this, on_profile, CORE_HERE);
    }
    ~ear() { profile_close(profile_); }
    ear(const ear&) = delete;
    ear& operator=(const ear&) = delete;

private:
    static void on_profile(void* arg, profile_ctx*, profile_event_t, const param_t* params) {
        auto& self = *static_cast<ear*>(arg);
        self.heard_ += self.track_ + ' ' + param_get_text(params, "text") + ' ';
    }

    std::string track_;
    std::string& heard_;
    profile_ctx* profile_;
};

/// Without the numbers of graph and node, which are those of the process, and the times.
std::string plain(const std::string& lines) {
    std::string out;
    for (size_t i = 0; i < lines.size(); ++i) {
        const bool digit = lines[i] >= '0' && lines[i] <= '9';
        if (!digit)
            out += lines[i];
        else if (out.empty() || out.back() != '#')
            out += '#';
    }
    return out;
}

TEST(Graph, DrivesItsModulesInOrder) {
    std::string heard;
    const ear first("one", heard);
    const ear second("two", heard);
    graph_t graph(net::Graph::create(CORE_HERE));
    const test::log_keeper log("graph");
    ASSERT_TRUE(graph->add("heartbeat", document("one").c_str()));
    ASSERT_TRUE(graph->add("heartbeat", document("two").c_str()));
    EXPECT_TRUE(graph->start());
    EXPECT_FALSE(graph->start()) << "all were started before";
    EXPECT_EQ(heard, "one started two started ");
    EXPECT_TRUE(graph->stop());
    EXPECT_TRUE(graph->stop()) << "there is nothing to stop";
    EXPECT_TRUE(graph->start()) << "a stopped node starts again";
    EXPECT_TRUE(graph->close());
    EXPECT_EQ(heard,
              "one started two started one stopped two stopped one started two started one stopped two stopped ");
    EXPECT_TRUE(graph->start()) << "no node is left";
    graph.reset();
    const std::string told = plain(log.lines);
    for (const char* line :
         {"graph:#: pid:# add 'heartbeat'\n{", "graph:#: pid:# open 'heartbeat' ",
          "graph:#: start { graph:#:   pid:#, start 'heartbeat' delay: #.#, return: # ",
          "graph:#: start } #, delay: #.# ",
          "graph:#: stop { graph:#:   pid:#, stop 'heartbeat' delay: #.#, return: # ", "graph:#: stop } delay: #.# ",
          "graph:#: close { graph:#:   pid:#, close 'heartbeat' delay #.# ", "graph:#: close } delay: #.# ",
          "graph:#: free "})
        EXPECT_NE(told.find(line), std::string::npos) << line << "\n" << told;
}

TEST(Graph, TellsOfNodesThatFail) {
    std::string heard;
    const ear second("two", heard);
    const graph_t graph(net::Graph::create(CORE_HERE));
    ASSERT_TRUE(graph->add("heartbeat", document("deaf").c_str()));
    ASSERT_TRUE(graph->add("heartbeat", document("two").c_str()));
    const test::log_keeper errors("error");
    const test::log_keeper console("console");
    EXPECT_FALSE(graph->start());
    EXPECT_EQ(heard, "two started ") << "the others go on";
    EXPECT_EQ(errors.lines, "error:module 'heartbeat' cannot start: -41 source not response ");
    EXPECT_FALSE(graph->stop()) << "it counts as started";
}

TEST(Graph, DropsWhatIsNoModule) {
    struct row_t {
        const char* module;
        const char* json;
        const char* error;
    };
    const row_t rows[] = {
        {nullptr, "{}", ""},
        {"heartbeat", nullptr, ""},
        {"heartbeat", "{", "error:module 'heartbeat' refuses its settings: 1:2: name expected "},
        {"no-such", "{}", "error:module 'no-such' cannot be loaded; it was looked for in "},
        {INET_MODULE_FIXTURE, "{}", "error:module '" INET_MODULE_FIXTURE "' cannot be used: it has no plugin_exec "}};
    const graph_t graph(net::Graph::create(CORE_HERE));
    for (const row_t& row : rows) {
        const test::log_keeper errors("error");
        const test::log_keeper console("console");
        const test::log_keeper log("graph");
        EXPECT_FALSE(graph->add(row.module, row.json));
        EXPECT_TRUE(*row.error ? errors.lines.starts_with(row.error) : errors.lines.empty()) << errors.lines;
        const std::string told = plain(log.lines);
        const char* said = !row.module ? "#: error: unknown module name "
                           : row.json  ? "failed "
                                       : "#: heartbeat create failed, no js ";
        EXPECT_TRUE(told.ends_with(said)) << told;
    }
    EXPECT_TRUE(graph->start()) << "the list is empty";
    EXPECT_STREQ(net::Graph::strerr(-4), "");
    EXPECT_STREQ(net::Graph::strerr(0), "");
    EXPECT_STREQ(net::Graph::strerr(-45), "archive is missing");
}

/// A local archive that holds one source.
void on_archive(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params) {
    if (event != profile_ask) return;
    *static_cast<std::string*>(arg) = std::string(param_get_text(params, "method")) + param_get_text(params, "params");
    core_profile_answer(profile,
                        std::string_view(param_get_text(params, "params")).find("\"here\"") != std::string::npos
                            ? R"({"files": 1})"
                            : "{}");
}

TEST(Graph, FindsWhoHoldsAnArchiveAndHowAStreamIsCoded) {
    net_init();
    std::string asked;
    profile_ctx* archive = core_profile_open2("plugin_methods_archive", &asked, on_archive, CORE_HERE);
    value_t** row = core_value_put(nullptr, "host", "10.0.0.1", CORE_HERE);
    row = core_value_put(row, "port", "554", CORE_HERE);
    tab_put(tab_sources, "half", row, CORE_HERE);
    row = core_value_put(row, "id", "77", CORE_HERE);
    tab_put(tab_sources, "there", row, CORE_HERE);
    row = core_value_put(row, "proportion", "4:3", CORE_HERE);
    row = core_value_put(row, "keyint", "50", CORE_HERE);
    tab_put(tab_streams, "s", row, CORE_HERE);
    core_value_free(row);
    const net::cinfo_t__ node{"k", "k", "k", "t", "u"};
    const graph_t graph(net::Graph::create(CORE_HERE));
    // The modules that play are not there: their names and documents are in the log.
    const auto told = [](const std::function<bool()>& add) {
        const test::log_keeper console("console");
        const test::log_keeper log("graph");
        EXPECT_FALSE(add());
        return log.lines;
    };
    const auto archive_of = [&](const char* source) { return told([&] { return graph->add_archive(&node, source); }); };
    const auto has = [](const std::string& text, const char* part) { return text.find(part) != std::string::npos; };
    EXPECT_TRUE(has(archive_of("there"), R"("rid": {"_level": 0, "_value": 77})"));
    EXPECT_EQ(asked, R"(stat_single{  "key2": "there",   "view": "simple" })");
    EXPECT_TRUE(has(archive_of("there"), "add 'zelt54client'"));
    EXPECT_EQ(archive_of("half"), "");
    EXPECT_EQ(archive_of("no\"body"), "");
    const std::string coder = told([&] { return graph->clone_encode_video(&node, "s", "h264", 1000); });
    EXPECT_TRUE(has(coder, R"("keyint": {"_level": 1, "_value": 50})") && has(coder, R"("_value": "4:3")")) << coder;
    EXPECT_EQ(told([&] { return graph->clone_encode_audio(&node, "x", "pcmu", 0, 0, " "); }), "");
    profile_close(archive);
    net_free();
}

TEST(Graph, LosesNothingWhenMemoryIsOut) {
    const test::log_keeper console("console");
    EXPECT_GT(test::fail_each_allocation([] {
                  const graph_t graph(net::Graph::create(CORE_HERE));
                  if (!graph) return;
                  const net::cinfo_t__ node{"a", "b", "c", "t", nullptr};
                  graph->init("text");
                  graph->add_archive(&node, "x");
                  const core::owned_text json(fish_archive_media(&node, "", CORE_HERE));
                  if (json && graph->add("heartbeat", json.get())) graph->start();
              }),
              5U);
}

}  // namespace
