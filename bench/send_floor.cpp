// What the system takes for media on the loopback, whoever sends it: a bare sender beside which servers are measured
// (Linux). A picture of 20 KB goes 25 times a second to each receiver with as few calls as there are, from one buffer
// and without a protocol; a second process reads and forgets.
//
//   send_floor tcp|udp|udp-gro RECEIVERS SECONDS
//
// Over UDP a picture is datagrams of 1400 bytes which the system cuts (UDP_SEGMENT), the first a byte shorter as an
// FU-A's is; with udp-gro the receivers take it uncut (UDP_GRO). Prints processor seconds of the sender for each GB.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t segment = 1400;
constexpr size_t picture_size = 15 * segment;
constexpr auto picture_time = std::chrono::milliseconds(40);
constexpr int receive_room = 4 << 20;

struct link_t {
    int sender;
    int receiver;
    sockaddr_in to;  ///< of datagrams
};

sockaddr_in local(int fd) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    return address;
}

int bound_socket(int type) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        std::perror("send_floor");
        std::exit(1);
    }
    return fd;
}

std::vector<link_t> make_connections(size_t count) {
    const int listener = bound_socket(SOCK_STREAM);
    listen(listener, 8);
    const sockaddr_in to = local(listener);
    std::vector<link_t> links;
    while (links.size() < count) {
        const int receiver = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        connect(receiver, reinterpret_cast<const sockaddr*>(&to), sizeof to);
        links.push_back({accept(listener, nullptr, nullptr), receiver, {}});
    }
    return links;
}

std::vector<link_t> make_ports(size_t count, bool uncut) {
    const int sender = bound_socket(SOCK_DGRAM);
    std::vector<link_t> links;
    while (links.size() < count) {
        const int receiver = bound_socket(SOCK_DGRAM);
        setsockopt(receiver, SOL_SOCKET, SO_RCVBUF, &receive_room, sizeof receive_room);
        const int on = uncut ? 1 : 0;
        setsockopt(receiver, IPPROTO_UDP, UDP_GRO, &on, sizeof on);
        links.push_back({sender, receiver, local(receiver)});
    }
    return links;
}

/// Reads until it is killed.
[[noreturn]] void receive(const std::vector<link_t>& links) {
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (const link_t& each : links) {
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        wanted.data.fd = each.receiver;
        epoll_ctl(epoll, EPOLL_CTL_ADD, each.receiver, &wanted);
    }
    std::vector<uint8_t> room(64 << 10);
    std::array<epoll_event, 64> events;
    for (;;) {
        const int count = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < count; ++i) {
            while (recv(events[static_cast<size_t>(i)].data.fd, room.data(), room.size(), MSG_DONTWAIT) > 0) {
            }
        }
    }
}

/// The two messages of a picture: its first datagram, and the others in one piece.
void send_datagrams(const link_t& to, uint8_t* picture) {
    std::array<iovec, 2> pieces{{{picture, segment - 1}, {picture + segment, picture_size - segment}}};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(uint16_t))> control{};
    std::array<mmsghdr, 2> messages{};
    for (size_t i = 0; i < messages.size(); ++i) {
        msghdr& header = messages[i].msg_hdr;
        header.msg_name = const_cast<sockaddr_in*>(&to.to);
        header.msg_namelen = sizeof to.to;
        header.msg_iov = &pieces[i];
        header.msg_iovlen = 1;
    }
    messages[1].msg_hdr.msg_control = control.data();
    messages[1].msg_hdr.msg_controllen = control.size();
    cmsghdr* const cut = CMSG_FIRSTHDR(&messages[1].msg_hdr);
    cut->cmsg_level = IPPROTO_UDP;
    cut->cmsg_type = UDP_SEGMENT;
    cut->cmsg_len = CMSG_LEN(sizeof(uint16_t));
    const uint16_t size = segment;
    std::memcpy(CMSG_DATA(cut), &size, sizeof size);
    sendmmsg(to.sender, messages.data(), 2, MSG_NOSIGNAL);
}

double processor_time() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view how = argc == 4 ? argv[1] : "";
    const size_t receivers = argc == 4 ? std::strtoul(argv[2], nullptr, 10) : 0;
    const auto pictures = argc == 4 ? 25 * std::strtoul(argv[3], nullptr, 10) : 0;
    if (receivers == 0 || pictures == 0 || (how != "tcp" && how != "udp" && how != "udp-gro")) {
        std::fprintf(stderr, "usage: send_floor tcp|udp|udp-gro RECEIVERS SECONDS\n");
        return 2;
    }
    const auto links = how == "tcp" ? make_connections(receivers) : make_ports(receivers, how == "udp-gro");
    const pid_t reader = fork();
    if (reader == 0) receive(links);
    std::vector<uint8_t> picture(picture_size, 1);
    const double begin = processor_time();
    auto due = std::chrono::steady_clock::now();
    for (size_t i = 0; i < pictures; ++i, due += picture_time) {
        std::this_thread::sleep_until(due);
        for (const link_t& each : links) {
            if (how != "tcp") {
                send_datagrams(each, picture.data());
            } else {
                send(each.sender, picture.data(), picture.size(), MSG_NOSIGNAL);
            }
        }
    }
    const double used = processor_time() - begin;
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
    std::printf("%.4f\n", used / (static_cast<double>(pictures * receivers * picture_size) / 1e9));
}
