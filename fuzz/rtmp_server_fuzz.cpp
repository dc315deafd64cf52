// Dialogs of a player with an RTMP server session, behind a handshake that the target makes. The first byte says how
// they are cut. Whatever comes: the session holds little, a refused one takes nothing more, and every split of the
// input gives the same answers.
#include "fuzz.h"
#include "support/frames.h"

#include "avc/fcc.h"
#include "core/log.h"
#include "core/time.h"
#include "inet/rtmp_protocol.h"

namespace {

using inet::Rtmp;

constexpr size_t handshake_size = 1 + 2 * 1536;
constexpr uint32_t most_answers = 64 * 1024 + 4096;  // and the frames that are fed
constexpr size_t most_memory = 1024 * 1024;

// A key picture with its parameter sets.
constexpr uint8_t picture[] = {0, 0, 0, 1,    0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x0F, 0x0A, 0x69, 0xA8, 0x10, 0,
                               0, 0, 1, 0x68, 0xCE, 0x3C, 0x80, 0,    0,    0,    1,    0x65, 0x88, 0x80, 0x10};

class camera final : public inet::IRtmp {
public:
    explicit camera(uint8_t mode) : session_(Rtmp::create(CORE_HERE)), chunks_(CORE_HERE) {
        if (!session_) return;
        session_->set_handler(this);
        if (mode & 0x20) session_->set_credentials("admin", "secret");
    }
    ~camera() { Rtmp::destroy(session_); }
    camera(const camera&) = delete;
    camera& operator=(const camera&) = delete;

    void serve(std::string_view dialog, size_t piece, size_t first) {
        if (!session_) return fuzz::require(fuzz::starved);
        const size_t before = core_mem_bytes();
        bool open = true;
        for (size_t at = 0, end = first; at < dialog.size(); at = end, end += piece) {
            const std::string_view bytes = dialog.substr(at, end - at);
            buf_t received;
            if (!core_buf_read(&received, bytes.data(), static_cast<uint32_t>(bytes.size()))) break;
            const bool taken = session_->ProcessBytes(&received);
            fuzz::require(received.length == 0 && taken != session_->error() && (open || !taken));
            open = taken;
            core_buf_free(&received);
            fuzz::require(session_->waiting() <= handshake_size + most_answers);
        }
        fuzz::require(core_mem_bytes() - before <= most_memory);
        feed();
        fuzz::require(open || !session_->playing());
    }

    /// What the player was told, without random bytes and without acknowledgements, which depend on the split.
    std::string told() const {
        if (!session_) return {};
        const buf_t& out = *session_->send_buffer();
        std::string text(out.data, out.data + out.length);
        text.erase(0, handshake_size);
        constexpr std::string_view ack{"\x02\0\0\0\0\0\4\3\0\0\0\0", 12};
        for (size_t at = text.find(ack); at != std::string::npos; at = text.find(ack))
            text.erase(at, ack.size() + 4);
        return text + events_;
    }

    int on_play(Rtmp*, const inet::rtmp::play_t& play) noexcept override {
        char name[64] = "";
        for (uint32_t i = 0; inet::rtmp::stream_name(play, i, name, sizeof name) > 0; ++i)
            events_ += name;
        return play.start < 0;
    }
    void on_pause(Rtmp*, int paused) noexcept override {
        events_ += paused ? "pause" : "resume";
        feed();
    }
    void on_close(Rtmp*) noexcept override { events_ += "close"; }

private:
    void feed() {
        const av::frame_t frame = test::borrowed(av::fcc_h264, picture, 1448466450042000);
        const bool takes = session_->playing() && !session_->paused();
        const uint32_t before = session_->waiting();
        const bool fed = session_->Feed(&frame);
        fuzz::require(fed == takes || fuzz::starved);
        fuzz::require(fed == (session_->waiting() > before));
        buffer_t lent;
        if (chunks_.cut(&frame) > 0) fuzz::require(session_->Feed(chunks_, &lent) == takes || fuzz::starved);
        fuzz::require(takes || lent.size == 0);
    }

    Rtmp* session_;
    inet::rtmp::Chunks chunks_;
    std::string events_;
};

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.size() < 2) return;
    core_time_set_clock([] { return uint64_t{1448466450000000}; });  // challenges carry the time
    const uint32_t sink = core_log_sink_add(
        "rtmp", [](void*, const log_line_t*) {}, nullptr);  // lines are formatted
    const uint8_t mode = input[0];
    const std::string said = fuzz::text_of(input.subspan(1));
    const std::string dialog = mode & 0x80 ? said : "\3" + std::string(handshake_size - 1, 'x') + said;
    const fuzz::cuts_t cuts(input, 1 + (mode & 0x1fU) * (mode & 0x1fU));
    {
        camera cut(mode), whole(mode);
        cut.serve(dialog, cuts.piece, mode & 0x80 ? cuts.first : handshake_size - 2 + cuts.first % 4);
        whole.serve(dialog, dialog.size(), dialog.size());
        fuzz::require(fuzz::starved || cut.told() == whole.told());
    }
    core_log_sink_rem(sink);
    core_time_set_clock(nullptr);
}
