// What a graph holds.
#pragma once

#include "net_graph/node.h"

#include "core/log.h"
#include "core/time.h"

namespace net {

struct Graph::inside {
    inside(uint32_t number, log_ctx* to, core::place place) noexcept
        : serial(number), log(to), where(place), nodes(place) {}
    ~inside() { core_log_free(log); }
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    bool add(const char* module, const char* json) noexcept;
    bool add_node(const char* module, const char* json);
    /// Adds a node with the document that a call makes of the values.
    template <class... Args>
    bool add_fish(const char* module, char* (*fish)(Args...) noexcept, const auto&... values) noexcept {
        const core::owned_text document(fish(values..., where.file, where.line));
        return add(module, document.get());
    }
    /// Sends to all nodes that `wants`. @return whether none failed
    template <class Wants>
    bool send(int (graph::node::*command)() noexcept, const char* name, const Wants& wants) noexcept;

    uint32_t serial;
    log_ctx* log;
    core::place where;
    core::owned_text text;
    nt_ctx* thread = nullptr;
    core::vector<core::owned_object<graph::node>> nodes;
};

}  // namespace net

namespace graph {

/// Seconds since a moment, counted in milliseconds.
class stopwatch {
public:
    double seconds() const noexcept {
        const uint64_t milliseconds = (core_timer() - began_) / 1000;
        return static_cast<double>(milliseconds) / 1000;
    }

private:
    uint64_t began_ = core_timer();
};

}  // namespace graph
