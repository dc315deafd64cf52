// The RTSP server session fed bytes, with an owner that answers as a camera's service does and sends frames with every
// reply. The first byte of the input says how the rest is cut, whether there is a password, whether the peer reads,
// whether the owner answers in the event or only when more has come, and whether methods that are not known are
// answered and parameter sets described; the sum of all bytes, where the first piece ends. A peer is told the same
// however its bytes are cut, and makes nothing happen while it has not given the password. Input that comes in one
// piece is taken once more by a session that is closed, or loses its tracks, from inside the event that the sum picks.
#include "fuzz.h"

#include "inet/rtsp_owner.h"

#include <numeric>

namespace {

using rtsp3::event_t;

constexpr uint32_t most_waiting = (64 + 64 + 256 + 16) * 1024;  // replies and the longest one, the limit, a frame

class camera final : public test::rtsp_owner {
public:
    camera(uint8_t mode, std::string_view dialog, size_t ends_at = 0)
        : dialog_(dialog), ends_at_(ends_at), gated_(mode & 0x80) {
        require(session || fuzz::starved);
        if (!session) return;
        formats = {av::fcc_h264, av::fcc_pcmu, av::fcc_univ, av::fcc_h264, av::fcc_jpeg};
        late = mode & 0x20;
        if (mode & 0x10) sets = test::access_unit(0);
        session->set_unknown_methods(mode & 0x10);
        reading = mode & 0x40;
        session->set_send_limit(256 * 1024);
        if (gated_) session->set_credentials("admin", "secret");
    }

    /// In pieces, the first of them shorter.
    void serve(size_t piece, size_t first) {
        for (size_t at = 0, end = first; session && at < dialog_.size(); at = end, end += piece) {
            feed(dialog_.substr(at, end - at));
            if (fuzz::starved) session->process(&received);  // what there was no memory for was left
            for (int i = 0; i < 1000 && owed >= 0; ++i)
                answer();
            require(received.length == 0 &&
                    session->send_buffer()->length <= (reading && !ends_at_ ? 0 : most_waiting));
        }
        require(ends_at_ % 2 == 0 || count_ < ends_at_ || (session->closed() && session->trak_count() == 0));
    }
    std::string told() const { return test::normal(sent) + events; }
    /// Whether the peer names a session that it was not told of yet.
    bool guessed() const { return guessed_; }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        if (++count_ == ends_at_) return ends_at_ % 2 ? rtsp->close() : rtsp->clear_traks();
        const bool serves = event == event_t::open_server || event == event_t::rtsp_setup ||
                            (event > event_t::rtsp_key && event < event_t::rtsp_error);
        require(!gated_ || !serves);
        require(owed < 0 || !serves);
        rtsp_owner::on_rtsp_event(rtsp, event);
        if (event == event_t::rtsp_setup) guessed_ = guessed_ || dialog_.find(rtsp->session()) != std::string::npos;
        if (event == event_t::send_rtp || event == event_t::rtsp_rtcp)
            require(!packets.back().bytes.empty() && packets.back().port != 0);
        if (event == event_t::rtsp_close) rtsp->close();
        if (event != event_t::rtsp_send || sending_) return;
        sending_ = true;
        send(picture_);
        send(sound_, av::fcc_pcmu);
        sending_ = false;
    }

private:
    const std::string picture_ = test::access_unit(10);
    const std::string sound_ = std::string(160, 's');
    std::string_view dialog_;
    size_t ends_at_;
    size_t count_ = 0;
    bool gated_;
    bool sending_ = false;
    bool guessed_ = false;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const uint8_t mode = input[0];
    const std::string dialog = fuzz::text_of(input.subspan(1));
    const fuzz::cuts_t cuts(input, 1 + (mode & 0x1fU) * (mode & 0x1fU));
    camera cut(mode, dialog);
    cut.serve(cuts.piece, cuts.first);
    camera other(mode, dialog, cuts.ends_at);
    other.serve(dialog.size(), dialog.size());
    const bool comparable =
        !cuts.in_one_piece && !(mode & 0x20) && mode & 0x40 && !fuzz::starved && !cut.guessed() && !other.guessed();
    require(!comparable || cut.told() == other.told());
}
