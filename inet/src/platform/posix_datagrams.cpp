// Many datagrams with few calls: recvmmsg(2), and sendmmsg(2) with segmentation offload (UDP_SEGMENT, udp(7)) where the
// kernel has it.
#include "platform/datagram_runs.h"

#include "core/owned.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <netinet/udp.h>
#include <sys/socket.h>

namespace net::platform {

namespace {

constexpr size_t max_messages = 64;  // of one call
constexpr size_t max_pieces = 256;   // datagrams of one call

// An interface without checksum offload refuses segments. Told once, it is not asked again.
std::atomic<bool> segments_refused{false};

bool read_option(int fd, int level, int name, int& value) noexcept {
    socklen_t size = sizeof value;
    return getsockopt(fd, level, name, &value, &size) == 0;
}

/// Asked once, of the first UDP socket that comes: another one knows nothing of it.
bool kernel_cuts_segments(int fd) noexcept {
    static std::atomic<bool> asked{false}, known{false};
    if (!asked) {
        int value = 0;
        if (!read_option(fd, SOL_SOCKET, SO_PROTOCOL, value) || value != IPPROTO_UDP) return false;
        known = read_option(fd, IPPROTO_UDP, UDP_SEGMENT, value);
        asked = true;
    }
    return known && !segments_refused;
}

/// The messages of one call.
class batch {
public:
    /// Takes datagrams from the front, as many as there is room for. @return those that are left
    std::span<const datagram_t> fill(std::span<const datagram_t> datagrams, bool in_segments) noexcept {
        messages_ = 0;
        size_t used = 0;
        while (messages_ < max_messages && !datagrams.empty()) {
            const size_t run = in_segments ? run_length(datagrams) : 1;
            if (used + run > max_pieces) break;
            add(datagrams.first(run), pieces_ + used);
            used += run;
            datagrams = datagrams.subspan(run);
        }
        return datagrams;
    }

    /// Has all of them go to one address, which outlives the calls.
    void address(const sockaddr_in& to) noexcept {
        for (size_t i = 0; i < messages_; ++i) {
            headers_[i].msg_hdr.msg_name = const_cast<sockaddr_in*>(&to);  // the kernel reads it
            headers_[i].msg_hdr.msg_namelen = sizeof to;
        }
    }

    /// @return messages that went, or -1
    int send(int fd) noexcept { return sendmmsg(fd, headers_, static_cast<unsigned>(messages_), MSG_NOSIGNAL); }

    /// Datagrams in the first messages.
    size_t datagrams(int messages) const noexcept {
        size_t count = 0;
        for (int i = 0; i < messages; ++i)
            count += counts_[i];
        return count;
    }

private:
    void add(std::span<const datagram_t> run, iovec* pieces) noexcept {
        size_t count = 0;  // of pieces: neighbours in memory are one
        for (const datagram_t& each : run) {
            auto* const data = const_cast<uint8_t*>(each.data);  // the kernel reads it
            iovec* const last = count ? &pieces[count - 1] : nullptr;
            if (last && static_cast<uint8_t*>(last->iov_base) + last->iov_len == data) {
                last->iov_len += each.size;
            } else {
                pieces[count++] = {data, each.size};
            }
        }
        msghdr& header = headers_[messages_].msg_hdr;
        header = {};
        header.msg_name = const_cast<sockaddr_in*>(run.front().to);
        header.msg_namelen = run.front().to ? sizeof(sockaddr_in) : 0;
        header.msg_iov = pieces;
        header.msg_iovlen = count;
        counts_[messages_] = run.size();
        if (run.size() > 1) cut(header, static_cast<uint16_t>(run.front().size));
        ++messages_;
    }

