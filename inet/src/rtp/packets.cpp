#include "rtp/packet.h"

#include "avc/fcc.h"
#include "core/memory.h"
#include "core/owned.h"
#include "inet/net_analytics.h"
#include "inet/net_socket.h"
#include "inet/rtp_packets.h"
#include "inet/sockaddr.h"

#include <cstring>
#include <span>

namespace rtp {

// Cuts with a packetizer of its own and remembers where each packet stands, so that a stream stamps all of them in one
// loop.
class Packets::insides final : public IRtp {
public:
    insides(const char* file, int line) noexcept;
    ~insides();
    insides(const insides&) = delete;
    insides& operator=(const insides&) = delete;

    void set_all_formats(bool on) noexcept { packer_.set_all_formats(on); }
    bool cut(const av::frame_t* frame) noexcept;
    void stamp(trak_t& trak) noexcept;
    void set_channel(uint8_t channel) noexcept;
    void set_address(const sockaddr_in& to) noexcept { address_ = to; }
    void join_messages() noexcept;

    const trak_t* trak() const noexcept { return trak_; }
    bool is_document() const noexcept { return is_document_; }
    const buf_t& bytes() const noexcept { return bytes_; }
    std::span<const datagram_t> messages() const noexcept {
        return {reinterpret_cast<const datagram_t*>(messages_.data), count_};
    }

private:
    void on_rtp_event(Rtp* rtp, event_t::enum_t event) noexcept override;
    void clear() noexcept { bytes_.length = joined_.length = count_ = 0; }
    bool remember() noexcept;
    void set_payload_type(uint8_t pt) noexcept;
    template <class Write>
    void each_packet(Write write) noexcept;

    Rtp packer_;
    trak_t* trak_;
    buf_t bytes_;     // the packets, each behind its framing
    buf_t messages_;  // a datagram_t for each
    buf_t joined_;    // the packets without framing, once they are asked for as datagrams
    uint32_t count_ = 0;
    sockaddr_in address_{};
    bool out_of_memory_ = false;
    const char* file_;
    int line_;

    // What stands in the packets at present.
    uint8_t channel_ = 0;
    uint8_t pt_ = 0;
    bool is_document_ = false;
    bool is_jpeg_ = false;  // its payload type is that of the cut

