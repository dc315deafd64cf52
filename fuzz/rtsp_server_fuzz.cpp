// The RTSP server session fed bytes, with an owner that answers as a camera's service does and sends frames meanwhile.
// The first byte of the input says how the rest is cut, whether there is a password, and whether the peer reads.
#include "fuzz.h"

#include "avc/fcc.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <span>

namespace {

using fuzz::require;

using rtsp3::event_t;

constexpr uint64_t start_us = 1700000000000000;
constexpr uint32_t most_waiting = (64 + 64 + 256 + 16) * 1024;  // replies and the longest one, the limit, a frame

class owner final : public rtsp3::IRtsp {
public:
    explicit owner(uint8_t mode) : session_(rtsp3::Rtsp::create(CORE_HERE)), reads_(mode & 0x40) {
        if (!session_) return;
        session_->set_handler(this);
        session_->set_send_limit(256 * 1024);
        if (mode & 0x80) session_->set_credentials("admin", "secret");
    }
    ~owner() {
        rtsp3::Rtsp::destroy(session_);
        core_buf_free(&received_);
    }
    owner(const owner&) = delete;
    owner& operator=(const owner&) = delete;

    bool is_open() const { return session_ != nullptr; }
    void feed(std::span<const uint8_t> bytes) {
        core_buf_read(&received_, bytes.data(), static_cast<uint32_t>(bytes.size()));
        session_->process(&received_);
        if (fuzz::starved) session_->process(&received_);  // what there was no memory for was left
        require(received_.length == 0 && session_->send_buffer()->length <= most_waiting);
    }

    void send_frames() {
        static const uint8_t picture[] = {0,    0,    0, 1, 0x67, 0x42, 0xc0, 0x1e, 0xd9, 0, 0, 0, 1, 0x68, 0xce,
                                          0x3c, 0x80, 0, 0, 0,    1,    0x65, 1,    2,    3, 4, 5, 6, 7,    8};
        static const uint8_t sound[1600] = {};
        for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu}) {
            av::frame_t frame{};
            frame.fcc = fcc;
            frame.time = time_ += 20000;
            frame.data = fcc == av::fcc_h264 ? picture : sound;
            frame.size = fcc == av::fcc_h264 ? sizeof picture : sizeof sound;
            session_->send_frame(&frame);
        }
    }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        switch (event) {
            case event_t::open_server:
                for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu, av::fcc_univ, av::fcc_h264, av::fcc_jpeg})
                    rtsp->add_trak(fcc, "track", CORE_HERE);
                rtsp->send_sdp("inet", "test", "camera", 1, start_us);
                break;
            case event_t::rtsp_setup:
                rtsp->send_setup(nullptr, 6000);
                break;
            case event_t::rtsp_play:
                rtsp->send_play(time_);
                break;
            case event_t::rtsp_send:
                if (reads_) core_buf_ignore(rtsp->send_buffer(), rtsp->send_buffer()->length);
                break;
            case event_t::send_rtp:
            case event_t::rtsp_rtcp:
                require(rtsp->rtp()->packet.length > 0 && rtsp->trak()->client_port != 0);
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
    uint64_t time_ = start_us;
    bool reads_;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const size_t piece = 1 + (input[0] & 0x3fU) * (input[0] & 0x3fU);
    owner camera(input[0]);
    if (!camera.is_open()) return require(fuzz::starved);
    input = input.subspan(1);
    while (!input.empty()) {
        const size_t taken = std::min(piece, input.size());
        camera.feed(input.first(taken));
        camera.send_frames();
        input = input.subspan(taken);
    }
}
