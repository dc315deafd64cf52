#include "client.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <netdb.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <optional>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>

namespace load {
namespace {

constexpr unsigned keep_alive_seconds = 20;
constexpr int datagram_buffer = 4 << 20;
constexpr int stalled_buffer = 64 << 10;

descriptor make_socket(int type) { return descriptor(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

void set_option(int fd, int level, int name, int value) { setsockopt(fd, level, name, &value, sizeof(value)); }

bool bind_to(int fd, uint16_t port) {
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(port);
    return bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
}

uint16_t port_of(int fd) {
    sockaddr_in bound{};
    socklen_t size = sizeof(bound);
    return getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0 ? ntohs(bound.sin_port) : uint16_t{0};
}

/// Room enough that what is lost was not lost for want of it; beyond the system's limit where that is allowed.
void widen(int fd) {
    set_option(fd, SOL_SOCKET, SO_RCVBUF, datagram_buffer);
    set_option(fd, SOL_SOCKET, SO_RCVBUFFORCE, datagram_buffer);
}

/// An even and the odd port after it (RFC 3550, section 11).
bool make_pair(descriptor& rtp, descriptor& rtcp) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        descriptor first = make_socket(SOCK_DGRAM);
        descriptor second = make_socket(SOCK_DGRAM);
        if (!first || !second || !bind_to(first.get(), 0)) return false;
        const uint16_t port = port_of(first.get());
        if (!bind_to(second.get(), static_cast<uint16_t>(port ^ 1))) continue;
        if (port % 2) std::swap(first, second);
        rtp = std::move(first);
        rtcp = std::move(second);
        widen(rtp.get());
        return true;
    }
    return false;
}

std::string base64(std::string_view text) {
    constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < text.size(); i += 3) {
        const size_t count = std::min<size_t>(3, text.size() - i);
        uint32_t group = 0;
        for (size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < count ? static_cast<uint8_t>(text[i + k]) : 0u);
        for (size_t k = 0; k < 4; ++k)
            out.push_back(k <= count ? letters[group >> (18 - 6 * k) & 63] : '=');
    }
    return out;
}

std::string path_of(const std::string& url) {
    const size_t slash = url.find('/', url.find("://") + 3);
    return slash == std::string::npos ? "/" : url.substr(slash);
}

/// Control of the first video track, as a URL.
std::string video_control(const std::string& sdp, const std::string& base) {
    const size_t media = sdp.find("m=video");
    constexpr std::string_view attribute = "a=control:";
    const size_t at = media == std::string::npos ? media : sdp.find(attribute, media);
    if (at == std::string::npos || sdp.find("\nm=", media) < at) return {};
    std::string control = sdp.substr(at + attribute.size());
    control.resize(std::min(control.find_first_of("\r\n"), control.size()));
    if (control.starts_with("rtsp://")) return control;
    return base + (base.ends_with('/') ? "" : "/") + control;
}

/// A parameter of a Transport header: "port=5000-5001" tells "5000-5001".
std::string parameter(const std::string& transport, const std::string& name) {
    const size_t at = transport.find(";" + name + "=");
    if (at == std::string::npos) return {};
    const std::string value = transport.substr(at + name.size() + 2);
    return value.substr(0, value.find(';'));
}

}  // namespace

bool resolve(const std::string& url, sockaddr_in& address) {
    constexpr std::string_view scheme = "rtsp://";
    if (!url.starts_with(scheme)) return false;
    std::string host = url.substr(scheme.size());
    host.resize(std::min(host.find('/'), host.size()));
    const size_t colon = host.find(':');
    const std::string port = colon == std::string::npos ? "554" : host.substr(colon + 1);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.substr(0, colon).c_str(), port.c_str(), &hints, &found) != 0) return false;
    std::memcpy(&address, found->ai_addr, sizeof(address));
    freeaddrinfo(found);
    return true;
}

client::client(const target& server, manner_t manner, int epoll)
    : server_(server), manner_(manner), epoll_(epoll), video_(server.ticks), base_(server.url) {
    control_.owner = post_.owner = rtp_.owner = this;
    incoming_.on_packet = [this](uint8_t channel, bytes head, size_t length) {
        if (channel == 0) video_.take(head, length, now_, measuring_);
    };
    incoming_.on_response = [this](const std::string& response) { on_response(response); };
    if (!connect(control_)) fail("cannot connect");
}

client::~client() {
    if (state_ != state_t::playing || manner_ != manner_t::watch) return;
    request("TEARDOWN", base_, {}, nullptr);
}

