#include "inet/net_socket.h"

#include "platform/socket_api.h"

#include "core/array.h"
#include "core/log.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

namespace platform = net::platform;

namespace {

constexpr int first_own_descriptor = 3;  // below stand the standard streams
constexpr int family_ipv4 = 2;
constexpr int type_stream = 1;
constexpr int type_datagram = 2;
constexpr int protocol_tcp = 6;
constexpr int protocol_udp = 17;
constexpr int longest_reach = 255;  // TTL
constexpr int tcp_backlog = 1000;
constexpr int rtp_pair_attempts = 10;
constexpr uint32_t max_interfaces = 10;

// Prints to the error log and, in red, to the console. The caller's socket error survives it.
INET_PRINTF(1, 2) void report(const char* format, ...) noexcept {
    const int error = platform::last_error();
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    core_log_err("%s", text);
    core_con_printf(1, "%s", text);
    platform::set_last_error(error);
}

/// Owns a descriptor until it is given away.
class descriptor {
public:
    explicit descriptor(int fd) noexcept : fd_(fd) {}
    ~descriptor() {
        if (fd_ >= 0) platform::close_socket(fd_);
    }
    descriptor(const descriptor&) = delete;
    descriptor& operator=(const descriptor&) = delete;

    int get() const noexcept { return fd_; }
    int release() noexcept { return std::exchange(fd_, -1); }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};

struct registered_socket {
    int fd;
    registered_socket* next = nullptr;
};

using socket_record = core::owned_object<registered_socket>;

socket_record make_record(int fd, const char* file, int line) noexcept {
    socket_record record(core::create<registered_socket>(file, line, fd));
    if (!record) platform::set_last_error(socket_error_no_buffers);
    return record;
}

/// The open descriptors of the process. The record of each is a block in the name of who opened it, so that the memory
/// report names the place, too.
class socket_registry {
public:
    void add(socket_record record) noexcept {
        const std::lock_guard held(lock_);
        insert(record.release());
    }

    void add(socket_record first, socket_record second) noexcept {
        const std::lock_guard held(lock_);
        insert(first.release());
        insert(second.release());
    }

    /// Null when the descriptor is not registered.
    socket_record remove(int fd) noexcept {
        const std::lock_guard held(lock_);
        registered_socket** place = &bucket(fd);
        while (*place && (*place)->fd != fd)
            place = &(*place)->next;
        socket_record record(*place);
        if (record) *place = record->next;
        return record;
    }

    /// Takes any one record; null when none is left.
    socket_record remove_any() noexcept {
        const std::lock_guard held(lock_);
        const auto place = std::ranges::find_if(buckets_, [](const registered_socket* first) { return first; });
        if (place == buckets_.end()) return nullptr;
        socket_record record(*place);
        *place = record->next;
        return record;
    }

private:
    registered_socket*& bucket(int fd) noexcept { return buckets_[static_cast<unsigned>(fd) % buckets_.size()]; }

    void insert(registered_socket* record) noexcept {
        registered_socket*& first = bucket(record->fd);
        record->next = first;
        first = record;
    }