    void cut(msghdr& header, uint16_t size) noexcept {
        header.msg_control = controls_[messages_].bytes;
        header.msg_controllen = sizeof controls_[messages_].bytes;
        cmsghdr* control = CMSG_FIRSTHDR(&header);
        control->cmsg_level = IPPROTO_UDP;
        control->cmsg_type = UDP_SEGMENT;
        control->cmsg_len = CMSG_LEN(sizeof size);
        std::memcpy(CMSG_DATA(control), &size, sizeof size);
    }

    struct alignas(cmsghdr) control_room {
        char bytes[CMSG_SPACE(sizeof(uint16_t))];
    };

    size_t messages_ = 0;
    size_t counts_[max_messages];  // of datagrams
    mmsghdr headers_[max_messages];
    iovec pieces_[max_pieces];
    control_room controls_[max_messages];
};

/// Whether the system may take the datagrams of a refused message one by one: the interface cuts no segments, or the
/// path takes only shorter ones, for which single datagrams are fragmented.
bool may_go_singly(int error) noexcept {
    if (error == EIO) segments_refused = true;
    return error == EIO || error == EINVAL || error == EMSGSIZE;
}

}  // namespace

int send_datagrams(int fd, std::span<const datagram_t> datagrams) noexcept {
    batch calls;
    size_t sent = 0;
    size_t singly = 0;  // datagrams from the next one on that are not to be cut by the system
    while (sent < datagrams.size()) {
        const auto rest = datagrams.subspan(sent);
        const bool in_segments = singly == 0 && kernel_cuts_segments(fd);
        calls.fill(singly ? rest.first(singly) : rest, in_segments);
        const int messages = calls.send(fd);
        if (messages < 0) {
            if (errno == EINTR) continue;
            const size_t run = calls.datagrams(1);
            if (run == 1 || !may_go_singly(errno)) break;
            singly = run;
            continue;
        }
        const size_t went = calls.datagrams(messages);
        sent += went;
        singly -= std::min(singly, went);
    }
    return sent || datagrams.empty() ? static_cast<int>(sent) : -1;
}

struct letters::inside {
    batch messages;
    sockaddr_in to{};
    bool ready = false;
};

letters::~letters() { core::destroy(inside_); }

void letters::prepare(std::span<const datagram_t> datagrams) noexcept {
    if (!inside_) inside_ = core::create<inside>(CORE_HERE);
    if (!inside_) return;
    // Those that take more than a call, and a system that does not cut, have the usual way.
    inside_->ready = !segments_refused && inside_->messages.fill(datagrams, true).empty();
    inside_->messages.address(inside_->to);
}

uint32_t letters::send(int fd, const sockaddr_in& to) noexcept {
    if (!inside_ || !inside_->ready || !kernel_cuts_segments(fd)) return 0;
    inside_->to = to;
    const int messages = inside_->messages.send(fd);
    return messages > 0 ? static_cast<uint32_t>(inside_->messages.datagrams(messages)) : 0;
}

int receive_datagrams(int fd, std::span<received_t> datagrams) noexcept {
    mmsghdr headers[max_messages];
    iovec pieces[max_messages];
    int received = 0;
    while (!datagrams.empty()) {
        const auto asked = datagrams.first(std::min(datagrams.size(), max_messages));
        for (size_t i = 0; i < asked.size(); ++i) {
            pieces[i] = {asked[i].bytes.data, asked[i].bytes.size};
            headers[i].msg_hdr = {};
            headers[i].msg_hdr.msg_name = &asked[i].from;
            headers[i].msg_hdr.msg_namelen = sizeof asked[i].from;
            headers[i].msg_hdr.msg_iov = &pieces[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        const int count = recvmmsg(fd, headers, static_cast<unsigned>(asked.size()), MSG_DONTWAIT, nullptr);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) break;
        for (size_t i = 0; i < static_cast<size_t>(count); ++i)
            asked[i].bytes.length = headers[i].msg_len;
        received += count;
        if (static_cast<size_t>(count) < asked.size()) break;
        datagrams = datagrams.subspan(asked.size());
    }
    return received != 0 ? received : -1;
}

}  // namespace net::platform
