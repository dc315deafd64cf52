// What RTSP has on a network thread: the pair of ports for UDP, frames cut into packets, and the players that are live.
#pragma once

#include "rtsp_service/inside.h"
#include "station/lives.h"

#include "core/log.h"
#include "core/memory.h"
#include "inet/net_datagrams.h"
#include "inet/net_socket.h"
#include "inet/net_tcp.h"
#include "inet/rtp_packets.h"

#include <array>

namespace media::rtsp {

class client_t;
class part_t;

/// Calls `take` for the datagrams that wait on a socket for reports: some at a time, then others get their turn.
template <class Take>
void take_reports(int fd, Take take) noexcept {
    constexpr int most_at_once = 64;
    uint8_t bytes[1500];
    buf_t report{bytes, sizeof bytes, 0};
    sockaddr_in from{};
    for (int i = 0; i < most_at_once && net_udp_recv(fd, report, &from) >= 0; ++i)
        take(from, buffer_t{report.data, report.length});
}

/// A live player in a line of the cache: what a frame needs that goes straight from where it was cut to the system.
struct place_t {
    client_t* one = nullptr;
    uint64_t from = 0;        ///< number of the first frame that it is sent
    net::Tcp* tcp = nullptr;  ///< of those tracks that travel in the RTSP connection
    in_addr host{};           ///< of the others
    uint16_t ports[kind_count]{};
    uint8_t channels[kind_count]{};
    /// The rest holds and nothing waits for the player; else the client looks after the frame.
    bool direct = false;
    ::rtp::trak_t* tracks[kind_count]{};  ///< null: not sent
};

/// The players of a thread that have come up to the present of one stream: each frame is cut once for all of them.
class live final : public reader {
public:
    live(part_t& owner, stream& of) noexcept : owner_(owner), stream_(of), log_(core_log_create(CORE_HERE, "rtp")) {}
    ~live();
    live(const live&) = delete;
    live& operator=(const live&) = delete;

    bool begin() noexcept;
    const stream& of() const noexcept { return stream_; }

    /// @param from  number of the first frame that it is sent. @return false when memory is out
    bool add(client_t& one, uint64_t from) noexcept { return places_.add({.one = &one, .from = from}); }
    void remove(const client_t& one) noexcept { places_.remove(one); }
    /// What its session has may have changed.
    void look_again(const client_t& one) noexcept {
        places_.look_at(one, [](place_t& each) { each.direct = false; });
    }
    uint32_t users = 0;  ///< players that are here or on the way

private:
    void on_entry(read_t what, const entry_t& entry) noexcept override;
    bool send(place_t& to, size_t kind, ::rtp::Packets& packets) noexcept;

    part_t& owner_;
    stream& stream_;
    log_ctx* log_;  ///< of what sessions write about frames: while somebody reads it, they do the sending
    places<place_t> places_;
    bool following_ = false;
    bool prepared_ = false;  ///< as datagrams
};

/// Remembers the frames that were cut last: players that come up are sent the same ones.
class cut_frames {
public:
    /// @return null for a frame that makes no packet, or when memory is out; valid until the next call
    ::rtp::Packets* of(const stream& from, const entry_t& entry) noexcept;

private:
    struct cut_t {
        uint64_t from = 0;  ///< stream::id()
        uint64_t number = 0;
        ::rtp::Packets packets{CORE_HERE};
    };

    std::array<cut_t, 8> cut_;
    size_t next_ = 0;
};

class part_t final : public part {
public:
    part_t(thread& on, service_t& of) noexcept : thread_(on), service_(of) {}
    ~part_t() override;

    void second() noexcept override;

    thread& on() noexcept { return thread_; }
    service_t& of() noexcept { return service_; }

    /// The clients of this thread, for reports and tunnels. @return false when memory is out
    bool enter(client_t& one) noexcept;
    void exit(const client_t& one) noexcept;
    const core::vector<client_t*>& clients() const noexcept { return clients_; }

    /// For cursor::told() of clients that owe an answer: has their thread look. `arg` is the part.
    static void on_news(void* arg) noexcept;

    lives<live>& present() noexcept { return present_; }
    cut_frames& cut() noexcept { return cut_; }

    /// Port of the socket that sends RTP over UDP, the next one sends RTCP; opened at first use, 0 when that failed.
    uint16_t udp_port() noexcept;
    /// RTP over UDP of all players; open once udp_port() is.
    net::Datagrams& datagrams() noexcept { return datagrams_; }
    int rtcp_socket() const noexcept { return rtcp_fd_; }

private:
    static void on_report(void* arg, uint32_t events) noexcept;
    static void on_told(thread& on, void* arg) noexcept;
    void close_udp() noexcept;

    thread& thread_;
    service_t& service_;
    core::vector<client_t*> clients_;
    lives<live> present_;
    cut_frames cut_;
    std::atomic<bool> told_ = false;  ///< on_told() is under way
    net::Datagrams datagrams_;
    int rtp_fd_ = -1;
    int rtcp_fd_ = -1;
    net::socket_ctx* reports_ = nullptr;
};

}  // namespace media::rtsp
