#include "platform/windows_socket.h"

#include "platform/socket_api.h"

#include "core/owned.h"

#include <algorithm>
#include <atomic>
#include <mswsock.h>
#include <ws2tcpip.h>

namespace net::platform {

namespace {

struct option_place {
    int level;
    int name;
};

// In the order of `option`.
constexpr option_place option_table[] = {
    {SOL_SOCKET, SO_KEEPALIVE},      {IPPROTO_TCP, TCP_NODELAY}, {SOL_SOCKET, SO_REUSEADDR},
    {SOL_SOCKET, SO_RCVBUF},         {IPPROTO_IP, IP_TTL},       {IPPROTO_IP, IP_MULTICAST_TTL},
    {IPPROTO_IP, IP_MULTICAST_LOOP},
};

template <class T>
bool set(int fd, int level, int name, const T& value) noexcept {
    return setsockopt(handle_of(fd), level, name, reinterpret_cast<const char*>(&value), sizeof value) == 0;
}

int get(int fd, int name, int& value) noexcept {
    int size = sizeof value;
    return getsockopt(handle_of(fd), SOL_SOCKET, name, reinterpret_cast<char*>(&value), &size);
}

using name_call = int(WSAAPI*)(SOCKET, sockaddr*, int*);

bool read_address(name_call call, int fd, sockaddr_in& address) noexcept {
    address = {};
    int size = sizeof address;
    if (call(handle_of(fd), generic(&address), &size) == 0 && address.sin_family == AF_INET) return true;
    address = {};
    return false;
}

void switch_off(int fd, DWORD control) noexcept {
    BOOL off = FALSE;
    DWORD written = 0;
    WSAIoctl(handle_of(fd), control, &off, sizeof off, nullptr, 0, &written, nullptr, nullptr);
}

// What sockets of this system need to behave as others do: an urgent byte stays in the stream rather than turn up in
// the set of exceptions, which is for failed connects, and a datagram that finds nobody does not end the next receive.
void adapt(int fd, int type) noexcept {
    constexpr DWORD net_reset = _WSAIOW(IOC_VENDOR, 15);  // SIO_UDP_NETRESET: its time to live ran out
    if (type == SOCK_STREAM) set(fd, SOL_SOCKET, SO_OOBINLINE, BOOL{TRUE});
    if (type == SOCK_DGRAM) {
        switch_off(fd, SIO_UDP_CONNRESET);
        switch_off(fd, net_reset);
    }
}

/// Whether the next call on the socket has something to tell; otherwise the error is "would block", or why not.
bool is_readable(int fd) noexcept {
    fd_set one = {.fd_count = 1, .fd_array = {handle_of(fd)}};
    timeval now{};
    const int ready = select(0, &one, nullptr, nullptr, &now);
    if (ready == 0) WSASetLastError(WSAEWOULDBLOCK);
    return ready > 0;
}

LPFN_ACCEPTEX find_accept(SOCKET listener) noexcept {
    GUID id = WSAID_ACCEPTEX;
    LPFN_ACCEPTEX found = nullptr;
    DWORD written = 0;
    WSAIoctl(listener, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &found, sizeof found, &written, nullptr,
             nullptr);
    return found;
}

/// Takes a waiting connection into a socket. Should it have gone meanwhile, the next one is not waited for: "would
/// block".
bool accept_into(SOCKET listener, SOCKET accepted) noexcept {
    static std::atomic<LPFN_ACCEPTEX> known{nullptr};
    const LPFN_ACCEPTEX accept_ex = known ? known.load() : find_accept(listener);
    const core::owned<void, CloseHandle> done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!accept_ex || !done) return false;
    known = accept_ex;
    constexpr DWORD address = sizeof(sockaddr_in) + 16;
    constexpr DWORD longest_wait = 50;  // milliseconds
    char addresses[2 * address];
    OVERLAPPED call = {};
    call.hEvent = done.get();
    DWORD count = 0;
    if (accept_ex(listener, accepted, addresses, 0, address, address, &count, &call)) return true;
    if (WSAGetLastError() != WSA_IO_PENDING) return false;
    if (WaitForSingleObject(done.get(), longest_wait) != WAIT_OBJECT_0) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a socket is a handle
        CancelIoEx(reinterpret_cast<HANDLE>(listener), &call);
    }
    DWORD flags = 0;
    if (WSAGetOverlappedResult(listener, &call, &count, TRUE, &flags)) return true;
    if (WSAGetLastError() == WSA_OPERATION_ABORTED) WSASetLastError(WSAEWOULDBLOCK);
    return false;
}

