// What the system takes for media on the loopback, whoever sends it: a bare server beside which servers are measured
// (Linux). It says to players what they want to hear, in fixed words, and sends each of them the pictures of a clip,
// over and over at their pace, by as few calls as there are, on one thread.
//
//   send_floor CLIP.h264 [FPS]
//   send_floor --multipart FPS FILE.jpg...
//
// The second form sends JPEG pictures to HTTP clients, each as a part of a multipart body with one send.
//
// The pictures are cut before it begins. For each player a plain loop stamps the packets. Over TCP (TCP_NODELAY) they
// go with one send. Over UDP they go with one sendmmsg, runs of one size in one message that the system cuts
// (UDP_SEGMENT). No clock, no reports, no player that is slow. Prints its address, and "ready".
#include "avc/access_units.h"
#include "avc/fcc.h"
#include "avc/frame.h"
#include "core/memory.h"
#include "inet/rtp_packets.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <netinet/udp.h>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t framing = 4;  // of a packet on an RTSP connection
constexpr size_t most_runs = 16;

struct message_t {
    iovec bytes;
    uint16_t segment;  ///< size of its datagrams; 0 for one
};

/// A picture as packets, once for TCP and once for UDP.
struct picture_t {
    std::vector<size_t> sizes;
    std::vector<uint8_t> framed;
    std::vector<uint8_t> bare;
    std::vector<message_t> messages;
};

struct player_t {
    int fd = -1;
    std::string request;
    bool playing = false;
    bool udp = false;
    sockaddr_in port{};
    uint16_t seq = 0;
    uint32_t ssrc = 0;
};

void put(uint8_t* to, uint32_t value, int bytes) {
    while (bytes-- > 0)
        *to++ = static_cast<uint8_t>(value >> 8 * bytes);
}

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

/// Runs of datagrams of one size, of which the last may be shorter: one message each.
void make_messages(picture_t& picture) {
    uint8_t* at = picture.bare.data();
    for (size_t i = 0; i < picture.sizes.size();) {
        const size_t size = picture.sizes[i];
        size_t count = 0;
        size_t bytes = 0;
        while (i < picture.sizes.size() && picture.sizes[i] <= size && count < 44) {
            bytes += picture.sizes[i];
            ++count;
            if (picture.sizes[i++] < size) break;
        }
        picture.messages.push_back({{at, bytes}, count > 1 ? static_cast<uint16_t>(size) : uint16_t{0}});
        at += bytes;
    }
    if (picture.messages.size() > most_runs) fail("a picture of too many runs");
}

picture_t cut(buffer_t unit) {
    rtp::Packets packets(CORE_HERE);
    av::frame_t* frame = avc_frame_create(av::fcc_h264, 0, unit.data, unit.size, CORE_HERE);
    if (!frame || !packets.cut(frame)) fail("send_floor: cannot cut");
    if (!frame || !packets.cut(frame)) fail("send_floor: cannot cut");
    avc_frame_need(frame);
    const buffer_t whole = packets.interleaved();
    picture_t made;
    made.framed.assign(whole.data, whole.data + whole.size);
    for (size_t at = 0; at < made.framed.size(); at += framing + made.sizes.back()) {
        made.sizes.push_back(static_cast<size_t>(made.framed[at + 2] << 8 | made.framed[at + 3]));
        const auto packet = made.framed.begin() + static_cast<ptrdiff_t>(at + framing);
        packet[1] = static_cast<uint8_t>((packet[1] & 0x80) | 96);
        made.bare.insert(made.bare.end(), packet, packet + static_cast<ptrdiff_t>(made.sizes.back()));
    }
    make_messages(made);
    return made;
}

std::vector<picture_t> load(const char* path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    std::vector<picture_t> pictures;
    const auto keep = [](void* arg, buffer_t unit) { static_cast<std::vector<picture_t>*>(arg)->push_back(cut(unit)); };
    av::AccessUnits units(CORE_HERE);
    units.take({reinterpret_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())}, keep, &pictures);
    units.end(keep, &pictures);
    return pictures;
}

constexpr std::string_view multipart_head =
    "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=picture\r\n\r\n--picture\r\n";

/// Parts of a multipart body, each with the boundary behind it.
std::vector<picture_t> load_parts(char** begin, char** end) {
    std::vector<picture_t> parts;
    for (; begin != end; ++begin) {
        std::ifstream file(*begin, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        if (bytes.empty()) fail(*begin);
        const std::string part = "Content-Type: image/jpeg\r\nContent-Length: " + std::to_string(bytes.size()) +
                                 "\r\n\r\n" + bytes + "\r\n--picture\r\n";
        parts.emplace_back().framed.assign(part.begin(), part.end());
    }
    return parts;
}

class server {
public:
    server() : epoll_(epoll_create1(EPOLL_CLOEXEC)), listener_(bound(SOCK_STREAM)), sender_(bound(SOCK_DGRAM)) {
        if (listen(listener_, 64) != 0) fail("listen");
        watch(listener_, nullptr);
    }

    uint16_t port() const {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }

    void serve(std::chrono::milliseconds longest) {
        std::array<epoll_event, 64> events;
        const int timeout = static_cast<int>(std::max<int64_t>(longest.count(), 0));
        const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), timeout);
        for (int i = 0; i < count; ++i) {
            auto* player = static_cast<player_t*>(events[static_cast<size_t>(i)].data.ptr);
            if (player) {
                hear(*player);
            } else {
                take();
            }
        }
    }

    void send(picture_t& picture, uint32_t time) {
        for (const auto& each : players_) {
            if (!each->playing) continue;
            if (each->udp) {
                stamp(picture.bare.data(), picture.sizes, 0, time, *each);
                send_datagrams(picture, each->port);
            } else {
                stamp(picture.framed.data() + framing, picture.sizes, framing, time, *each);
                ::send(each->fd, picture.framed.data(), picture.framed.size(), MSG_NOSIGNAL);
            }
        }
    }

