// Many datagrams: sent with one call for a run that the system cuts itself (UDP_SEND_MSG_SIZE, Windows 10 2004 and
// later), else and received with one call for each.
#include "platform/datagram_runs.h"
#include "platform/windows_socket.h"

#include <atomic>
#include <cstring>
#include <mswsock.h>
#include <ws2tcpip.h>

namespace net::platform {

namespace {

constexpr int send_msg_size = 2;  // UDP_SEND_MSG_SIZE, which the headers of MinGW-w64 do not have

// Told once that an interface cannot, it is not asked again.
std::atomic<bool> segments_refused{false};

bool protocol_is_udp(int fd) noexcept {
    WSAPROTOCOL_INFOW info = {};
    int size = sizeof info;
    return getsockopt(handle_of(fd), SOL_SOCKET, SO_PROTOCOL_INFOW, reinterpret_cast<char*>(&info), &size) == 0 &&
           info.iProtocol == IPPROTO_UDP;
}

/// Asked once, of the first UDP socket that comes.
bool system_cuts_segments(int fd) noexcept {
    static std::atomic<bool> asked{false}, known{false};
    if (!asked) {
        if (!protocol_is_udp(fd)) return false;
        DWORD value = 0;
        int size = sizeof value;
        known = getsockopt(handle_of(fd), IPPROTO_UDP, send_msg_size, reinterpret_cast<char*>(&value), &size) == 0;
        asked = true;
    }
    return known && !segments_refused;
}

/// Sends a run as one message. @return false when the system refused
bool send_run(int fd, std::span<const datagram_t> run) noexcept {
    WSABUF pieces[max_segments];
    std::ranges::transform(run, pieces, [](const datagram_t& each) {
        return WSABUF{each.size, reinterpret_cast<char*>(const_cast<uint8_t*>(each.data))};  // the system reads it
    });
    const DWORD size = run.front().size;
    alignas(WSACMSGHDR) char control[WSA_CMSG_SPACE(sizeof size)] = {};
    auto* const head = reinterpret_cast<WSACMSGHDR*>(control);
    *head = {.cmsg_len = WSA_CMSG_LEN(sizeof size), .cmsg_level = IPPROTO_UDP, .cmsg_type = send_msg_size};
    std::memcpy(WSA_CMSG_DATA(head), &size, sizeof size);
    const sockaddr_in* const to = run.front().to;
    WSAMSG message = {.name = const_cast<sockaddr*>(generic(to)),
                      .namelen = to ? static_cast<int>(sizeof *to) : 0,
                      .lpBuffers = pieces,
                      .dwBufferCount = static_cast<DWORD>(run.size()),
                      .Control = {sizeof control, control},
                      .dwFlags = 0};
    DWORD sent = 0;
    return WSASendMsg(handle_of(fd), &message, 0, &sent, nullptr, nullptr) == 0;
}

/// Whether the datagrams of a refused message may go one by one: the interface cuts none, or the path takes only
/// shorter ones, for which single datagrams are fragmented.
bool may_go_singly(int error) noexcept {
    if (error == WSAEOPNOTSUPP || error == WSAEINVAL) segments_refused = true;
    return error == WSAEOPNOTSUPP || error == WSAEINVAL || error == WSAEMSGSIZE;
}

/// @return how many went before one was refused
size_t send_singly(int fd, std::span<const datagram_t> datagrams) noexcept {
    size_t sent = 0;
    while (sent < datagrams.size()) {
        const datagram_t& each = datagrams[sent];
        if (send_bytes(fd, {each.data, each.size}, each.to) < 0) break;
        ++sent;
    }
    return sent;
}

}  // namespace

int send_datagrams(int fd, std::span<const datagram_t> datagrams) noexcept {
    size_t sent = 0;
    while (sent < datagrams.size()) {
        const auto rest = datagrams.subspan(sent);
        const auto run = rest.first(system_cuts_segments(fd) ? run_length(rest) : 1);
        const bool whole = run.size() > 1 && send_run(fd, run);
        if (!whole && run.size() > 1 && !may_go_singly(last_error())) break;
        const size_t went = whole ? run.size() : send_singly(fd, run);
        sent += went;
        if (went < run.size()) break;
    }
    return sent != 0 || datagrams.empty() ? static_cast<int>(sent) : -1;
}

letters::~letters() = default;
void letters::prepare(std::span<const datagram_t>) noexcept {}
uint32_t letters::send(int, const sockaddr_in&) noexcept { return 0; }

int receive_datagrams(int fd, std::span<received_t> datagrams) noexcept {
    int received = 0;
    for (received_t& each : datagrams) {
        const int count = receive_bytes(fd, {each.bytes.data, each.bytes.size}, &each.from);
        if (count < 0) return received != 0 ? received : -1;
        each.bytes.length = static_cast<uint32_t>(count);
        ++received;
    }
    return received;
}

}  // namespace net::platform
