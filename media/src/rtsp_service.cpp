#include "rtsp_service/client.h"
#include "rtsp_service/group.h"
#include "rtsp_service/inside.h"

#include "avc/fcc.h"
#include "core/text.h"
#include "inet/net_socket.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

namespace media {

service* rtsp_service(const rtsp_settings_t& settings) noexcept {
    auto* made = core::create<rtsp::service_t>(CORE_HERE, settings);
    if (!made || made->complete()) return made;
    delete made;
    return nullptr;
}

namespace rtsp {

namespace {

constexpr size_t most_tunnels = 4096;
constexpr uint32_t most_ports = 65536;

/// Whether a request of ours, or its beginning, stands there.
bool begins_with_method(std::string_view text) noexcept {
    constexpr std::string_view methods[] = {"OPTIONS ",       "DESCRIBE ",      "SETUP ",    "PLAY ", "PAUSE ",
                                            "GET_PARAMETER ", "SET_PARAMETER ", "TEARDOWN ", "GET ",  "POST "};
    return std::ranges::any_of(
        methods, [&](std::string_view method) { return method.starts_with(text.substr(0, method.size())); });
}

bool copy(core::owned_text& to, const char*& text) noexcept {
    if (!text) return true;
    to.reset(core_strdup(text, CORE_HERE));
    text = to.get();
    return text != nullptr;
}

}  // namespace

bool tunnels::add(std::string_view cookie, in_addr peer, thread& at, const client_t& get) noexcept {
    const std::lock_guard held(lock_);
    try {
        if (ends_.size() == most_tunnels) return false;
        core::string own;
        own.assign(cookie);
        ends_.push_back({std::move(own), peer, &at, &get});
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void tunnels::remove(const client_t& get) noexcept {
    const std::lock_guard held(lock_);
    std::erase_if(ends_, [&](const end_t& each) { return each.get == &get; });
}

thread* tunnels::find(std::string_view cookie, in_addr peer) const noexcept {
    const std::lock_guard held(lock_);
    const auto found = std::find_if(ends_.rbegin(), ends_.rend(), [&](const end_t& each) {
        return each.cookie == cookie && each.peer.s_addr == peer.s_addr;
    });
    return found == ends_.rend() ? nullptr : found->at;
}

service_t::service_t(const rtsp_settings_t& settings) noexcept : settings_(settings), port_(settings.port) {
    complete_ = copy(user_, settings_.user) && copy(password_, settings_.password) &&
                copy(multicast_, settings_.multicast) && copy(without_aac_, settings_.without_aac);
}

service_t::~service_t() = default;

/// RTSP requests, and the HTTP requests that open a tunnel: "x-sessioncookie" stands in their head.
claim_t service_t::claims(buffer_t first) const noexcept {
    const std::string_view text(reinterpret_cast<const char*>(first.data), first.size);
    const size_t line = text.find("\r\n");
    if (text.substr(0, 1) == "$") return claim_t::yes;
    if (!begins_with_method(text) || text.substr(0, line).find('\n') != std::string_view::npos) return claim_t::no;
    if (line == std::string_view::npos) return claim_t::more;
    if (text.substr(0, line).find(" RTSP/1.") != std::string_view::npos) return claim_t::yes;
    const size_t end = text.find("\r\n\r\n");
    core::string head;
    try {
        head.assign(text.substr(0, end));
    } catch (const std::bad_alloc&) {
        return claim_t::no;
    }
    std::ranges::transform(head, head.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    if (head.find("\r\nx-sessioncookie:") != std::string::npos) return claim_t::yes;
    return end == std::string_view::npos ? claim_t::more : claim_t::no;
}

int service_t::open(media::station& of, failure_t* error) noexcept {
    station_ = &of;
    groups_.clear();  // of an earlier start
    if (!settings_.multicast) return 1;
    sockaddr_in group{};
    if (net_addr_setup(group, settings_.multicast, settings_.multicast_port) != 0 ||
        ntohl(group.sin_addr.s_addr) >> 28 != 14) {
        tell(error, "%s is no multicast group", settings_.multicast);
        return 0;
    }
    const int fd = open_sender(of.bind());
    if (fd >= 0) net_socket_close(fd);
    if (fd < 0) tell(error, "cannot send to %s from %s", settings_.multicast, of.bind());
    return fd < 0 ? 0 : 1;
}

part* service_t::make_part(thread& on, failure_t* error) noexcept {
    auto* made = core::create<part_t>(CORE_HERE, on, *this);
    if (!made) tell(error, "no memory");
    return made;
}

client* service_t::take(thread& on, net::Tcp*& from) noexcept {
    auto* part = static_cast<part_t*>(on.part(*this));
    auto* made = part ? core::create<client_t>(CORE_HERE, *part, from, nullptr) : nullptr;
    if (!made) return nullptr;
    from = nullptr;
    if (made->complete()) {
        made->begin();
        return made;
    }
    delete made;
    return nullptr;
}

void service_t::addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                          void* arg) const noexcept {
    const core::owned_text path(uri_encode_path(of.name(), CORE_HERE));
    char text[512];
    std::snprintf(text, sizeof text, "rtsp://%s:%u/%s", host, unsigned{port_}, path ? path.get() : of.name());
    each(arg, text);
}

const rtsp3::trak_t* service_t::announce(rtsp3::Rtsp& by, const stream& what, kind_t kind) const noexcept {
    format_t format;
    buf_t config{};
    if (!what.format(kind, &format, &config)) return nullptr;
    const bool left_out =
        format.fcc == av::fcc_mp4a && without_aac_ && std::string_view(what.name()) == without_aac_.get();
    const rtsp3::sound_t sound{.rate = format.rate, .channels = format.channels, .config = format.config};
    const rtsp3::trak_t* const made = left_out ? nullptr : by.add_trak(format.fcc, what.name(), sound, CORE_HERE);
    // Without them the player waits for the first key picture to know what it gets.
    if (made) by.describe_trak(made, format.config);
    core_buf_free(&config);
    return made;
}

group* service_t::group_of(stream& of) noexcept {
    if (!settings_.multicast) return nullptr;
    const std::lock_guard held(groups_lock_);
    const auto found = std::ranges::find_if(groups_, [&](const auto& each) { return &each->of() == &of; });
    if (found != groups_.end()) {
        (*found)->keep();
        return found->get();
    }
    const uint32_t port = free_group_port();
    if (port + 2 * kind_count > most_ports) return nullptr;
    thread& first = station_->thread_at(0);
    core::owned_object<group> made(
        core::create<group>(CORE_HERE, *this, first, of, settings_.multicast, static_cast<uint16_t>(port)));
    if (!made || !made->complete()) return nullptr;
    const auto open = [](thread& on, void* arg) {
        if (on.nt()) static_cast<group*>(arg)->open();
    };
    try {
        groups_.push_back(std::move(made));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    group* const added = groups_.back().get();
    if (!first.call(open, added)) {
        groups_.pop_back();
        return nullptr;
    }
    added->keep();
    return added;
}

/// The first one from which on a group's ports are nobody's.
uint32_t service_t::free_group_port() const noexcept {
    uint32_t port = settings_.multicast_port;
    const auto behind = [](const group& one) { return one.port(0) + 2 * static_cast<uint32_t>(one.tracks()); };
    const auto in_the_way = [&](const auto& each) {
        return each->port(0) < port + 2 * kind_count && port < behind(*each);
    };
    auto found = groups_.begin();
    while ((found = std::ranges::find_if(groups_, in_the_way)) != groups_.end())
        port = behind(**found);
    return port;
}

core::owned_object<group> service_t::take_out(const group& which) noexcept {
    const std::lock_guard held(groups_lock_);
    const auto found = std::ranges::find_if(groups_, [&](const auto& each) { return each.get() == &which; });
    if (found == groups_.end() || which.is_held()) return nullptr;
    core::owned_object<group> out = std::move(*found);
    groups_.erase(found);
    return out;
}

}  // namespace rtsp
}  // namespace media
