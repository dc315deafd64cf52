#include "watcher/address.h"

#include "core/memory.h"
#include "core/text.h"
#include "core/thread.h"
#include "inet/net_socket.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>
#include <string_view>

namespace media::fetch {

namespace {

constexpr std::string_view scheme = "rtsp://";
constexpr uint16_t rtsp_port = 554;

bool take_port(std::string_view text, uint16_t& port) noexcept {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

}  // namespace

// The user-info ends where the RTSP session ends it, at the last '@'.
bool address_t::set(const char* url, const char* user, const char* password) noexcept {
    if (!url || core_strncasecmp(url, scheme.data(), static_cast<uint32_t>(scheme.size())) != 0) return false;
    const std::string_view place = std::string_view(url).substr(scheme.size());
    const size_t authority_size = std::min(place.find_first_of("/?"), place.size());
    const std::string_view authority = place.substr(0, authority_size);
    const std::string_view server = authority.substr(authority.rfind('@') + 1);
    const size_t colon = std::min(server.find(':'), server.size());
    port = rtsp_port;
    if (colon == 0 || colon >= sizeof host || server.front() == '[') return false;
    if (colon < server.size() && !take_port(server.substr(colon + 1), port)) return false;
    *std::copy_n(server.begin(), colon, host) = 0;
    if (!user) {
        uri.reset(core_strdup(url, CORE_HERE));
        return uri != nullptr;
    }
    const core::owned_text name(uri_encode(user, CORE_HERE));
    const core::owned_text secret(uri_encode(password ? password : "", CORE_HERE));
    if (!name || !secret) return false;
    uri.reset(core_sprintf(CORE_HERE, "%s%s:%s@%s", scheme.data(), name.get(), secret.get(), server.data()));
    return uri != nullptr;
}

bool address_t::move(const address_t& from, const char* url) noexcept {
    core::owned_text old(core_strdup(from.uri.get(), CORE_HERE));  // it may be this one
    char old_host[sizeof host];
    std::snprintf(old_host, sizeof old_host, "%s", from.host);
    if (!old || !set(url, nullptr, nullptr)) return false;
    const std::string_view place = std::string_view(old.get()).substr(scheme.size());
    const size_t login_end = place.substr(0, place.find_first_of("/?")).rfind('@');
    const bool has_own = std::string_view(uri.get()).substr(scheme.size()).substr(0, std::strlen(host)) != host;
    if (login_end == std::string_view::npos || has_own || core_strcasecmp(host, old_host) != 0) return true;
    uri.reset(core_sprintf(CORE_HERE, "%s%.*s@%s", scheme.data(), static_cast<int>(login_end), place.data(),
                           url + scheme.size()));
    return uri != nullptr;
}

// Not of the library's counted memory: a look-up that the system does not end may outlive the program's work.
struct name_lookup::job_t {
    char text[256] = "";  ///< the name, then the address
    std::atomic<state_t> now = state_t::running;
    std::mutex lock;  ///< of `done`
    net::command_ctx* done = nullptr;

    void end(state_t with) noexcept {
        const std::lock_guard held(lock);
        now = with;
        net::net_nt_command_exec(done);
    }
};

void name_lookup::tell(net::command_ctx* done) noexcept {
    done_ = done;
    if (!job_) return;
    const std::lock_guard held(job_->lock);
    job_->done = done;
}

void name_lookup::begin(const char* host) noexcept {
    if (state() == state_t::running) return;
    job_.reset();
    try {
        job_ = std::make_shared<job_t>();
        std::snprintf(job_->text, sizeof job_->text, "%s", host);
        // The number of a host is 0 for what is no address.
        if (net_hostid(host, 1) != 0) {
            job_->now = state_t::found;
            return;
        }
        job_->done = done_;
        auto shared = std::make_unique<std::shared_ptr<job_t>>(job_);
        if (core_thread_invoke(run, shared.get(), CORE_HERE)) {
            static_cast<void>(shared.release());  // run() takes it
            return;
        }
    } catch (const std::bad_alloc&) {
        job_.reset();
        return;
    }
    job_->now = state_t::failed;
}

void name_lookup::run(void* arg) noexcept {
    const std::unique_ptr<std::shared_ptr<job_t>> shared(static_cast<std::shared_ptr<job_t>*>(arg));
    job_t& todo = **shared;
    sockaddr_in address{};
    if (net_addr_setup(address, todo.text, 0) != 0) return todo.end(state_t::failed);
    net_addr_ip(address, todo.text, sizeof todo.text);
    todo.end(state_t::found);
}

name_lookup::state_t name_lookup::state() const noexcept { return job_ ? job_->now.load() : state_t::none; }

const char* name_lookup::address() const noexcept { return job_ ? job_->text : ""; }

}  // namespace media::fetch