bool client::connect(source& to) {
    to.fd = make_socket(SOCK_STREAM);
    if (!to.fd) return false;
    if (manner_ == manner_t::stall) set_option(to.fd.get(), SOL_SOCKET, SO_RCVBUF, stalled_buffer);
    set_option(to.fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    const auto* address = reinterpret_cast<const sockaddr*>(&server_.address);
    if (::connect(to.fd.get(), address, sizeof(server_.address)) != 0 && errno != EINPROGRESS) return false;
    return watch(to, EPOLLOUT);
}

bool client::watch(source& what, uint32_t events) {
    epoll_event wanted{};
    wanted.events = events;
    wanted.data.ptr = &what;
    return epoll_ctl(epoll_, EPOLL_CTL_ADD, what.fd.get(), &wanted) == 0 ||
           epoll_ctl(epoll_, EPOLL_CTL_MOD, what.fd.get(), &wanted) == 0;
}

void client::fail(const std::string& reason) {
    if (state_ == state_t::ended) return;
    state_ = state_t::ended;
    reason_ = reason;
    // Closed, so that no event comes any more; kept otherwise for what was counted.
    control_.fd = descriptor();
    post_.fd = descriptor();
    rtp_.fd = descriptor();
}

void client::on_event(const void* user_data, uint32_t events, std::span<uint8_t> scratch, bool measuring) {
    if (state_ == state_t::ended) return;
    now_ = clock_now();
    measuring_ = measuring;
    if (user_data == &rtp_) return server_.uncut ? read_uncut(scratch, measuring) : read_datagrams(measuring);
    auto& connection = user_data == &post_ ? post_ : control_;
    if (!connection.open && (events & (EPOLLERR | EPOLLHUP))) return fail("connection refused");
    if (!connection.open) return on_open(connection);
    if (user_data == &control_) return read_connection(scratch, measuring);
    // Nothing comes on the POST half of a tunnel but its end.
    if (recv(post_.fd.get(), scratch.data(), scratch.size(), 0) == 0) fail("POST closed by the server");
}

void client::on_open(source& opened) {
    opened.open = true;
    if (!watch(opened, EPOLLIN)) return fail("out of watches");
    if (manner_ == manner_t::slow) {
        state_ = state_t::playing;
        return send_text(opened.fd.get(), "OPTIONS " + server_.url + " RTSP/1.0\r\nX-Slow: ");
    }
    if (&opened == &post_) {
        send_text(post_.fd.get(),
                  "POST " + path_of(server_.url) + " HTTP/1.0\r\nx-sessioncookie: " + cookie_ +
                      "\r\nContent-Type: application/x-rtsp-tunnelled\r\nContent-Length: 32767\r\n\r\n");
    } else if (server_.transport == transport_t::http) {
        cookie_ = std::to_string(now_) + "x" + std::to_string(opened.fd.get());
        next_ = &client::on_tunnel;
        return send_text(opened.fd.get(), "GET " + path_of(server_.url) + " HTTP/1.0\r\nx-sessioncookie: " + cookie_ +
                                              "\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n");
    }
    request("OPTIONS", server_.url, {}, &client::on_options);
}

void client::on_tunnel(const std::string&) {
    next_ = nullptr;
    if (!connect(post_)) fail("cannot connect");
}

void client::read_connection(std::span<uint8_t> scratch, bool) {
    const ssize_t count = recv(control_.fd.get(), scratch.data(), scratch.size(), 0);
    if (count == 0) return fail("closed by the server");
    if (count < 0) return errno == EAGAIN || errno == EINTR ? void() : fail(std::strerror(errno));
    if (manner_ == manner_t::slow) return;
    if (!incoming_.feed(bytes(scratch.data(), static_cast<size_t>(count)))) fail("no RTSP");
}

void client::read_datagrams(bool measuring) {
    constexpr unsigned batch = 32;
    std::array<std::array<uint8_t, head_size>, batch> heads;
    std::array<iovec, batch> pieces;
    std::array<mmsghdr, batch> messages{};
    for (size_t i = 0; i < batch; ++i) {
        pieces[i] = {heads[i].data(), head_size};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    // The system drops what is beyond the head and tells the whole length all the same.
    const int count = recvmmsg(rtp_.fd.get(), messages.data(), batch, MSG_TRUNC, nullptr);
    for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
        const size_t length = messages[i].msg_len;
        video_.take(bytes(heads[i]).first(std::min(length, head_size)), length, now_, measuring);
    }
}

void client::read_uncut(std::span<uint8_t> scratch, bool measuring) {
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control;
    iovec piece{scratch.data(), scratch.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    for (;;) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = recvmsg(rtp_.fd.get(), &message, 0);
        if (count <= 0) return;
        auto rest = bytes(scratch.data(), static_cast<size_t>(count));
        int size = static_cast<int>(count);
        const cmsghdr* const cut = CMSG_FIRSTHDR(&message);
        if (cut && cut->cmsg_level == IPPROTO_UDP && cut->cmsg_type == UDP_GRO) {
            std::memcpy(&size, CMSG_DATA(cut), sizeof size);
        }
        while (!rest.empty()) {
            const auto packet = rest.first(std::min(rest.size(), static_cast<size_t>(size)));
            video_.take(packet.first(std::min(packet.size(), head_size)), packet.size(), now_, measuring);
            rest = rest.subspan(packet.size());
        }
    }
}

void client::send_text(int fd, const std::string& text) {
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        fail("the server takes no request");
    }
}

