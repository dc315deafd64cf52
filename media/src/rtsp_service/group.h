// RTP over UDP multicast: one stream for each track, sent once for all who watch.
#pragma once

#include "rtsp_service/part.h"
#include "station/approach.h"
#include "station/whole_pictures.h"

#include "inet/rtp_protocol.h"

#include <array>
#include <atomic>

namespace media::rtsp {

/// A socket that sends to groups by the interface of that address; -1 when there is none.
int open_sender(const char* via) noexcept;

/// The shared streams of a stream. They begin with a key picture when the first player comes, and rest when the last
/// one has gone. The service owns it; a client of the first thread drives it, and ends it when the stream has ended and
/// nobody holds it: its ports are free then.
class group final : public reader, private ::rtp::IRtp {
public:
    /// @param port  for RTP of the first track; the next one is that for RTCP, and so on
    group(service_t& of, thread& first, stream& sent, const char* address, uint16_t port) noexcept;
    ~group();
    group(const group&) = delete;
    group& operator=(const group&) = delete;
    bool complete() const noexcept { return complete_; }

    // Any thread

    const stream& of() const noexcept { return stream_; }
    /// Who uses it holds it: by service_t::group_of(), and until release().
    void keep() noexcept { ++holds_; }
    void release() noexcept { --holds_; }
    bool is_held() const noexcept { return holds_ != 0; }
    void add_player() noexcept;
    void remove_player() noexcept { --players_; }
    /// Place of the track of that format; -1 when there is none.
    int index_of(uint32_t fcc) const noexcept;
    size_t tracks() const noexcept { return track_count_; }
    uint16_t port(size_t track) const noexcept { return static_cast<uint16_t>(port_ + 2 * track); }
    /// Sequence number of the next packet.
    uint16_t next_seq(size_t track) const noexcept { return next_seq_[track]; }
    /// Media time at which the next frame is shown; 0 while the streams rest.
    uint64_t next_time() const noexcept { return next_time_; }
    /// Changes when a host reported that it receives the streams, or rarely when another did.
    uint32_t reports_from(in_addr host) const noexcept { return reports_[place_of(host)]; }

    // On the first thread

    /// Opens what sends and what hears reports, as far as it can be, and has the thread drive it.
    void open() noexcept;
    void close() noexcept;
    /// @return as client::serve()
    uint64_t serve(uint64_t now) noexcept;
    /// @return itself, for the caller to end, when its stream has ended and nobody holds it; else null
    core::owned_object<group> retire() noexcept;
    uint32_t places() const noexcept { return 1 + static_cast<uint32_t>(track_count_); }

private:
    static constexpr size_t places_of_hosts = 1024;
    static size_t place_of(in_addr host) noexcept { return ntohl(host.s_addr) * 2654435761U >> 22; }

    /// The port of a track for RTCP, where the players' reports come.
    struct report_port {
        group* of = nullptr;
        int fd = -1;
        net::socket_ctx* socket = nullptr;
    };

    static void on_report(void* arg, uint32_t events) noexcept;
    void on_entry(read_t what, const entry_t& entry) noexcept override;
    void on_rtp_event(::rtp::Rtp* rtp, ::rtp::event_t::enum_t event) noexcept override;
    bool add_tracks() noexcept;
    void hear_reports(size_t track) noexcept;
    void begin(uint64_t now) noexcept;
    void rest() noexcept;
    void send(const entry_t& entry) noexcept;
    void publish(uint64_t next_time) noexcept;

    service_t& service_;
    thread& thread_;
    stream& stream_;  ///< held
    sockaddr_in address_{};
    const char* address_text_;
    const uint16_t port_;
    bool complete_ = false;
    client* driver_ = nullptr;  ///< the thread's
    size_t track_count_ = 0;
    std::array<uint32_t, kind_count> formats_{};

    ::rtp::Rtp* rtp_;
    int fd_ = -1;
    net::Datagrams datagrams_;
    std::array<report_port, kind_count> report_ports_;
    cut_frames cut_;
    approach approach_;
    whole_pictures pictures_;
    uint64_t from_ = 0;  ///< number of the first frame that the thread's reader brings
    bool following_ = false;
    bool live_ = false;
    uint64_t sent_ = 0;
    std::array<uint64_t, kind_count> last_{};      ///< media times of the last frames,
    std::array<uint64_t, kind_count> expected_{};  ///< and when those to come are shown
    std::atomic<uint32_t> holds_ = 0;
    std::atomic<uint32_t> players_ = 0;
    std::atomic<uint64_t> next_time_ = 0;
    std::array<std::atomic<uint16_t>, kind_count> next_seq_{};
    std::array<std::atomic<uint32_t>, places_of_hosts> reports_{};  ///< received, by host
};

}  // namespace media::rtsp