    // RTP time of the frame on the clock of the last stream; most streams have one clock.
    double clock_rate_ = 0;
    uint32_t rtp_time_ = 0;
};

Packets::insides::insides(const char* file, int line) noexcept
    : packer_(file, line), trak_(packer_.add_trak(0, 0)), file_(file), line_(line) {
    // The lines about a frame are those of the streams that send it.
    core_log_free(packer_.log);
    packer_.log = nullptr;
    packer_.set_handler(this);
    if (!trak_) return;
    trak_->active = 1;
    trak_->next_rtcp = UINT64_MAX;
}

Packets::insides::~insides() {
    core_buf_free(&bytes_);
    core_buf_free(&messages_);
    core_buf_free(&joined_);
}

bool Packets::insides::cut(const av::frame_t* frame) noexcept {
    clear();
    trak_->fcc = frame ? frame->fcc : 0;
    if (!frame) return false;
    trak_->time = frame->time + frame->shown_after;
    is_jpeg_ = fcc_unic(frame->fcc) == av::fcc_jpeg;
    is_document_ = fcc_unic(frame->fcc) == av::fcc_meta && !net_analytics_is_report(frame->data, frame->size);
    channel_ = pt_ = 0;
    clock_rate_ = rtp_time_ = 0;
    out_of_memory_ = !make_interleaved_room(bytes_, packer_, file_, line_);
    packer_.pack(frame);
    if (out_of_memory_ || !remember()) clear();
    return count_ != 0;
}

void Packets::insides::on_rtp_event(Rtp* rtp, event_t::enum_t) noexcept {
    if (out_of_memory_) return;
    add_interleaved(bytes_, 0, rtp->packet.length);
    ++count_;
    out_of_memory_ = !make_interleaved_room(bytes_, *rtp, file_, line_);
}

// Only now that they move no more.
bool Packets::insides::remember() noexcept {
    messages_.length = 0;
    if (!core_buf_respace(&messages_, count_ * static_cast<uint32_t>(sizeof(datagram_t)), file_, line_)) return false;
    auto* const messages = reinterpret_cast<datagram_t*>(messages_.data);
    const uint8_t* packet = bytes_.data + interleaved_header;
    for (uint32_t i = 0; i < count_; ++i) {
        const uint32_t size = get16({packet - 2, 2}, 0);
        messages[i] = {packet, size, &address_};
        packet += size + interleaved_header;
    }
    return true;
}

void Packets::insides::stamp(trak_t& trak) noexcept {
    if (clock_rate_ != trak.clock_rate) {
        clock_rate_ = trak.clock_rate;
        rtp_time_ = timestamp(trak_->time, clock_rate_);
    }
    trak.time = trak_->time;
    trak.rtp_time = rtp_time_;
    if (!is_jpeg_ && pt_ != trak.pt) set_payload_type(trak.pt);

    uint8_t stream[8];  // timestamp and SSRC
    put32(put32(stream, trak.rtp_time), trak.ssrc);
    each_packet([&](uint8_t* packet, uint32_t index) {
        std::memcpy(put16(packet + 2, trak.seq + index), stream, sizeof stream);
    });
    trak.seq = static_cast<uint16_t>(trak.seq + count_);
    trak.packets += count_;
    trak.octets += bytes_.length - count_ * interleaved_header;
}

// Those behind their framing, and those without, where somebody takes them.
template <class Write>
void Packets::insides::each_packet(Write write) noexcept {
    const auto all = [&](uint8_t* packet, uint32_t between) {
        for (uint32_t i = 0; const datagram_t& message : messages()) {
            write(packet, i++);
            packet += message.size + between;
        }
    };
    all(bytes_.data + interleaved_header, interleaved_header);
    if (joined_.length) all(joined_.data, 0);
}

void Packets::insides::set_payload_type(uint8_t pt) noexcept {
    pt_ = pt;
    each_packet([&](uint8_t* packet, uint32_t) { packet[1] = static_cast<uint8_t>((packet[1] & marker) | pt); });
}

// The system takes one piece faster than many. Without memory it has them where they stand.
void Packets::insides::join_messages() noexcept {
    const uint32_t size = bytes_.length - count_ * interleaved_header;
    if (joined_.length || !core_buf_respace(&joined_, size, file_, line_)) return;
    auto* const messages = reinterpret_cast<datagram_t*>(messages_.data);
    for (uint32_t i = 0; i < count_; ++i) {
        uint8_t* const to = joined_.data + joined_.length;
        core_buf_read(&joined_, messages[i].data, messages[i].size);
        messages[i].data = to;
    }
}

void Packets::insides::set_channel(uint8_t channel) noexcept {
    if (channel_ == channel) return;
    channel_ = channel;
    uint8_t* framing = bytes_.data;
    for (const datagram_t& message : messages()) {
        framing[1] = channel;
        framing += message.size + interleaved_header;
    }
}

Packets::Packets(const char* file, int line) noexcept : insides_(core::create<insides>(file, line, file, line)) {
    if (insides_ && insides_->trak()) return;
    core::destroy(insides_);
    insides_ = nullptr;
}

Packets::~Packets() { core::destroy(insides_); }

void Packets::set_all_formats(bool on) noexcept {
    if (insides_) insides_->set_all_formats(on);
}

int Packets::cut(const av::frame_t* frame) noexcept { return insides_ && insides_->cut(frame) ? 1 : 0; }

uint32_t Packets::fcc() const noexcept { return insides_ ? insides_->trak()->fcc : 0; }

uint64_t Packets::time() const noexcept { return insides_ ? insides_->trak()->time : 0; }

int Packets::is_document() const noexcept { return insides_ && insides_->is_document() ? 1 : 0; }

uint32_t Packets::count() const noexcept { return insides_ ? static_cast<uint32_t>(insides_->messages().size()) : 0; }

uint32_t Packets::size() const noexcept { return interleaved().size - count() * interleaved_header; }

buffer_t Packets::interleaved() const noexcept {
    return insides_ ? buffer_t{insides_->bytes().data, insides_->bytes().length} : buffer_t{};
}

void Packets::set_channel(uint8_t channel) noexcept {
    if (insides_) insides_->set_channel(channel);
}

const datagram_t* Packets::datagrams(const sockaddr_in& to) noexcept {
    if (!insides_) return nullptr;
    insides_->set_address(to);
    insides_->join_messages();
    return insides_->messages().data();
}

void Packets::stamp(trak_t& trak) noexcept {
    if (insides_) insides_->stamp(trak);
}

}  // namespace rtp
