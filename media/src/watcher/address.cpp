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
#include <iterator>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace media::fetch {

namespace {

struct scheme_row {
    std::string_view text;
    uint16_t port;
    const char* authority_end;
};
constexpr scheme_row schemes[] = {{"rtsp://", 554, "/?"}, {"http://", 80, "/?#"}, {"rtmp://", 1935, "/?"}};  // scheme_t

const scheme_row& row_of(scheme_t scheme) noexcept { return schemes[static_cast<size_t>(scheme)]; }

bool take_port(std::string_view text, uint16_t& port) noexcept {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

}  // namespace

// The user-info ends where the RTSP session ends it, at the last '@'.
bool address_t::set(const char* url, const char* name, const char* secret) noexcept {
    const core::owned_text coded(uri_encode_rest(url, CORE_HERE));
    if (!coded) return false;
    const auto* const row = std::ranges::find_if(schemes, [&](const scheme_row& each) {
        return core_strncasecmp(coded.get(), each.text.data(), static_cast<uint32_t>(each.text.size())) == 0;
    });
    if (row == std::end(schemes)) return false;
    scheme = static_cast<scheme_t>(row - std::begin(schemes));
    const std::string_view place = std::string_view(coded.get()).substr(row->text.size());
    const size_t authority_size = std::min(place.find_first_of(row->authority_end), place.size());
    const std::string_view authority = place.substr(0, authority_size);
    const size_t at = authority.rfind('@');
    const std::string_view server = authority.substr(at + 1);
    const size_t colon = std::min(server.find(':'), server.size());
    port = row->port;
    if (colon == 0 || colon >= sizeof host || server.front() == '[') return false;
    if (colon < server.size() && !take_port(server.substr(colon + 1), port)) return false;
    *std::copy_n(server.begin(), colon, host) = 0;
    if (!set_login(authority.substr(0, at == std::string_view::npos ? 0 : at), name, secret)) return false;
    if (scheme != scheme_t::rtsp) return set_target(place.substr(authority_size));
    return set_uri(coded.get(), server.data(), name != nullptr);
}

/// Decoded, a user could break the line that it stands in.
bool address_t::set_login(std::string_view login, const char* name, const char* secret) noexcept {
    user.reset();
    password.reset();
    if (name) {
        user.reset(core_strdup(name, CORE_HERE));
        password.reset(core_strdup(secret ? secret : "", CORE_HERE));
    } else if (!login.empty()) {
        const size_t colon = std::min(login.find(':'), login.size());
        const std::string_view rest = login.substr(std::min(colon + 1, login.size()));
        user.reset(uri_decode_part(login.data(), login.data() + colon, CORE_HERE));
        password.reset(uri_decode_part(rest.data(), rest.data() + rest.size(), CORE_HERE));
    } else {
        return true;
    }
    const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
    return user && password && std::ranges::none_of(std::string_view(user.get()), is_control);
}

/// @param place  what follows the authority. A fragment is the browser's own
bool address_t::set_target(std::string_view place) noexcept {
    place = place.substr(0, place.find('#'));
    target.reset(core_sprintf(CORE_HERE, "%s%.*s", place.starts_with('/') ? "" : "/", static_cast<int>(place.size()),
                              place.data()));
    if (target)
        uri.reset(core_sprintf(CORE_HERE, "%s%s:%u%s", row_of(scheme).text.data(), host, unsigned{port}, target.get()));
    return target && uri;
}

bool address_t::set_uri(const char* url, const char* behind_login, bool named) noexcept {
    if (!named) {
        uri.reset(core_strdup(url, CORE_HERE));
        return uri != nullptr;
    }
    const core::owned_text coded_name(uri_encode(user.get(), CORE_HERE));
    const core::owned_text coded_secret(uri_encode(password.get(), CORE_HERE));
    if (!coded_name || !coded_secret) return false;
    uri.reset(core_sprintf(CORE_HERE, "%s%s:%s@%s", row_of(scheme).text.data(), coded_name.get(), coded_secret.get(),
                           behind_login));
    return uri != nullptr;
}

bool address_t::move(const address_t& from, const char* reference) noexcept {
    const core::owned_text url(uri_resolve(from.uri.get(), reference, CORE_HERE));
    address_t there;
    if (!url || !there.set(url.get(), nullptr, nullptr) || there.scheme != from.scheme) return false;
    const bool takes_login = from.user && !there.user && core_strcasecmp(there.host, from.host) == 0;
    if (takes_login && !there.set(url.get(), from.user.get(), from.password.get())) return false;
    *this = std::move(there);
    return true;
}

core::owned_text address_t::file_name() const noexcept {
    const std::string_view path = std::string_view(target.get()).substr(0, std::strcspn(target.get(), "?"));
    std::string_view name = path.substr(path.rfind('/') + 1);
    if (name.find("%00") != std::string_view::npos) name = {};  // it would end the name
    return core::owned_text(uri_decode_part(name.data(), name.data() + name.size(), CORE_HERE));
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
