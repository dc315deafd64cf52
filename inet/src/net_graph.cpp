#include "inet/net_graph.h"

#include "net_graph/graph.h"
#include "report.h"

#include "core/text.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <utility>

namespace net {

namespace {

std::atomic<uint32_t> last_serial;
std::atomic<uint32_t> last_pid;

/// Of the graph that this thread starts.
thread_local graph_start_t this_start;

struct error_text {
    int code;
    const char* text;
};

// The words are the interface's, as modules and their users know them.
constexpr error_text error_texts[] = {
    {-45, "archive is missing"},
    {-44, "bad request"},
    {-43, "network limit"},
    {-42, "user not found"},
    {-41, "source not response"},
    {-40, "sourse not found"},
    {-32, "unknow file type"},
    {-31, "file open failed"},
    {-30, "file save failed"},
    {-24, "RECODE_UNKNOWN_FORMAT"},
    {-23, "resize failed"},
    {-22, "compress failed"},
    {-21, "decompress failed"},
    {-20, "bad codec config"},
    {-13, "READER_FILE_NOT_FOUND"},
    {-12, "READER_FILE_FIND_ERROR"},
    {-11, "READER_FILE_HANDLE_INCORRECT"},
    {-10, "READER_READ_FILE"},
    {-9, "READER_COMMON_ERROR_READ"},
    {-8, "READER_BUFFER_EMPTY"},
    {-7, "READER_FRAME_CORRUPTED"},
    {-6, "READER_FRAME_NOT_FOUND_IN_BUFFER"},
    {-5, "READER_FRAME_TO_LARGE"},
    {-3, "READER_TIME_MORE_CURR"},
    {-2, "READER_LOAD_ARC_INFO_NOT_COMPLETE"},
    {-1, "READER_UNDEFINE"},
};

}  // namespace

Graph::~Graph() { core::destroy(inside_); }

Graph* Graph::create(const char* file, int line) noexcept {
    log_ctx* log = core_log_create(file, line, "graph");
    auto* made = log ? core::create<inside>(file, line, ++last_serial, log, core::place{file, line}) : nullptr;
    if (!made) core_log_free(log);
    auto* graph = made ? core::create<Graph>(file, line, made) : nullptr;
    if (graph)
        core_log_print(log, "%u: create", made->serial);
    else
        core::destroy(made);
    return graph;
}

void Graph::destroy(Graph* graph) noexcept {
    if (!graph) return;
    graph->close();
    core_log_print(graph->inside_->log, "%u: free", graph->inside_->serial);
    core::destroy(graph);
}

void Graph::init(const char* text) noexcept {
    inside_->text.reset(core_strdup(text, inside_->where.file, inside_->where.line));
}

void Graph::run_on(nt_ctx* thread) noexcept { inside_->thread = thread; }

bool Graph::add(const char* module, const char* json) noexcept { return inside_->add(module, json); }

bool Graph::inside::add(const char* module, const char* json) noexcept {
    if (!module) {
        core_log_print(log, "%u: error: unknown module name", serial);
        return false;
    }
    if (!json) {
        core_log_print(log, "%u: %s create failed, no js", serial, module);
        return false;
    }
    try {
        return add_node(module, json);
    } catch (const std::bad_alloc&) {
        report("module '%s' cannot be added: no memory", module);
        return false;
    }
}

bool Graph::inside::add_node(const char* module, const char* json) {
    const uint32_t pid = ++last_pid;
    core_log_print(log, "%u: pid:%u add '%s'\n%s", serial, pid, module, json);
    nodes.reserve(nodes.size() + 1);
    core::owned_text name(core_strdup(module, where.file, where.line));
    core::owned_object<graph::node> made(name ? core::create<graph::node>(where.file, where.line, pid, std::move(name))
                                              : nullptr);
    if (!made || !made->open(json, where)) {
        core_log_print(log, "%u: pid:%u open '%s' failed", serial, pid, module);
        return false;
    }
    core_log_print(log, "%u: pid:%u open '%s'", serial, pid, module);
    nodes.push_back(std::move(made));
    return true;
}

template <class Wants>
bool Graph::inside::send(int (graph::node::*command)() noexcept, const char* name, const Wants& wants) noexcept {
    bool all = true;
    for (const auto& each : nodes) {
        if (!wants(*each)) continue;
        const graph::stopwatch watch;
        const int result = (each.get()->*command)();
        all = all && result >= 0;
        core_log_print(log, "%u:   pid:%u, %s '%s' delay: %f, return: %u", serial, each->pid(), name, each->module(),
                       watch.seconds(), static_cast<unsigned>(result));
    }
    return all;
}

bool Graph::start() noexcept {
    inside& in = *inside_;
    core_log_print(in.log, "%u: start {", in.serial);
    const graph::stopwatch watch;
    const bool fresh = std::ranges::none_of(in.nodes, [](const auto& each) { return each->is_started(); });
    const graph_start_t outer = std::exchange(this_start, {.time = core_timer(), .thread = in.thread});
    const bool all =
        in.send(&graph::node::start, "start", [](const graph::node& each) { return !each.is_started(); }) && fresh;
    this_start = outer;
    core_log_print(in.log, "%u: start } %u, delay: %f", in.serial, all ? 1U : 0U, watch.seconds());
    return all;
}

bool Graph::stop() noexcept {
    inside& in = *inside_;
    core_log_print(in.log, "%u: stop {", in.serial);
    const graph::stopwatch watch;
    const bool all = in.send(&graph::node::stop, "stop", [](const graph::node& each) { return each.is_started(); });
    core_log_print(in.log, "%u: stop } delay: %f", in.serial, watch.seconds());
    return all;
}

bool Graph::close() noexcept {
    inside& in = *inside_;
    core_log_print(in.log, "%u: close {", in.serial);
    const graph::stopwatch watch;
    bool all = true;
    for (auto& each : in.nodes) {
        const graph::stopwatch node_watch;
        all = each->close() && all;
        core_log_print(in.log, "%u:   pid:%u, close '%s' delay %f", in.serial, each->pid(), each->module(),
                       node_watch.seconds());
    }
    in.nodes.clear();
    core_log_print(in.log, "%u: close } delay: %f", in.serial, watch.seconds());
    return all;
}

const char* Graph::strerr(int code) noexcept {
    const auto* found = std::ranges::find(error_texts, code, &error_text::code);
    return found == std::end(error_texts) ? "" : found->text;
}

}  // namespace net

net::graph_start_t net_graph_start() noexcept { return net::this_start; }
