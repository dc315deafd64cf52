// The RTSP server session fed bytes, with an owner that answers as a camera's service does and sends frames with every
// reply. The first byte of the input says how the rest is cut, whether there is a password, and whether the peer reads;
// the sum of all bytes, where the first piece ends. A peer is told the same however its bytes are cut, and makes
// nothing happen while it has not given the password. Input that comes in one piece is taken once more by a session
// that is closed, or loses its tracks, from inside the event that the sum picks.
#include "fuzz.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <span>
#include <string_view>

namespace {

using fuzz::require;

using rtsp3::event_t;

constexpr uint64_t start_us = 1700000000000000;
constexpr uint32_t most_waiting = (64 + 64 + 256 + 16) * 1024;  // replies and the longest one, the limit, a frame

/// What differs from session to session goes: its number, those of its packets, and the nonce.
std::string without_random(std::string told) {
    for (const std::string_view name : {"Session: ", "seq=", "nonce=\""}) {
        for (size_t at = 0; (at = told.find(name, at)) != std::string::npos;) {
            at += name.size();
            const auto end = std::find_if_not(told.begin() + static_cast<std::ptrdiff_t>(at), told.end(),
                                              [](unsigned char c) { return std::isalnum(c); });
            told.erase(told.begin() + static_cast<std::ptrdiff_t>(at), end);
        }
    }
    return told;
}

class owner final : public rtsp3::IRtsp {
public:
    /// @param ends_at  the event from inside which the session is closed, or, if even, its tracks go; 0 for none
    owner(uint8_t mode, std::span<const uint8_t> dialog, size_t ends_at = 0)
        : session_(rtsp3::Rtsp::create(CORE_HERE)),
          dialog_(dialog),
          ends_at_(ends_at),
          gated_(mode & 0x80),
          reads_(mode & 0x40) {
        require(session_ || fuzz::starved);
        if (!session_) return;
        session_->set_handler(this);
        session_->set_send_limit(256 * 1024);
        if (gated_) session_->set_credentials("admin", "secret");
    }
    ~owner() {
        rtsp3::Rtsp::destroy(session_);
        core_buf_free(&received_);
    }
    owner(const owner&) = delete;
    owner& operator=(const owner&) = delete;

    /// In pieces, the first of them shorter.
    void feed(size_t piece, size_t first) {
        for (size_t at = 0, end = first; session_ && at < dialog_.size(); at = end, end += piece) {
            const auto bytes = dialog_.subspan(at, std::min(end, dialog_.size()) - at);
            core_buf_read(&received_, bytes.data(), static_cast<uint32_t>(bytes.size()));
            session_->process(&received_);
            if (fuzz::starved) session_->process(&received_);  // what there was no memory for was left
            require(received_.length == 0 && session_->send_buffer()->length <= most_waiting);
        }
        require(ends_at_ % 2 == 0 || events_ < ends_at_ || (session_->closed() && session_->trak_count() == 0));
    }
    std::string told() const { return without_random(told_); }
    /// Whether the peer names a session that it was not told of yet.
    bool guessed() const { return guessed_; }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        if (++events_ == ends_at_) return ends_at_ % 2 ? rtsp->close() : rtsp->clear_traks();
        const bool serves = event == event_t::open_server || (event > event_t::rtsp_key && event < event_t::rtsp_error);
        require(!gated_ || (!serves && event != event_t::rtsp_setup));
        if (event != event_t::rtsp_send) told_ += "#" + std::to_string(event) + "\n";
        switch (event) {
            case event_t::open_server:
                for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu, av::fcc_univ, av::fcc_h264, av::fcc_jpeg})
                    rtsp->add_trak(fcc, "track", CORE_HERE);
                rtsp->send_sdp("inet", "test", "camera", 1, start_us);
                break;
            case event_t::rtsp_setup:
                rtsp->send_setup(nullptr, 6000);
                guessed_ = guessed_ || fuzz::text_of(dialog_).find(rtsp->session()) != std::string::npos;
                break;
            case event_t::rtsp_play:
                rtsp->send_play(time_);
                break;
            case event_t::rtsp_send:
                if (reads_) read();
                send_frames();
                return;
            case event_t::send_rtp:
            case event_t::rtsp_rtcp:
                require(rtsp->rtp()->packet.length > 0 && rtsp->trak()->client_port != 0);
                break;
            case event_t::rtsp_close:
                rtsp->close();
                return;
            default:
                break;
        }
    }

private:
    /// Replies as they are; of packets, which have to be whole, channel and length.
    void read() {
        buf_t* const out = session_->send_buffer();
        for (uint32_t at = 0; at < out->length;) {
            const uint8_t* const bytes = out->data + at;
            const uint8_t* const end = out->data + out->length;
            if (*bytes != '$') {
                told_.append(bytes, end);
                break;
            }
            require(end - bytes > 4);
            const uint32_t length = static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
            told_ += "$" + std::to_string(bytes[1]) + " " + std::to_string(length) + "\n";
            at += 4 + length;
            require(at <= out->length);
        }
        core_buf_ignore(out, out->length);
    }
    void send_frames() {
        static const uint8_t picture[] = {0,    0,    0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 0, 1, 0x68, 0xce,
                                          0x3c, 0x80, 0, 0, 0,    1,    0x65, 1,    2,    3, 4, 5, 6, 7,    8};
        static const uint8_t sound[1600] = {};
        if (sending_) return;
        sending_ = true;
        for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu}) {
            av::frame_t frame{};
            frame.fcc = fcc;
            frame.time = time_ += 20000;
            frame.data = fcc == av::fcc_h264 ? picture : sound;
            frame.size = fcc == av::fcc_h264 ? sizeof picture : sizeof sound;
            session_->send_frame(&frame);
        }
        sending_ = false;
    }

    rtsp3::Rtsp* session_;
    std::span<const uint8_t> dialog_;
    buf_t received_;
    std::string told_;
    uint64_t time_ = start_us;
    size_t events_ = 0;
    size_t ends_at_;
    bool gated_;
    bool reads_;
    bool sending_ = false;
    bool guessed_ = false;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    core_time_set_clock([] { return start_us; });
    const uint8_t mode = input[0];
    const std::span<const uint8_t> dialog = input.subspan(1);
    const size_t piece = 1 + (mode & 0x3fU) * (mode & 0x3fU);
    const size_t sum = std::accumulate(input.begin(), input.end(), size_t{0});
    const bool in_one_piece = piece >= dialog.size();
    owner cut(mode, dialog);
    cut.feed(piece, in_one_piece ? piece : 1 + sum % piece);
    owner other(mode, dialog, in_one_piece ? 1 + sum % 64 : 0);
    other.feed(dialog.size(), dialog.size());
    const bool comparable = !in_one_piece && mode & 0x40 && !fuzz::starved && !cut.guessed() && !other.guessed();
    require(!comparable || cut.told() == other.told());
}
