// A module in a graph: the library, its three functions and the instance that they made.
#pragma once

#include "core/module.h"
#include "core/owned.h"
#include "inet/net_graph.h"

#include <cstdint>

namespace graph {

class node {
public:
    node(uint32_t pid, core::owned_text module) noexcept : pid_(pid), module_(std::move(module)) {}
    ~node() { close(); }
    node(const node&) = delete;
    node& operator=(const node&) = delete;

    /// Loads the module and makes an instance. What stands in the way is reported. @return whether there is one
    bool open(const char* json, core::place where) noexcept;
    /// Sends "start" or "stop". @return what the module did
    int start() noexcept;
    int stop() noexcept;
    /// Ends the instance and unloads the library. @return whether it did not have to be stopped, or did not fail to
    bool close() noexcept;

    uint32_t pid() const noexcept { return pid_; }
    const char* module() const noexcept { return module_.get(); }
    bool is_started() const noexcept { return is_started_; }

private:
    int exec(const char* command) noexcept;

    uint32_t pid_;
    core::owned_text module_;
    bool is_started_ = false;
    dll_ctx* library_ = nullptr;
    void* instance_ = nullptr;
    plugin_exec_fn* exec_ = nullptr;
    plugin_close_fn* close_ = nullptr;
};

}  // namespace graph
