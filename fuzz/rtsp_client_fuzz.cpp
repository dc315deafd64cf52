// The RTSP client session fed a server's bytes. The first byte of the input says how the rest is cut, the transport,
// whether the stream is tunnelled and where parameter sets go; over UDP every other piece is a datagram.
#include "fuzz.h"

#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <span>

namespace {

using fuzz::require;

using rtsp3::event_t;
using rtsp3::protocol_t;

constexpr uint32_t frame_limit = 64 * 1024;
constexpr uint32_t most_waiting = (64 + 16) * 1024;

class viewer final : public rtsp3::IRtsp {
public:
    explicit viewer(uint8_t mode) : session_(rtsp3::Rtsp::create(CORE_HERE)), reads_(mode & 0x40) {
        if (!session_) return;
        session_->set_handler(this);
        session_->set_frame_limit(frame_limit);
        session_->set_tunnel(mode & 0x80);
        session_->set_protocol(mode & 0x20 ? protocol_t::rtp_udp : protocol_t::rtp_tcp);
        if (mode & 0x10) session_->set_parameter_sets(rtsp3::parameter_sets_t::keys);
        session_->open("rtsp://admin:p%40:s@10.0.0.7/live");
    }
    ~viewer() {
        rtsp3::Rtsp::destroy(session_);
        core_buf_free(&received_);
    }
    viewer(const viewer&) = delete;
    viewer& operator=(const viewer&) = delete;

    void feed(std::span<const uint8_t> bytes) {
        if (!session_) return;
        core_buf_read(&received_, bytes.data(), static_cast<uint32_t>(bytes.size()));
        session_->process(&received_);
        if (fuzz::starved) session_->process(&received_);  // what there was no memory for was left
        require(received_.length == 0 && session_->send_buffer()->length <= most_waiting);
    }
    void feed_datagram(std::span<uint8_t> bytes) {
        if (!session_) return;
        session_->process_rtp(bytes[0], {bytes.data() + 1, static_cast<uint32_t>(bytes.size() - 1)});
    }
    void end() {
        if (!session_) return;
        session_->send_keep_alive();
        session_->flush();
        session_->process_teardown(nullptr);
    }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        switch (event) {
            case event_t::rtsp_setup:
                rtsp->send_setup(nullptr, 7000);
                break;
            case event_t::rtsp_error:
                require(*rtsp->method() && *rtsp->failure());
                if (errors_++ < 16) rtsp->process_setup(nullptr);
                break;
            case event_t::rtsp_send:
                if (reads_) core_buf_ignore(rtsp->send_buffer(), rtsp->send_buffer()->length);
                break;
            case event_t::rtsp_frame:
                require(rtsp->frame()->size > 0 && rtsp->frame()->size <= frame_limit);
                sum_ = std::count(rtsp->frame()->data, rtsp->frame()->data + rtsp->frame()->size, 0);
                if (++frames_ == 4) rtsp->process_pause(nullptr);
                break;
            case event_t::rtsp_pause:
                rtsp->process_play(nullptr);
                break;
            case event_t::rtsp_close:
                rtsp->close();
                break;
            default:
                break;
        }
    }

private:
    rtsp3::Rtsp* session_;
    buf_t received_;
    bool reads_;
    int errors_ = 0;
    int frames_ = 0;
    std::ptrdiff_t sum_ = 0;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    uint8_t copy[64 * 1024];
    const uint8_t mode = input[0];
    const std::span<uint8_t> rest(copy, std::min(input.size(), sizeof copy) - 1);
    std::copy_n(input.data() + 1, rest.size(), copy);
    const size_t piece = 1 + (mode & 0x0fU) * (mode & 0x0fU) * 8;
    viewer viewer(mode);
    bool datagram = false;
    for (size_t at = 0; at < rest.size(); at += piece) {
        const std::span<uint8_t> bytes = rest.subspan(at, std::min(piece, rest.size() - at));
        if (datagram && mode & 0x20) {
            viewer.feed_datagram(bytes);
        } else {
            viewer.feed(bytes);
        }
        datagram = !datagram;
    }
    viewer.end();
}
