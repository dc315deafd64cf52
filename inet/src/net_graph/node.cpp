#include "net_graph/node.h"

#include "report.h"

#include "core/file.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <utility>

namespace {

/// What the module that this thread calls has said.
thread_local char reason[300];

void report_missing(const char* module) noexcept {
    const bool is_path = std::string_view(module).find_first_of("/\\") != std::string_view::npos;
    const core::owned_text folder(is_path ? nullptr : lib_path(CORE_HERE));
    if (folder)
        net::report(
            "module '%s' cannot be loaded; it was looked for in %s/inet-modules, in %s and where the system looks",
            module, folder.get(), folder.get());
    else
        net::report("module '%s' cannot be loaded", module);
}

}  // namespace

void net_graph_reason(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, sizeof reason, format, args);
    va_end(args);
}

namespace graph {

bool node::open(const char* json, core::place where) noexcept {
    dll_entry_t entries[] = {{"plugin_open", nullptr}, {"plugin_exec", nullptr}, {"plugin_close", nullptr}, {}};
    library_ = core_dll_open(module_.get(), entries, where.file, where.line);
    if (!library_) {
        const auto* missing = std::ranges::find(entries, nullptr, &dll_entry_t::function);
        if (std::ranges::any_of(entries, [](const dll_entry_t& each) { return each.function != nullptr; }))
            net::report("module '%s' cannot be used: it has no %s", module(), missing->name);
        else
            report_missing(module());
        return false;
    }
    exec_ = reinterpret_cast<plugin_exec_fn*>(entries[1].function);
    close_ = reinterpret_cast<plugin_close_fn*>(entries[2].function);
    const param_t params[] = {{"json", json}, {}};
    *reason = '\0';
    instance_ = reinterpret_cast<plugin_open_fn*>(entries[0].function)(params);
    if (!instance_) net::report("module '%s' refuses its settings%s%s", module(), *reason ? ": " : "", reason);
    return instance_ != nullptr;
}

int node::start() noexcept {
    is_started_ = true;
    return exec("start");
}

int node::stop() noexcept {
    is_started_ = false;
    return exec("stop");
}

int node::exec(const char* command) noexcept {
    const param_t params[] = {{command, "1"}, {}};
    *reason = '\0';
    const int result = exec_(instance_, params);
    if (result < 0)
        net::report("module '%s' cannot %s: %d %s", module(), command, result,
                    *reason ? reason : net::Graph::strerr(result));
    return result;
}

bool node::close() noexcept {
    const bool stopped = !is_started_ || stop() >= 0;
    if (instance_) close_(std::exchange(instance_, nullptr));
    core_dll_close(library_);
    return stopped;
}

}  // namespace graph