    std::mutex lock_;
    std::array<registered_socket*, 256> buckets_ = {};
};

socket_registry& registry() noexcept { return core::process_wide<socket_registry>(); }

// Registers a new socket and gives its descriptor, or closes it and gives -1.
int adopt(int fd, const char* file, int line) noexcept {
    descriptor socket(fd);
    socket_options(fd);
    socket_record record = make_record(fd, file, line);
    if (!record) return -1;
    registry().add(std::move(record));
    return socket.release();
}

in_addr make_host(uint32_t number) noexcept {
    in_addr host = {};
    host.s_addr = htonl(number);
    return host;
}

sockaddr_in make_address(in_addr host, unsigned short port) noexcept {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = host;
    return address;
}

in_addr any_address() noexcept { return make_host(INADDR_ANY); }

bool is_multicast(in_addr address) noexcept {
    const uint32_t host = ntohl(address.s_addr);
    return host >= 0xe0000001u && host <= 0xeffffffeu;
}

// The accepted socket whose other end is `near_end`: anybody on this host may have come in between.
descriptor accept_from(int listener, int near_end) noexcept {
    const sockaddr_in wanted = net_socket_near(near_end);
    for (;;) {
        sockaddr_in peer = {};
        descriptor accepted(platform::accept_socket(listener, &peer));
        const bool ours = peer.sin_port == wanted.sin_port && peer.sin_addr.s_addr == wanted.sin_addr.s_addr;
        if (!accepted || ours) return descriptor(accepted.release());
    }
}

bool bind_to_loopback(int listener, sockaddr_in& chosen) noexcept {
    const sockaddr_in loopback = make_address(make_host(INADDR_LOOPBACK), 0);
    return platform::set_option(listener, platform::option::reuse_address, 1) &&
           platform::bind_socket(listener, loopback) && platform::near_address(listener, chosen) &&
           platform::listen_socket(listener, 1);
}

bool try_rtp_pair(int (&fds)[2]) noexcept {
    unsigned short port = 0;
    for (int& fd : fds) {
        fd = net_socket_create(family_ipv4, type_datagram, protocol_udp, CORE_HERE);
        if (fd < 0 || !platform::set_exclusive(fd)) return false;
        if (!platform::bind_socket(fd, make_address(any_address(), port))) return false;
        // The even port and the odd one above it differ in the last bit.
        port = net_socket_get_near_port(fd) ^ 1u;
    }
    return true;
}

void close_pair(int (&fds)[2]) noexcept {
    for (int& fd : fds) {
        if (fd >= 0) net_socket_close(fd);
        fd = -1;
    }
}

bool set_reach(int fd, platform::option which) noexcept { return platform::set_option(fd, which, longest_reach); }

int bind_multicast(int fd, in_addr group) noexcept {
    set_reach(fd, platform::option::multicast_ttl);
    set_reach(fd, platform::option::ttl);
    const bool joined = platform::join_group(fd, group, any_address());
    const bool looped = platform::set_option(fd, platform::option::multicast_loop, 1);
    return joined && looped ? 0 : -1;
}

std::span<const uint8_t> held_bytes(const buf_t& buf) noexcept { return {buf.data, buf.length}; }

int send_held(int fd, buf_t& buf, const sockaddr_in* to) noexcept {
    const int count = platform::send_bytes(fd, held_bytes(buf), to);
    if (count > 0) core_buf_ignore(&buf, static_cast<uint32_t>(count));
    return count;
}

void free_items(void** items) noexcept {
    for (void** item = items; item && *item; ++item)
        core_mfree(*item);
    core_array_free(items);
}

/// Gathers one block for each interface in a null-terminated array.
struct interface_list {
    void* (*make)(const sockaddr_in& address, const char* file, int line);
    const char* file;
    int line;
    void** items = nullptr;
    uint32_t count = 0;
    bool failed = false;

    bool add(const sockaddr_in& address) noexcept {
        void* item = make(address, file, line);
        items = core_array_add(items, item, file, line);
        failed = core_array_length(items) != count + 1;
        if (failed) core_mfree(item);
        return !failed && ++count < max_interfaces;
    }
};

void** list_interfaces(void* (*make)(const sockaddr_in&, const char*, int), const char* file, int line) noexcept {
    interface_list list = {.make = make, .file = file, .line = line};
    platform::visit_interfaces(
        [](void* arg, const sockaddr_in& address) { return static_cast<interface_list*>(arg)->add(address); }, &list);
    if (!list.failed) return list.items;
    free_items(list.items);
    return nullptr;
}

void* make_address_text(const sockaddr_in& address, const char* file, int line) {
    return socket_get_ip(address.sin_addr, file, line);
}

void* make_address_copy(const sockaddr_in& address, const char* file, int line) {
    return core::create<sockaddr_in>(file, line, address);
}

}  // namespace

int socket_get_error_code() noexcept { return platform::last_error(); }

int net_socket_get_error(int fd) noexcept { return platform::pending_error(fd); }

void socket_init() noexcept { platform::start_sockets(); }

void socket_free() noexcept {
    while (const socket_record record = registry().remove_any())
        report("not closed socket: %d", record->fd);
    platform::stop_sockets();
}

int net_socket_create(int family, int type, int protocol, const char* file, int line) noexcept {
    const int fd = platform::open_socket(family, type, protocol);
    if (fd < 0) return -1;
    if (fd < first_own_descriptor) report("warning: open socket fd: %d", fd);
    return adopt(fd, file, line);
}

int net_socket_accept(int fd, sockaddr_in* peer, const char* file, int line) noexcept {
    const int accepted = platform::accept_socket(fd, peer);
    return accepted < 0 ? accepted : adopt(accepted, file, line);
}

void net_socket_close(int fd) noexcept {
    if (fd < first_own_descriptor) return;
    if (!registry().remove(fd)) report("socket_close: unknown socket: %d", fd);
    platform::close_socket(fd);
}