int transfer_size(size_t size) noexcept { return static_cast<int>(std::min<size_t>(size, INT_MAX)); }

bool is_closed(int fd) noexcept {
    int type = 0;
    return get(fd, SO_TYPE, type) != 0 && WSAGetLastError() == WSAENOTSOCK;
}

static_assert(FD_SETSIZE >= 512, "a network thread watches 512 readers and 512 writers");

/// One of the three sets of a select().
class descriptor_set {
public:
    /// The caller has each descriptor once: FD_SET() would search the set for it. What does not fit is not watched.
    void add(int fd) noexcept {
        if (set_.fd_count < FD_SETSIZE) set_.fd_array[set_.fd_count++] = handle_of(fd);
    }

    fd_set* members() noexcept { return set_.fd_count ? &set_ : nullptr; }
    bool empty() const noexcept { return set_.fd_count == 0; }

    /// Adds those bits that are wanted to what is found of its members. They come in the order of the watches, so that
    /// one walk finds all.
    void mark(std::span<watch_t> watches, uint8_t bits) const noexcept {
        size_t at = 0;
        for (u_int i = 0; i < set_.fd_count; ++i) {
            size_t left = watches.size();
            while (left != 0 && handle_of(watches[at].fd) != set_.fd_array[i]) {
                at = (at + 1) % watches.size();
                --left;
            }
            if (left != 0) watches[at].found = static_cast<uint8_t>(watches[at].found | (watches[at].wanted & bits));
        }
    }

private:
    fd_set set_ = {};
};

// select() refuses all of them for one that is closed.
int find_closed(std::span<watch_t> watches) noexcept {
    int count = 0;
    for (watch_t& watch : watches) {
        if (!watch.wanted || !is_closed(watch.fd)) continue;
        watch.found = watch_t::closed;
        ++count;
    }
    return count != 0 ? count : -1;
}

void pause(int64_t microseconds) noexcept { Sleep(static_cast<DWORD>((microseconds + 999) / 1000)); }

}  // namespace

// Asked for no version at all the library refuses, and tells the highest that it has.
void start_sockets() noexcept {
    WSADATA data = {};
    if (WSAStartup(0, &data) == 0) WSACleanup();
    WSAStartup(data.wHighVersion, &data);
}

void stop_sockets() noexcept { WSACleanup(); }

int last_error() noexcept { return WSAGetLastError(); }

void set_last_error(int winsock_error) noexcept { WSASetLastError(winsock_error); }

int system_error() noexcept { return WSAGetLastError(); }

const char* system_error_text(int error) noexcept {
    thread_local char text[512];
    wchar_t wide[256];
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  static_cast<DWORD>(error), 0, wide, static_cast<DWORD>(std::size(wide)), nullptr);
    while (length != 0 && wide[length - 1] <= L' ')
        --length;
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), text,
                                         static_cast<int>(sizeof text) - 1, nullptr, nullptr);
    text[size] = '\0';
    return size != 0 ? text : "unknown error";
}

int pending_error(int fd) noexcept {
    int error = 0;
    return get(fd, SO_ERROR, error) == 0 ? error : last_error();
}

