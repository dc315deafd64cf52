// One connection of a player and its RTMP session.
#pragma once

#include "rtmp_service/part.h"
#include "station/approach.h"
#include "station/whole_pictures.h"

#include "inet/net_tcp.h"
#include "inet/rtmp_protocol.h"

namespace media::rtmp {

class client_t final : public client, public inet::IRtmp, public net::ITcp {
public:
    explicit client_t(part_t& owner) noexcept : owner_(owner) {}
    ~client_t() override;
    /// Takes over the connection, and serves what has come. @return false when memory is out
    bool begin(net::Tcp*& from) noexcept;

    uint64_t serve(uint64_t now) noexcept override;
    void second() noexcept override;
    void finish() noexcept override;
    bool finished() const noexcept override { return finished_; }
    bool idle() const noexcept override { return !finished_ && !watching(); }
    bool watching() const noexcept override { return !finished_ && stream_ && rtmp_->playing() && !rtmp_->paused(); }

    /// A frame of the present. @param chunks  null for a frame that makes none
    void deliver(const entry_t& entry, inet::rtmp::Chunks* chunks) noexcept {
        if (watching()) send(entry, chunks);
    }
    /// One of the past. @return false when something waits: on_tcp_writable() goes on
    bool show(const entry_t& entry) noexcept;
    bool join(uint64_t from) noexcept;
    void leave_out() noexcept { pictures_.leave_out(); }

private:
    int on_play(inet::Rtmp* rtmp, const inet::rtmp::play_t& play) noexcept override;
    void on_pause(inet::Rtmp* rtmp, int paused) noexcept override;
    void on_close(inet::Rtmp* rtmp) noexcept override;
    void on_tcp_received(net::Tcp* tcp, buf_t* received) noexcept override;
    void on_tcp_writable(net::Tcp* tcp) noexcept override;
    void on_tcp_closed(net::Tcp* tcp, int error) noexcept override;

    void await_formats() noexcept;
    bool has_formats(uint64_t now) noexcept;
    bool start_playing(uint64_t now) noexcept;
    void stop_playing() noexcept;
    void leave_stream() noexcept;
    void send(const entry_t& entry, inet::rtmp::Chunks* chunks) noexcept;
    bool pass_on(inet::rtmp::Chunks& chunks) noexcept;
    void flush() noexcept;

    const rtmp_settings_t& settings() const noexcept { return owner_.of().settings(); }

    part_t& owner_;
    net::Tcp* tcp_ = nullptr;
    inet::Rtmp* rtmp_ = nullptr;
    bool finished_ = false;

    stream* stream_ = nullptr;  ///< held
    uint64_t awaiting_ = 0;     ///< since when formats are waited for; 0 for not
    cursor wanting_;            ///< counts as a reader while nothing else does
    approach approach_;
    core::owned_object<inet::rtmp::Chunks> past_;  ///< of the frame that it is sent while it comes up
    live* live_ = nullptr;
    whole_pictures pictures_;

    bool has_played_ = false;
    unsigned silent_ = 0;   ///< seconds in which nothing was played
    uint64_t counted_ = 0;  ///< of Tcp::sent()
};

}  // namespace media::rtmp