int net_socket_pair(int, int, int, int fds[2], const char* file, int line) noexcept {
    if (!fds) {
        platform::set_last_error(socket_error_invalid_argument);
        return -1;
    }
    sockaddr_in address = {};
    const descriptor listener(platform::open_socket(family_ipv4, type_stream, protocol_tcp));
    if (!listener || !bind_to_loopback(listener.get(), address)) return -1;
    descriptor near_end(platform::open_socket(family_ipv4, type_stream, protocol_tcp));
    if (!near_end || !platform::connect_socket(near_end.get(), address)) return -1;
    descriptor far_end = accept_from(listener.get(), near_end.get());
    if (!far_end) return -1;

    socket_record near_record = make_record(near_end.get(), file, line);
    socket_record far_record = make_record(far_end.get(), file, line);
    if (!near_record || !far_record) return -1;
    registry().add(std::move(near_record), std::move(far_record));
    fds[0] = near_end.release();
    fds[1] = far_end.release();
    return 0;
}

int socket_rtp_pair(int* rtp, int* rtcp) noexcept {
    if (!rtp || !rtcp) return -1;
    int fds[2] = {-1, -1};
    bool done = false;
    for (int attempt = 0; attempt < rtp_pair_attempts && !done; ++attempt) {
        close_pair(fds);
        done = try_rtp_pair(fds);
    }
    if (done && net_socket_get_near_port(fds[0]) > net_socket_get_near_port(fds[1])) std::swap(fds[0], fds[1]);
    *rtp = fds[0];
    *rtcp = fds[1];
    return done ? 1 : 0;
}

bool socket_nonBlock(int fd) noexcept { return platform::set_non_blocking(fd); }

bool socket_keepAlive(int fd) noexcept {
    platform::set_option(fd, platform::option::keep_alive, 1);
    return true;
}

bool socket_noNagle(int fd) noexcept { return platform::set_option(fd, platform::option::no_delay, 1); }

bool socket_reuseAddress(int fd) noexcept { return platform::set_option(fd, platform::option::reuse_address, 1); }

bool socket_TTL(int fd, unsigned char ttl) noexcept {
    platform::set_option(fd, platform::option::ttl, ttl);
    return true;
}

bool socket_multicastTTL(int fd, unsigned char ttl) noexcept {
    platform::set_option(fd, platform::option::multicast_ttl, ttl);
    return true;
}

bool socket_multicastInterface(int fd, const char* address) noexcept {
    in_addr via = {};
    return address && platform::parse_address(address, via) && platform::set_multicast_interface(fd, via);
}

bool socket_joinGroup(int fd, const char* group, const char* via) noexcept {
    in_addr parsed = {};
    in_addr on = {};
    return group && via && platform::parse_address(group, parsed) && platform::parse_address(via, on) &&
           is_multicast(parsed) && platform::join_group(fd, parsed, on);
}

bool socket_options(int fd) noexcept {
    if (!socket_nonBlock(fd)) return false;
    socket_keepAlive(fd);
    socket_noNagle(fd);
    return socket_reuseAddress(fd);
}

int net_socket_set_size(int fd, int first, int second) noexcept {
    bool applied = true;
    for (const int size : {first, second}) {
        if (size != 0) applied = platform::set_option(fd, platform::option::receive_buffer, size) && applied;
    }
    return applied ? 0 : -1;
}

int net_socket_bind(int fd, const char* address, unsigned port) noexcept {
    in_addr host = {};
    if (fd < 0 || !address || !platform::resolve(address, host)) return -1;
    const bool multicast = is_multicast(host);
    const sockaddr_in own = make_address(multicast ? any_address() : host, static_cast<unsigned short>(port));
    if (!socket_reuseAddress(fd)) return -1;
    if (!platform::bind_socket(fd, own)) {
        const int error = platform::system_error();
        report("Unable to bind on address: %s:%u; Error was: %s (%d)", address, port,
               platform::system_error_text(error), error);
        return -1;
    }
    return multicast ? bind_multicast(fd, host) : 0;
}

int net_udp_listen(int fd, const char* address, unsigned short port) noexcept {
    return std::min(net_socket_bind(fd, address ? address : "0.0.0.0", port), 0);
}

int net_udp_connect(int fd, const char* host, unsigned short) noexcept {
    in_addr address = {};
    if (!host || !platform::resolve(host, address)) return -1;
    set_reach(fd, platform::option::ttl);
    if (!is_multicast(address)) return 0;
    set_reach(fd, platform::option::multicast_ttl);
    return platform::join_group(fd, address, any_address()) ? 0 : -1;
}

int net_tcp_connect(int fd, const char* host, unsigned short port) noexcept {
    sockaddr_in address = {};
    if (fd < 0 || net_addr_setup(address, host, port) < 0) return -2;
    if (platform::connect_socket(fd, address) || platform::last_error() == socket_error_would_block) return 0;
    report("Unable connect socket %d to: %s:%hu, e = %d", fd, host, port, platform::last_error());
    return -1;
}

int net_tcp_listen(int fd, const char* address, unsigned short port) noexcept {
    sockaddr_in own = {};
    if (net_addr_setup(own, address, port) < 0) return -2;
    platform::bind_socket(fd, own);
    if (platform::listen_socket(fd, tcp_backlog)) return 0;
    report("Unable to put the socket in listening mode: %s:%hu", address, port);
    return -1;
}

