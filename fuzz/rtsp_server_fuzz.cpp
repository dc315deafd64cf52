// The RTSP server session fed bytes, with an owner that answers as a camera's service does and sends frames meanwhile.
// The first byte of the input says how the rest is cut, whether there is a password, whether the peer reads, and
// whether the owner answers in the event or only when more has come.
#include "fuzz.h"

#include "avc/fcc.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <span>
#include <utility>

namespace {

using fuzz::require;

using rtsp3::event_t;

constexpr uint64_t start_us = 1700000000000000;
constexpr uint32_t most_waiting = (64 + 64 + 256 + 16) * 1024;  // replies and the longest one, the limit, a frame

class owner final : public rtsp3::IRtsp {
public:
    explicit owner(uint8_t mode) : session_(rtsp3::Rtsp::create(CORE_HERE)), reads_(mode & 0x40), late_(mode & 0x20) {
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

    void answer_all() {
        for (int i = 0; i < 1000 && owed_ >= 0; ++i)
            answer();
        require(owed_ < 0);
        require(session_->send_play(time_) == 0 || !answered_);
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
            case event_t::rtsp_setup:
            case event_t::rtsp_play:
                require(owed_ < 0);
                owed_ = event;
                if (!late_) answer();
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
    void answer() {
        const int owed = std::exchange(owed_, -1);
        answered_ = true;
        if (owed == event_t::open_server) {
            for (const uint32_t fcc : {av::fcc_h264, av::fcc_pcmu, av::fcc_univ, av::fcc_h264, av::fcc_jpeg})
                session_->add_trak(fcc, "track", CORE_HERE);
            session_->send_sdp("inet", "test", "camera", 1, start_us);
        } else if (owed == event_t::rtsp_setup) {
            session_->send_setup(nullptr, 6000);
        } else {
            session_->send_play(time_);
        }
    }

    rtsp3::Rtsp* session_;
    buf_t received_;
    uint64_t time_ = start_us;
    bool reads_;
    bool late_;
    bool answered_ = false;
    int owed_ = -1;  // the event that waits for its answer
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const size_t piece = 1 + (input[0] & 0x1fU) * (input[0] & 0x1fU);
    owner camera(input[0]);
    if (!camera.is_open()) return require(fuzz::starved);
    input = input.subspan(1);
    while (!input.empty()) {
        const size_t taken = std::min(piece, input.size());
        camera.feed(input.first(taken));
        camera.send_frames();
        camera.answer_all();
        input = input.subspan(taken);
    }
}