private:
    static int bound(int type) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in any{};
        any.sin_family = AF_INET;
        any.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) fail("bind");
        return fd;
    }

    void watch(int fd, player_t* player) const {
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        wanted.data.ptr = player;
        epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &wanted);
    }

    void take() {
        auto made = std::make_unique<player_t>();
        socklen_t size = sizeof made->port;
        made->fd = accept4(listener_, reinterpret_cast<sockaddr*>(&made->port), &size, SOCK_CLOEXEC);
        if (made->fd < 0) return;
        const int on = 1;
        setsockopt(made->fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        made->ssrc = 0x1000 + static_cast<uint32_t>(players_.size());
        watch(made->fd, made.get());
        players_.push_back(std::move(made));
    }

    void hear(player_t& player) {
        std::array<char, 4096> room;
        const ssize_t count = recv(player.fd, room.data(), room.size(), MSG_DONTWAIT);
        if (count <= 0) {
            close(player.fd);
            std::erase_if(players_, [&](const auto& each) { return each.get() == &player; });
            return;
        }
        player.request.append(room.data(), static_cast<size_t>(count));
        if (!player.request.ends_with("\r\n\r\n")) return;
        const std::string answer = answer_to(player);
        player.request.clear();
        ::send(player.fd, answer.data(), answer.size(), MSG_NOSIGNAL);
    }

    static std::string answer_to(player_t& player) {
        static constexpr std::string_view sdp =
            "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:video\r\n";
        const std::string& request = player.request;
        if (request.starts_with("GET")) {
            player.playing = true;
            return std::string(multipart_head);
        }
        if (request.starts_with("DESCRIBE")) {
            return "RTSP/1.0 200 OK\r\nContent-Length: " + std::to_string(sdp.size()) + "\r\n\r\n" + std::string(sdp);
        }
        constexpr std::string_view client_port = "client_port=";
        if (const size_t at = request.find(client_port); at != std::string::npos) {
            player.udp = true;
            player.port.sin_port =
                htons(static_cast<uint16_t>(std::strtoul(&request[at + client_port.size()], nullptr, 10)));
        }
        player.playing = player.playing || request.starts_with("PLAY");
        return "RTSP/1.0 200 OK\r\nSession: 1\r\n\r\n";
    }

    static void stamp(uint8_t* packet, const std::vector<size_t>& sizes, size_t between, uint32_t time, player_t& to) {
        std::array<uint8_t, 8> stream;
        put(stream.data(), time, 4);
        put(stream.data() + 4, to.ssrc, 4);
        for (const size_t size : sizes) {
            put(packet + 2, to.seq++, 2);
            std::memcpy(packet + 4, stream.data(), stream.size());
            packet += size + between;
        }
    }

    void send_datagrams(picture_t& picture, sockaddr_in& to) const {
        alignas(cmsghdr) std::array<std::array<char, CMSG_SPACE(sizeof(uint16_t))>, most_runs> controls;
        std::array<mmsghdr, most_runs> headers;
        for (size_t i = 0; i < picture.messages.size(); ++i) {
            msghdr& header = headers[i].msg_hdr;
            header = {};
            header.msg_name = &to;
            header.msg_namelen = sizeof to;
            header.msg_iov = &picture.messages[i].bytes;
            header.msg_iovlen = 1;
            const uint16_t segment = picture.messages[i].segment;
            if (segment == 0) continue;
            header.msg_control = controls[i].data();
            header.msg_controllen = controls[i].size();
            cmsghdr* const control = CMSG_FIRSTHDR(&header);
            control->cmsg_level = IPPROTO_UDP;
            control->cmsg_type = UDP_SEGMENT;
            control->cmsg_len = CMSG_LEN(sizeof segment);
            std::memcpy(CMSG_DATA(control), &segment, sizeof segment);
        }
        sendmmsg(sender_, headers.data(), static_cast<unsigned>(picture.messages.size()), MSG_NOSIGNAL);
    }

    int epoll_;
    int listener_;
    int sender_;
    std::vector<std::unique_ptr<player_t>> players_;
};

}  // namespace

int main(int argc, char** argv) {
    const unsigned long fps = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 25;
    const bool parts = argc > 3 && std::string_view(argv[1]) == "--multipart";
    if (argc < 2 || fps == 0) {
        std::fprintf(stderr, "usage: send_floor CLIP.h264 [FPS], or --multipart FPS FILE.jpg...\n");
        return 2;
    }
    std::vector<picture_t> pictures = parts ? load_parts(argv + 3, argv + argc) : load(argv[1]);
    if (pictures.empty()) fail(argv[1]);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    server bare;
    std::printf("%s://127.0.0.1:%u/live\nready\n", parts ? "http" : "rtsp", unsigned{bare.port()});
    std::fflush(stdout);
    const auto period = std::chrono::nanoseconds(1'000'000'000 / fps);
    auto due = std::chrono::steady_clock::now();
    for (size_t i = 0;; ++i, due += period) {
        for (auto now = std::chrono::steady_clock::now(); now < due; now = std::chrono::steady_clock::now())
            bare.serve(std::chrono::ceil<std::chrono::milliseconds>(due - now));
        bare.send(pictures[i % pictures.size()], static_cast<uint32_t>(i * 90'000 / fps));
    }
}
