// ONVIF devices: "inet-viewer discover" lists those of the network, "inet-viewer onvif HOST" the streams of one.
#pragma once

#include "options.h"

#include "inet/net_thread.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace viewer {

struct device_options {
    std::string host;  ///< HOST, HOST:PORT or http://HOST:PORT/PATH of one device
    apps::credentials login;
    unsigned seconds = 5;  ///< of searching, and of waiting for an answer
    bool json = false;
    std::string log;
    apps::about_t about = apps::about_t::nothing;
};

bool is_about_devices(std::span<const std::string> arguments);

/// All of the program, for these arguments. @return the exit status
int ask_devices(std::span<const std::string> arguments);

/// One line of what is printed: names and values.
using row_t = std::vector<std::pair<std::string_view, std::string>>;

/// Prints rows as a table, or each as a JSON object, as they come.
class table {
public:
    table(bool json, std::vector<size_t> widths) : json_(json), widths_(std::move(widths)) {}
    void print(const row_t& row);

private:
    bool json_;
    bool has_head_ = false;
    std::vector<size_t> widths_;
};

/// A network thread of the program.
class network {
public:
    network() { net::net_nt_start(nt_, CORE_HERE); }
    ~network() { net::net_nt_stop(nt_); }
    network(const network&) = delete;
    network& operator=(const network&) = delete;

    operator net::nt_ctx*() const { return nt_; }
    /// Runs a function there and waits for its end.
    template <class Function>
    void run(Function function);

private:
    net::nt_ctx* nt_ = nullptr;
};

outcome find_devices(const device_options& settings, std::string& why);
outcome show_device(const device_options& settings, std::string& why);

template <class Function>
void network::run(Function function) {
    struct call_t {
        Function& function;
        std::mutex lock = {};
        std::condition_variable ended = {};
        bool is_done = false;
    } call{function};
    const auto work = [](void* arg) {
        auto& self = *static_cast<call_t*>(arg);
        self.function();
        const std::lock_guard held(self.lock);  // until it has been notified: the record then goes
        self.is_done = true;
        self.ended.notify_one();
    };
    if (!net::net_nt_sync_call(nt_, nullptr, &call, work)) return;
    std::unique_lock held(call.lock);
    call.ended.wait(held, [&] { return call.is_done; });
}

}  // namespace viewer