int net_tcp_send(int fd, buf_t& buf) noexcept { return send_held(fd, buf, nullptr); }

int net_tcp_send_buffer(int fd, buffer_t data) noexcept {
    return platform::send_bytes(fd, {data.data, data.size}, nullptr);
}

int net_tcp_recv(int fd, buf_t& buf) noexcept {
    const uint32_t room = buf.size - buf.length;
    const int count = platform::receive_bytes(fd, {buf.data + buf.length, room}, nullptr);
    if (count > 0) buf.length += static_cast<uint32_t>(count);
    return count;
}

int net_udp_send(int fd, buf_t& buf, sockaddr_in* to) noexcept { return send_held(fd, buf, to); }

int net_udp_send_buffer(int fd, buffer_t* data, sockaddr_in* to) noexcept {
    return data ? platform::send_bytes(fd, {data->data, data->size}, to) : -2;
}

int net_udp_send_batch(int fd, const datagram_t* datagrams, uint32_t count) noexcept {
    if (!datagrams) return count ? -2 : 0;
    return platform::send_datagrams(fd, {datagrams, count});
}

int net_udp_recv_batch(int fd, received_t* datagrams, uint32_t count) noexcept {
    if (!datagrams) return count == 0 ? 0 : -2;
    return platform::receive_datagrams(fd, {datagrams, count});
}

int net_udp_send_msg(int fd, const char* text, sockaddr_in* to) noexcept {
    if (!text) return -2;
    return platform::send_bytes(fd, {reinterpret_cast<const uint8_t*>(text), core_strlen(text)}, to);
}

int net_udp_recv(int fd, buf_t& buf, sockaddr_in* from) noexcept {
    buf.length = 0;
    const int count = platform::receive_bytes(fd, {buf.data, buf.size}, from);
    if (count > 0) buf.length = static_cast<uint32_t>(count);
    return count;
}

int net_addr_setup(sockaddr_in& addr, const char* host, unsigned short port) noexcept {
    in_addr found = {};
    const bool resolved = host && platform::resolve(host, found);
    addr = make_address(found, port);
    return resolved ? 0 : -1;
}

void net_addr_ip(const sockaddr_in& addr, char* out, size_t n) noexcept {
    if (!out || n == 0) return;
    char text[net_addr_size];
    platform::print_address(addr.sin_addr, text);
    std::snprintf(out, n, "%s", text);
}

unsigned short net_addr_port(const sockaddr_in& addr) noexcept { return ntohs(addr.sin_port); }

void net_addr_str(sockaddr_in addr, char* out, size_t n, unsigned& port) noexcept {
    net_addr_ip(addr, out, n);
    port = net_addr_port(addr);
}

const char* net_socket_straddr(const sockaddr_in* addr, unsigned& port) noexcept {
    thread_local char text[net_addr_size];
    port = 0;
    if (!addr) return nullptr;
    net_addr_str(*addr, text, sizeof text, port);
    return text;
}

char* socket_get_ip(in_addr addr, const char* file, int line) noexcept {
    char text[net_addr_size];
    platform::print_address(addr, text);
    return core_strdup(text, file, line);
}

sockaddr_in net_socket_near(int fd) noexcept {
    sockaddr_in address = {};
    platform::near_address(fd, address);
    return address;
}

sockaddr_in net_socket_peer(int fd) noexcept {
    sockaddr_in address = {};
    platform::peer_address(fd, address);
    return address;
}

unsigned short net_socket_get_near_port(int fd) noexcept { return net_addr_port(net_socket_near(fd)); }

char** net_socket_get_if(const char* file, int line) noexcept {
    return reinterpret_cast<char**>(list_interfaces(make_address_text, file, line));
}

sockaddr_in** net_socket_get_if_addr(const char* file, int line) noexcept {
    return reinterpret_cast<sockaddr_in**>(list_interfaces(make_address_copy, file, line));
}

char* net_hostip(const char* file, int line) noexcept {
    void** texts = list_interfaces(make_address_text, file, line);
    if (!texts) return nullptr;
    void* first = texts[0];
    texts = core_array_rem(texts, first, file, line);
    free_items(texts);
    return static_cast<char*>(first);
}

char* net_hostname(const char* file, int line) noexcept {
    char name[256];
    return platform::host_name(name) ? core_strdup(name, file, line) : nullptr;
}

unsigned net_hostid(const char* ip, unsigned base) noexcept {
    in_addr address = {};
    if (!ip || !platform::parse_address(ip, address)) return 0;
    return (ntohl(address.s_addr) & 0xffu) * 100 + base;
}
