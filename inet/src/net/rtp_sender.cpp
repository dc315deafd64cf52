#include "rtp/h264_cut.h"

#include "avc/fcc.h"
#include "core/array.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/time.h"
#include "inet/net_rtp_sender.h"

#include <cstring>

namespace {

constexpr uint8_t payload_type = 97;
constexpr double video_clock = 90000;

struct time_text {
    explicit time_text(uint64_t us) noexcept { time_format(us, "%Y-%m-%d %H:%M:%S.%s", text, sizeof text); }

    char text[32];
};

}  // namespace

namespace net::rtp {

Rtp::Rtp(const char* file, int line) noexcept : log(core_log_create(file, line, "rtp")), file_(file), line_(line) {
    buffer_resize(&buffer, ::rtp::packet_size, file, line);
}

Rtp::~Rtp() {
    core_array_free(reinterpret_cast<void**>(handlers));
    core_buffer_free(&buffer);
    core_log_free(log);
}

Rtp::Rtp(const Rtp& other) noexcept : Rtp(other.file_, other.line_) { *this = other; }

Rtp& Rtp::operator=(const Rtp& other) noexcept {
    if (this == &other) return *this;
    core_array_free(reinterpret_cast<void**>(handlers));
    handlers = nullptr;
    for (IRtp* const* each = other.handlers; each && *each; ++each)
        set_handler(*each);
    id = other.id;
    // The header moves with its bytes: those of the other are written anew with its next packet.
    const bool moves = other.header.data && other.header.data == other.buffer.data;
    header = !moves ? other.header : buffer.data ? buffer_t{buffer.data, other.header.size} : buffer_t{};
    if (moves && buffer.data) std::memcpy(buffer.data, other.buffer.data, header.size);
    payload = other.payload;
    clock_rate = other.clock_rate;
    ssrc = other.ssrc;
    seq = other.seq;
    time = other.time;
    rtp_time = other.rtp_time;
    next_rtcp = other.next_rtcp;
    octets = other.octets;
    return *this;
}

Rtp* Rtp::create(const char* file, int line) noexcept {
    core::owned_object<Rtp> made(core::create<Rtp>(file, line, file, line));
    return made && made->buffer.data ? made.release() : nullptr;
}

void Rtp::operator delete(void* block) noexcept { core_mfree(block); }

void Rtp::set_handler(IRtp* handler) noexcept {
    handlers = reinterpret_cast<IRtp**>(core_array_add(reinterpret_cast<void**>(handlers), handler, file_, line_));
}

// The array may move meanwhile: a handler may add another one.
void Rtp::call_event(rtp_event_e event) noexcept {
    for (size_t i = 0; handlers && handlers[i]; ++i)
        handlers[i]->on_rtp_event(this, event);
}

void Rtp::pack(unsigned fcc, buffer_t frame, uint64_t time_us) noexcept {
    if (!buffer.data) return;
    if (time_us >= next_rtcp) pack_rtcp(time_us);
    if (fcc != av::fcc_h264 && fcc != av::fcc("h264")) {
        char text[5];
        core_log_print(log, "%d: %u: unknown fcc:%s", id, ssrc, fcc_str(fcc, text));
        return;
    }
    if (!pack_h264(frame, time_us) || !core_log_wanted(log)) return;
    core_log_print(log, "%d: %u: %s rtp:%u count:%u bytes:%u", id, ssrc, time_text(time).text, rtp_time, seq, octets);
}

// @return false when there is nothing to pack; the object is then as before.
bool Rtp::pack_h264(buffer_t frame, uint64_t time_us) noexcept {
    const ::rtp::access_unit unit({frame.data, frame.data ? frame.size : 0});
    if (unit.empty()) return false;
    clock_rate = video_clock;
    time = time_us;
    rtp_time = ::rtp::timestamp(time_us, clock_rate);
    const auto send = [&](const ::rtp::nal_packet_t& packet) {
        const uint32_t pt = packet.last ? payload_type | ::rtp::marker : payload_type;
        packet.put_fu(::rtp::put_header(buffer.data, pt, seq++, rtp_time, ssrc));
        const buffer_t bytes{frame.data + (packet.bytes.data() - frame.data),
                             static_cast<uint32_t>(packet.bytes.size())};
        const uint32_t header_size = ::rtp::header_size + packet.fu_size;
        hand_over(header_size, bytes, event_rtp);
        octets += header_size + bytes.size;
    };
    unit.each_sent([&](::rtp::nal_t nal) { ::rtp::each_packet(nal, send); });
    return true;
}

void Rtp::pack_rtcp(uint64_t time_us) noexcept {
    if (!buffer.data) return;
    next_rtcp = time_us + ::rtp::report_interval;
    const uint64_t ntp = time_core_to_ntp(time_us, nullptr, nullptr);
    const uint32_t ticks = ::rtp::ntp_ticks(ntp, clock_rate);
    ::rtp::sender_report_t{ssrc, ntp, ticks, seq, octets}.write(buffer.data);
    hand_over(::rtp::sender_report_t::size, {}, event_rtcp);
    if (!core_log_wanted(log)) return;
    core_log_print(log, "%d: %u: %s rtcp %u.%u rtp:%u count:%u bytes:%u", id, ssrc, time_text(time_us).text,
                   static_cast<unsigned>(ntp >> 32), static_cast<unsigned>(ntp), ticks, seq, octets);
}

void Rtp::hand_over(uint32_t header_size, buffer_t bytes, rtp_event_e event) noexcept {
    header = {buffer.data, header_size};
    payload = bytes;
    call_event(event);
}

}  // namespace net::rtp
