// The RTSP client session fed a server's bytes. The first byte of the input says how the rest is cut, the transport,
// whether the stream is tunnelled and where parameter sets go; the sum of all bytes, where the first piece ends. The
// same is asked and delivered however the bytes are cut. Input that comes in one piece is taken once more by a session
// that is closed, or loses its tracks, from inside the event that the sum picks.
#include "fuzz.h"

#include "inet/rtsp_client.h"

namespace {

using rtsp3::event_t;
using rtsp3::protocol_t;

constexpr uint32_t frame_limit = 64 * 1024;
constexpr uint32_t most_waiting = (64 + 16) * 1024;

class client final : public test::rtsp_client {
public:
    explicit client(uint8_t mode, size_t ends_at = 0)
        : ends_at_(ends_at), tunnelled_(mode & 0x80), takes_datagrams_(mode & 0x20) {
        if (!session) return;
        reading = mode & 0x40;
        session->set_frame_limit(frame_limit);
        session->set_tunnel(tunnelled_);
        session->set_protocol(takes_datagrams_ ? protocol_t::rtp_udp : protocol_t::rtp_tcp);
        if (mode & 0x10) session->set_parameter_sets(rtsp3::parameter_sets_t::keys);
        session->set_prompt(mode & 0x10);
        session->set_all_formats(mode & 0x10);
        session->open("rtsp://admin:p%40:s@10.0.0.7/live");
    }

    /// In pieces, the first of them shorter; over UDP a packet is a datagram.
    void watch(std::string_view dialog, size_t piece, size_t first) {
        for (size_t next = first; session && !dialog.empty(); next = piece) {
            size_t taken = std::min(next, dialog.size());
            if (takes_datagrams_ && dialog[0] == '$' && dialog.size() > 4) {
                const auto at = [&](size_t i) { return static_cast<uint8_t>(dialog[i]); };
                taken = std::min(size_t{4} + (size_t{at(2)} << 8U | at(3)), dialog.size());
                rtp(at(1), std::string(dialog.substr(4, taken - 4)));
            } else {
                if (takes_datagrams_) taken = std::min(dialog.find('$', 1), taken);
                feed(dialog.substr(0, taken));
                if (fuzz::starved) session->process(&received);  // what there was no memory for was left
                require(received.length == 0 &&
                        session->send_buffer()->length <= (reading && !ends_at_ ? 0 : most_waiting));
            }
            dialog.remove_prefix(taken);
        }
        if (session) end();
    }
    /// What was asked, told and delivered. What was asked is left out where random text is in it, the cookie of a
    /// tunnel or the nonce of an answer; of a tunnel the reports, which have times in them, are left out with it.
    std::string story() const {
        const bool drawn = tunnelled_ || asked.find("cnonce=") != std::string::npos;
        std::string all = (drawn ? "" : asked) + events;
        for (const test::received_t& f : frames) {
            require(!f.bytes.empty() && f.bytes.size() <= frame_limit);
            for (const uint64_t value : {uint64_t{f.fcc}, f.time, static_cast<uint64_t>(f.media_time), f.ntp_time})
                all += std::to_string(value) + " ";
            all += f.bytes + (f.key ? "K" : "") + (f.complete ? " " : "- ");
        }
        return all;
    }

    void on_rtsp_event(rtsp3::Rtsp* rtsp, event_t::enum_t event) noexcept override {
        if (++count_ == ends_at_) return ends_at_ % 2 ? rtsp->close() : rtsp->clear_traks();
        rtsp_client::on_rtsp_event(rtsp, event);
        require(event != event_t::rtsp_error || (*rtsp->method() && *rtsp->failure()));
        if (event == event_t::rtsp_error && errors_++ < 16) rtsp->process_setup(nullptr);
        if (event == event_t::rtsp_frame && frames.size() == 4) rtsp->process_pause(nullptr);
        if (event == event_t::rtsp_pause) rtsp->process_play(nullptr);
        if (event == event_t::rtsp_close) rtsp->close();
    }

private:
    void end() {
        session->send_keep_alive();
        session->flush();
        session->process_teardown(nullptr);
        require(ends_at_ % 2 == 0 || count_ < ends_at_ || (session->closed() && session->trak_count() == 0));
    }

    size_t ends_at_;
    size_t count_ = 0;
    int errors_ = 0;
    bool tunnelled_;
    bool takes_datagrams_;
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
    require(cuts.in_one_piece || fuzz::starved || cut.story() == other.story());
}
