// The RTMP client session fed a server's bytes. The first byte of the input says how the rest is cut, whether what a
// server says up to the play stands in front of it, and whether its answers are read; the sum of all bytes, where the
// first piece ends. The same is told however the bytes are cut. Input that comes in one piece is taken once more by a
// session that is closed or destroyed from inside the call that the sum picks.
#include "fuzz.h"

#include "inet/rtmp_owner.h"

namespace {

constexpr uint32_t longest_frame = 8U << 20;
constexpr uint32_t most_output = 256 * 1024;

class client final : public test::rtmp_player {
public:
    explicit client(uint8_t mode, size_t ends_at = 0) : ends_at_(ends_at) {
        reading = mode & 0x40;
        if (!session) return;
        session->handshake();
        if (mode & 0x80) feed(test::agreed());
    }

    void watch(std::string_view dialog, size_t piece, size_t first) {
        for (size_t next = first; session && !dialog.empty(); next = piece) {
            feed(dialog.substr(0, next));
            dialog.remove_prefix(std::min(next, dialog.size()));
            require(!session || session->send_buffer()->length <= most_output);
        }
        if (session) session->flush();
        if (session) session->close();
        require(!session || session->ended());
        require(ended_ <= 1);
    }

    void on_rtmp_send(net::ProtocolRtmp* from) noexcept override {
        if (!count()) rtmp_player::on_rtmp_send(from);
    }
    void on_rtmp_frame(net::ProtocolRtmp* from, const av::frame_t& frame, int64_t media_time) noexcept override {
        require(!ended_ && frame.size > 0 && frame.size <= longest_frame && frame.complete);
        if (!count()) rtmp_player::on_rtmp_frame(from, frame, media_time);
    }
    void on_rtmp_track(net::ProtocolRtmp* from, const net::rtmp_track_t& track) noexcept override {
        require(!ended_);
        if (!count()) rtmp_player::on_rtmp_track(from, track);
    }
    void on_rtmp_ended(net::ProtocolRtmp* from, net::rtmp_end_t why, const char* words) noexcept override {
        ++ended_;
        require(*words);
        if (!count()) rtmp_player::on_rtmp_ended(from, why, words);
    }

private:
    bool count() {
        if (++count_ != ends_at_) return false;
        if (ends_at_ % 2) {
            session->close();
        } else {
            session.reset();
        }
        return true;
    }

    size_t ends_at_;
    size_t count_ = 0;
    int ended_ = 0;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.empty()) return;
    const uint8_t mode = input[0];
    const std::string dialog = fuzz::text_of(input.subspan(1));
    const fuzz::cuts_t cuts(input, 1 + (mode & 0x0fU) * (mode & 0x0fU) * 8);
    client cut(mode);
    cut.watch(dialog, cuts.piece, cuts.first);
    client other(mode, cuts.ends_at);
    other.watch(dialog, dialog.size(), dialog.size());
    require(cuts.in_one_piece || fuzz::starved || cut.events == other.events);
}