void client::request(const std::string& method, const std::string& url, const std::string& headers, step_t next) {
    next_ = next;
    std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++sequence_) + "\r\n" + headers;
    if (!session_.empty()) text += "Session: " + session_ + "\r\n";
    text += "\r\n";
    if (post_.fd) {
        send_text(post_.fd.get(), base64(text));
    } else {
        send_text(control_.fd.get(), text);
    }
}

void client::on_response(const std::string& response) {
    if (state_ == state_t::ended) return;
    if (response.substr(0, response.find("\r\n")).find(" 200") == std::string::npos) {
        return fail("the server answers " + response.substr(0, response.find("\r\n")));
    }
    if (next_) (this->*next_)(response);
}

void client::on_options(const std::string&) {
    request("DESCRIBE", server_.url, "Accept: application/sdp\r\n", &client::on_describe);
}

std::string client::wanted_transport() {
    switch (server_.transport) {
        case transport_t::udp: {
            if (!make_pair(rtp_.fd, rtcp_) || !watch(rtp_, EPOLLIN)) return {};
            set_option(rtp_.fd.get(), IPPROTO_UDP, UDP_GRO, server_.uncut ? 1 : 0);
            const unsigned port = port_of(rtp_.fd.get());
            return "RTP/AVP;unicast;client_port=" + std::to_string(port) + "-" + std::to_string(port + 1);
        }
        case transport_t::multicast:
            return "RTP/AVP;multicast";
        default:
            return "RTP/AVP/TCP;unicast;interleaved=0-1";
    }
}

void client::on_describe(const std::string& response) {
    const std::string announced = header_value(response, "Content-Base");
    if (!announced.empty()) base_ = announced;
    const std::string control = video_control(response, base_);
    if (control.empty()) return fail("no video track is announced");
    const std::string transport = wanted_transport();
    if (transport.empty()) return fail("no pair of UDP ports");
    request("SETUP", control, "Transport: " + transport + "\r\n", &client::on_setup);
}

/// Joins the group that the server named.
bool client::join(const std::string& transport) {
    ip_mreq group{};
    const std::string ports = parameter(transport, "port");
    uint16_t port = 0;
    std::from_chars(ports.data(), ports.data() + ports.size(), port);
    if (!inet_aton(parameter(transport, "destination").c_str(), &group.imr_multiaddr) || !port) return false;
    // Where the connection to the server leaves, its group is.
    sockaddr_in near{};
    socklen_t size = sizeof(near);
    getsockname(control_.fd.get(), reinterpret_cast<sockaddr*>(&near), &size);
    group.imr_interface = near.sin_addr;
    rtp_.fd = make_socket(SOCK_DGRAM);
    if (!rtp_.fd) return false;
    set_option(rtp_.fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    widen(rtp_.fd.get());
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    bound.sin_port = htons(port);
    bound.sin_addr = group.imr_multiaddr;
    return bind(rtp_.fd.get(), reinterpret_cast<const sockaddr*>(&bound), sizeof(bound)) == 0 &&
           setsockopt(rtp_.fd.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof(group)) == 0 && watch(rtp_, EPOLLIN);
}

void client::on_setup(const std::string& response) {
    session_ = header_value(response, "Session");
    session_.resize(std::min(session_.find(';'), session_.size()));
    if (server_.transport == transport_t::multicast && !join(header_value(response, "Transport"))) {
        return fail("cannot join the group");
    }
    asked_ = clock_now();
    request("PLAY", base_, {}, &client::on_play);
}

void client::on_play(const std::string&) {
    next_ = nullptr;
    state_ = state_t::playing;
    if (manner_ == manner_t::stall) epoll_ctl(epoll_, EPOLL_CTL_DEL, control_.fd.get(), nullptr);
}

void client::on_second() {
    if (state_ != state_t::playing) return;
    if (manner_ == manner_t::slow) return send_text(control_.fd.get(), "a");
    if (manner_ == manner_t::watch && ++seconds_ % keep_alive_seconds == 0) request("OPTIONS", base_, {}, nullptr);
}

bool client::was_dropped(std::span<uint8_t> scratch) {
    if (state_ != state_t::playing) return true;
    for (;;) {
        const ssize_t count = recv(control_.fd.get(), scratch.data(), scratch.size(), 0);
        if (count == 0 || (count < 0 && errno == ECONNRESET)) return true;
        if (count < 0) return false;
    }
}

}  // namespace load
