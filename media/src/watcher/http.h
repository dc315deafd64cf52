// An attempt to fetch a multipart stream over HTTP, or a file.
#pragma once

#include "watcher/attempt.h"
#include "watcher/receipt.h"

#include "inet/net_http.h"

#include <array>

namespace media::fetch {

class http_attempt final : public attempt {
public:
    http_attempt(const order_t& wanted, attempt_owner& owner) noexcept : wanted_(wanted), owner_(owner) {}
    ~http_attempt() override { net_http_close(http_); }
    http_attempt(const http_attempt&) = delete;
    http_attempt& operator=(const http_attempt&) = delete;

    void start() noexcept override;
    uint64_t tick(uint64_t now) noexcept override;
    void leave(const ending_t& result) noexcept override;

    bool has_ended() const noexcept override { return stage_ == stage_t::ended; }
    const ending_t& result() const noexcept override { return result_; }
    bool wants_tcp() const noexcept override { return false; }
    const char* moved_to() const noexcept override { return moved_to_.get(); }
    saved_t saved() const noexcept override { return saved_; }
    size_t counts(std::span<track_counts_t> out) const noexcept override;

private:
    /// `answered`: it is a file, or parts that are not said to be such.
    enum class stage_t : uint8_t { looking_up, connecting, asking, answered, playing, saving, ended };
    struct track_t {
        format_t format;
        receipt received;
    };

    static http_attempt& of(void* arg) noexcept { return *static_cast<http_attempt*>(arg); }
    void connect() noexcept;
    bool ask() noexcept;
    void take_message(int status, const net::http::header_s* header) noexcept;
    void judge(const net::http::header_s& header) noexcept;
    bool save(const net::http::header_s& header) noexcept;
    void play() noexcept;
    void tell_of_file() noexcept;
    void follow_file(uint64_t now) noexcept;
    void take_frame(const av::frame_t& part) noexcept;
    void take_close() noexcept;
    track_t* track_of(const av::frame_t& frame) noexcept;
    bool is_complete() const noexcept;
    void end(const ending_t& result) noexcept;

    order_t wanted_;
    attempt_owner& owner_;
    net::http_ctx* http_ = nullptr;
    stage_t stage_ = stage_t::looking_up;
    ending_t result_;
    core::owned_text moved_to_;
    char type_[80] = "";  ///< of the answer
    core::owned_text file_;
    saved_t saved_;
    uint64_t deadline_ = 0;    ///< by core_timer()
    uint64_t begun_ = 0;       ///< the first frame, by core_timer()
    uint64_t begun_time_ = 0;  ///< and by the wall clock
    uint64_t last_frame_ = 0;
    std::array<track_t, 3> tracks_{};
    size_t track_count_ = 0;
};

}  // namespace media::fetch
