// The RTSP client session fed a server's bytes. The first byte of the input says how the rest is cut, the transport,
// whether the stream is tunnelled and where parameter sets go; the sum of all bytes, where the first piece ends. The
// same is asked and delivered however the bytes are cut. Input that comes in one piece is taken once more by a session
// that is closed, or loses its tracks, from inside the event that the sum picks.
#include "fuzz.h"

#include "core/time.h"
#include "inet/rtsp_protocol.h"

#include <algorithm>
#include <numeric>
#include <span>

namespace {

using fuzz::require;

using rtsp3::event_t;
using rtsp3::protocol_t;

constexpr uint32_t frame_limit = 64 * 1024;
constexpr uint32_t most_waiting = (64 + 16) * 1024;

class viewer final : public rtsp3::IRtsp {
public:
    /// @param ends_at  the event from inside which the session is closed, or, if even, its tracks go; 0 for none
    explicit viewer(uint8_t mode, size_t ends_at = 0)
        : session_(rtsp3::Rtsp::create(CORE_HERE)),
          ends_at_(ends_at),
          tunnelled_(mode & 0x80),
          reads_(mode & 0x40),
          takes_datagrams_(mode & 0x20) {
        if (!session_) return;
        session_->set_handler(this);
        session_->set_frame_limit(frame_limit);
        session_->set_tunnel(tunnelled_);
        session_->set_protocol(takes_datagrams_ ? protocol_t::rtp_udp : protocol_t::rtp_tcp);
        if (mode & 0x10) session_->set_parameter_sets(rtsp3::parameter_sets_t::keys);
        session_->open("rtsp://admin:p%40:s@10.0.0.7/live");
    }
    ~viewer() {
        rtsp3::Rtsp::destroy(session_);
        core_buf_free(&received_);
    }
    viewer(const viewer&) = delete;
    viewer& operator=(const viewer&) = delete;

    /// In pieces, the first of them shorter; over UDP a packet is a datagram.
    void feed(std::span<uint8_t> dialog, size_t piece, size_t first) {
        for (size_t next = first; session_ && !dialog.empty(); next = piece) {
            size_t taken = std::min(next, dialog.size());
            if (takes_datagrams_ && dialog[0] == '$' && dialog.size() > 4) {
                taken = std::min<size_t>(4U + (dialog[2] << 8U | dialog[3]), dialog.size());
                session_->process_rtp(dialog[1], {dialog.data() + 4, static_cast<uint32_t>(taken - 4)});
            } else {
                const auto piece_end = dialog.begin() + static_cast<std::ptrdiff_t>(taken);
                const auto packet = std::find(dialog.begin() + 1, piece_end, '$');
                if (takes_datagrams_) taken = static_cast<size_t>(packet - dialog.begin());
                process(dialog.first(taken));
            }
            dialog = dialog.subspan(taken);
        }
        if (session_) end();
    }
    /// What was asked, told and delivered.
    const std::string& story() const { return story_; }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        if (++events_ == ends_at_) return ends_at_ % 2 ? rtsp->close() : rtsp->clear_traks();
        if (event != event_t::rtsp_send) story_ += "#" + std::to_string(event) + "\n";
        switch (event) {
            case event_t::rtsp_setup:
                rtsp->send_setup(nullptr, 7000);
                break;
            case event_t::rtsp_error:
                require(*rtsp->method() && *rtsp->failure());
                if (errors_++ < 16) rtsp->process_setup(nullptr);
                break;
            case event_t::rtsp_send:
                if (reads_) read();
                break;
            case event_t::rtsp_frame:
                take(*rtsp->frame(), *rtsp->trak());
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
    void process(std::span<const uint8_t> bytes) {
        core_buf_read(&received_, bytes.data(), static_cast<uint32_t>(bytes.size()));
        session_->process(&received_);
        if (fuzz::starved) session_->process(&received_);  // what there was no memory for was left
        require(received_.length == 0 && session_->send_buffer()->length <= most_waiting);
    }
    void end() {
        session_->send_keep_alive();
        session_->flush();
        session_->process_teardown(nullptr);
        require(ends_at_ % 2 == 0 || events_ < ends_at_ || (session_->closed() && session_->trak_count() == 0));
    }
    /// Reports have times in them, and a tunnel its cookie.
    void read() {
        buf_t* const out = session_->send_buffer();
        if (out->length > 0 && *out->data != '$' && !tunnelled_) story_.append(out->data, out->data + out->length);
        core_buf_ignore(out, out->length);
    }
    void take(const av::frame_t& frame, const rtsp3::trak_t& trak) {
        require(frame.size > 0 && frame.size <= frame_limit);
        for (const uint64_t value : {uint64_t{frame.fcc}, frame.time, static_cast<uint64_t>(trak.media_time),
                                     trak.ntp_time, uint64_t{frame.key}, uint64_t{frame.complete}})
            story_ += std::to_string(value) + " ";
        story_.append(frame.data, frame.data + frame.size);
    }

    rtsp3::Rtsp* session_;
    buf_t received_;
    std::string story_;
    size_t events_ = 0;
    size_t ends_at_;
    bool tunnelled_;
    bool reads_;
    bool takes_datagrams_;
    int errors_ = 0;
    int frames_ = 0;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    core_time_set_clock([] { return uint64_t{1700000000000000}; });
    uint8_t copy[64 * 1024];
    const uint8_t mode = input[0];
    const std::span<uint8_t> dialog(copy, std::min(input.size(), sizeof copy) - 1);
    std::copy_n(input.data() + 1, dialog.size(), copy);
    const size_t piece = 1 + (mode & 0x0fU) * (mode & 0x0fU) * 8;
    const size_t sum = std::accumulate(input.begin(), input.end(), size_t{0});
    const bool in_one_piece = piece >= dialog.size();
    viewer cut(mode);
    cut.feed(dialog, piece, in_one_piece ? piece : 1 + sum % piece);
    viewer other(mode, in_one_piece ? 1 + sum % 64 : 0);
    other.feed(dialog, sizeof copy, sizeof copy);
    require(in_one_piece || fuzz::starved || cut.story() == other.story());
}