int open_socket(int family, int type, int protocol) noexcept {
    const int fd =
        descriptor_of(WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
    if (fd >= 0) adapt(fd, type);
    return fd;
}

// Not by accept(): its socket could be inherited by a child that another thread starts before that is forbidden.
int accept_socket(int fd, sockaddr_in* peer) noexcept {
    if (!is_readable(fd)) return -1;
    const int accepted = open_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (accepted < 0) return -1;
    const SOCKET listener = handle_of(fd);
    if (accept_into(listener, handle_of(accepted)) && set(accepted, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT, listener)) {
        if (peer) peer_address(accepted, *peer);
        return accepted;
    }
    close_socket(accepted);
    return -1;
}

void close_socket(int fd) noexcept {
    const int error = last_error();
    closesocket(handle_of(fd));
    set_last_error(error);
}

// A port that another socket has for itself is refused as one that may not be used. No port needs a privilege here.
bool bind_socket(int fd, const sockaddr_in& address) noexcept {
    if (bind(handle_of(fd), generic(&address), sizeof address) == 0) return true;
    if (last_error() == WSAEACCES) set_last_error(WSAEADDRINUSE);
    return false;
}

// A plain backlog is cut to 200.
bool listen_socket(int fd, int backlog) noexcept {
    constexpr int largest_plain = 200;
    return listen(handle_of(fd), backlog > largest_plain ? -backlog : backlog) == 0;  // SOMAXCONN_HINT()
}

bool connect_socket(int fd, const sockaddr_in& address) noexcept {
    return connect(handle_of(fd), generic(&address), sizeof address) == 0;
}

bool near_address(int fd, sockaddr_in& address) noexcept { return read_address(getsockname, fd, address); }
bool peer_address(int fd, sockaddr_in& address) noexcept { return read_address(getpeername, fd, address); }

bool set_option(int fd, option which, int value) noexcept {
    const option_place& place = option_table[static_cast<size_t>(which)];
    return set(fd, place.level, place.name, value);
}

bool set_blocking(int fd, bool on) noexcept {
    u_long non_blocking = !on;
    return ioctlsocket(handle_of(fd), static_cast<long>(FIONBIO), &non_blocking) == 0;
}

int open_bell() noexcept { return -1; }
void ring_bell(int) noexcept {}
void quiet_bell(int) noexcept {}

// Sharing would let anybody take the port over; the option is refused while reuse is on.
bool set_exclusive(int fd) noexcept {
    return set_option(fd, option::reuse_address, 0) && set(fd, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, BOOL{TRUE});
}

// Fading connections do not hinder the next bind here.
bool set_listener(int fd) noexcept { return set_exclusive(fd); }

bool join_group(int fd, in_addr group, in_addr via) noexcept {
    const ip_mreq request = {.imr_multiaddr = group, .imr_interface = via};
    return set(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, request);
}

bool set_multicast_interface(int fd, in_addr via) noexcept { return set(fd, IPPROTO_IP, IP_MULTICAST_IF, via); }

int send_bytes(int fd, std::span<const uint8_t> bytes, const sockaddr_in* to) noexcept {
    return sendto(handle_of(fd), reinterpret_cast<const char*>(bytes.data()), transfer_size(bytes.size()), 0,
                  generic(to), to ? sizeof *to : 0);
}

int send_pieces(int fd, const std::array<buffer_t, 3>& runs) noexcept {
    WSABUF pieces[3];
    std::ranges::transform(runs, pieces, [](const buffer_t& each) {
        return WSABUF{each.size, reinterpret_cast<char*>(each.data)};
    });
    DWORD went = 0;
    return WSASend(handle_of(fd), pieces, 3, &went, 0, nullptr, nullptr) == 0 ? static_cast<int>(went) : -1;
}

void end_output(int fd) noexcept { shutdown(handle_of(fd), SD_SEND); }

void reset_on_close(int fd) noexcept {
    const linger none{.l_onoff = 1, .l_linger = 0};
    setsockopt(handle_of(fd), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&none), sizeof none);
}

// A datagram that is longer than the room for it is cut, as elsewhere, and is no error.
int receive_bytes(int fd, std::span<uint8_t> bytes, sockaddr_in* from) noexcept {
    int size = sizeof *from;
    const int room = transfer_size(bytes.size());
    const int count =
        recvfrom(handle_of(fd), reinterpret_cast<char*>(bytes.data()), room, 0, generic(from), from ? &size : nullptr);
    return count < 0 && last_error() == WSAEMSGSIZE ? room : count;
}

int wait_sockets(std::span<watch_t> watches, int64_t microseconds) noexcept {
    descriptor_set readers, writers, failed;
    for (watch_t& watch : watches) {
        watch.found = 0;
        if (watch.wanted & watch_t::read) readers.add(watch.fd);
        if (watch.wanted & watch_t::write) writers.add(watch.fd);
        if (watch.wanted & watch_t::write) failed.add(watch.fd);  // that a connect failed is told there alone
    }
    if (readers.empty() && writers.empty()) {  // select() would not wait
        pause(microseconds);
        return 0;
    }
    timeval longest{.tv_sec = static_cast<long>(microseconds / 1'000'000),
                    .tv_usec = static_cast<long>(microseconds % 1'000'000)};
    const int ready = select(0, readers.members(), writers.members(), failed.members(), &longest);
    if (ready < 0) return WSAGetLastError() == WSAENOTSOCK ? find_closed(watches) : -1;
    if (ready == 0) return 0;
    readers.mark(watches, watch_t::read);
    writers.mark(watches, watch_t::write);
    failed.mark(watches, watch_t::read | watch_t::write);
    return static_cast<int>(std::ranges::count_if(watches, [](const watch_t& watch) { return watch.found != 0; }));
}

waiter::~waiter() = default;
bool waiter::begin_round() noexcept { return false; }
void waiter::tell(watch_t& watch, uint32_t) noexcept { watch.held = watch.wanted; }
void waiter::leave(int) noexcept {}
int waiter::wait(std::span<watch_t> watches, int64_t microseconds) noexcept {
    return wait_sockets(watches, microseconds);
}

}  // namespace net::platform
