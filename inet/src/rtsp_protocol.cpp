#include "inet/rtsp_protocol.h"

#include "rtsp/session.h"

#include "common/digest.h"
#include "core/memory.h"
#include "core/text.h"

#include <algorithm>
#include <atomic>
#include <iterator>

namespace rtsp3 {

namespace {

std::atomic<int32_t> next_id{0};

constexpr uint32_t nonce_length = 46;

}  // namespace

trak_t::~trak_t() {
    core::destroy(gathered);
    core_buf_free(&config);
    core_buf_free(&parameter_sets);
}

const char* Enum::event_name(unsigned event) noexcept {
    static constexpr const char* names[] = {"open_client", "open_server", "rtsp_close", "rtsp_setup",  "rtsp_key",
                                            "rtsp_play",   "rtsp_pause",  "rtsp_stop",  "rtsp_error",  "rtsp_send",
                                            "send_rtp",    "rtsp_frame",  "rtsp_rtcp",  "rtsp_unknown"};
    return names[std::min<size_t>(event, std::size(names) - 1)];
}

Rtsp* Rtsp::create(const char* file, int line) noexcept {
    core::owned_object<Rtsp> made(core::create<Rtsp>(file, line, file, line));
    return made && made->rtp_.packet.data ? made.release() : nullptr;
}

void Rtsp::destroy(Rtsp* rtsp) noexcept { core::destroy(rtsp); }

Rtsp::Rtsp(const char* file, int line) noexcept
    : id_(++next_id),
      file_(file),
      line_(line),
      log_(core_log_create(file, line, "rtsp.protocol")),
      rtp_(file, line),
      next_pt_(first_dynamic_pt) {
    rtp_.id = id_;
    rtp_.set_handler(this);
    rtp_.set_report_clock(rtp::report_clock_t::packets);
    core_log_print(log_, "%d: create", id_);
}

Rtsp::~Rtsp() {
    release();
    core_log_free(log_);
}

void Rtsp::close() noexcept {
    closed_ = true;
    release_ = true;
    if (running_ == 0) release();
}

void Rtsp::release() noexcept {
    closed_ = true;
    release_ = false;
    leave_tunnel();
    clear_traks();
    if (held_) http_header_free(held_);
    core_buf_free(&receive_);
    core_buf_free(&send_);
    core_buf_free(&decoded_);
    used_ = 0;
}

void Rtsp::clear_traks() noexcept {
    if (packing_ || gathering_) return;
    playing_ = false;
    trak_ = nullptr;
    response_to_.trak = nullptr;
    for (pending_t& pending : pending_)
        pending.trak = nullptr;
    for (uint32_t i = 0; i < trak_count_; ++i)
        core::destroy(traks_[i]);
    std::fill_n(traks_, trak_count_, nullptr);
    trak_count_ = 0;
    next_pt_ = first_dynamic_pt;
    rtp_.close();
}

int Rtsp::set_uri(const char* uri) noexcept {
    core::owned_text copy(core_strdup(uri, file_, line_));
    core::owned_text base(uri ? core_sprintf(file_, line_, "%s/", uri) : nullptr);
    if (!copy || !base) return 0;
    uri_ = std::move(copy);
    content_base_ = std::move(base);
    return 1;
}

int Rtsp::set_credentials(const char* user, const char* password) noexcept {
    gate_ = user != nullptr;
    user_.reset(core_strdup(user, file_, line_));
    password_.reset(core_strdup(gate_ && !password ? "" : password, file_, line_));
    nonce_.reset(gate_ ? common_srand(nonce_length, file_, line_) : nullptr);
    return !gate_ || (user_ && password_ && nonce_);
}

trak_t* Rtsp::add_trak(uint32_t fcc, const char* name, const char* file, int line) noexcept {
    const format_t* format = find_format(fcc);
    if (!format || closed_ || packing_ || role_ == role_t::client || trak_count_ == max_traks) return nullptr;
    const uint8_t pt = format->pt ? format->pt : next_pt_;
    if (rtp_.get_trak_pt(pt)) return nullptr;

    core::owned_object<trak_t> trak(core::create<trak_t>(file, line));
    if (!trak) return nullptr;
    trak->fcc = fcc;
    trak->media = format->media;
    trak->name.reset(core_strdup(name, file, line));
    if (name && !trak->name) return nullptr;
    trak->rtp = rtp_.add_trak(pt, fcc);
    if (!trak->rtp) return nullptr;
    trak->rtp->clock_rate = format->clock_rate;
    if (!format->pt) ++next_pt_;
    traks_[trak_count_++] = trak.get();
    return trak.release();
}

const trak_t* Rtsp::trak(uint32_t index) const noexcept { return index < trak_count_ ? traks_[index] : nullptr; }

void Rtsp::raise(event_t::enum_t event) noexcept {
    if (!handler_) return;
    const running call(*this);
    handler_->on_rtsp_event(this, event);
}

// Each one is told on the console, which a peer shall not fill.
void Rtsp::count_senseless() noexcept {
    constexpr uint32_t most = 100;
    if (++senseless_ > most) fail("nothing that makes sense comes");
}

// One line, one event, then nothing more is taken: the framing is lost or the peer takes too much.
void Rtsp::fail(const char* reason) noexcept {
    if (closed_) return;
    core_log_print(log_, "%d: closing: %s", id_, reason);
    closed_ = true;
    raise(event_t::rtsp_close);
}

}  // namespace rtsp3
