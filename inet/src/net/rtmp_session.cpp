// What the server sends, taken apart: handshake, chunks, messages.
#include "net/rtmp_session.h"

#include "rtp/packet.h"

#include "common/digest.h"
#include "core/time.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace net::rtmp {

using namespace ::inet::rtmp;
using ::rtp::get16;
using ::rtp::get32;
using ::rtp::put32;

namespace {

constexpr uint8_t version = 3;
constexpr uint8_t message_aggregate = 22;

std::atomic<uint32_t> sessions;

enum control_t : uint16_t { control_eof = 1, control_ping = 6 };

const char* describe(chunk_fault_t fault) noexcept {
    switch (fault) {
        case chunk_fault_t::three_byte_id:
        case chunk_fault_t::channel:
        case chunk_fault_t::too_many_channels:
            return "the server uses too many channels";
        case chunk_fault_t::too_much:
        case chunk_fault_t::refused:
            return "a message of the server is too long";
        default:
            return "the server broke the protocol";
    }
}

}  // namespace

session::session(ProtocolRtmp* of, const char* caller_file, int caller_line) noexcept
    : face(of),
      file(caller_file),
      line(caller_line),
      media_(*this, caller_file, caller_line),
      reader_({.max_bytes = most_input}, {caller_file, caller_line}),
      body_(caller_file, caller_line),
      log_(core_log_create(caller_file, caller_line, "rtmp")),
      number_(++sessions) {}

session::~session() {
    core_buf_free(&output);
    core_log_free(log_);
}

void session::end(rtmp_end_t why, const char* format, ...) noexcept {
    if (why == rtmp_end_t::lost || why == rtmp_end_t::ended) media_.flush();
    if (ended()) return;
    step = step_t::ended;
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    core_log_print(log_, "%u: %s", number_, text);
    if (handler) handler->on_rtmp_ended(face, why, text);
}

// The handshake: both sides send a version and 1536 bytes, and echo those of the other.

bool session::handshake() noexcept {
    if (step > step_t::connecting) return false;
    uint8_t hello[1 + handshake_size];
    hello[0] = version;
    put32(put32(hello + 1, static_cast<uint32_t>(core_timer() / 1000)), 0);
    common_random(hello + 9, sizeof hello - 9);
    if (!core_buf_read(&output, hello, sizeof hello)) return false;
    step = step_t::versions;
    news = true;
    return true;
}

void session::take_handshake(bytes_t& input) noexcept {
    const uint32_t wanted = step == step_t::versions ? sizeof hello_ : handshake_size;
    const size_t taken = std::min<size_t>(wanted - hello_size_, input.size());
    if (step == step_t::versions) std::memcpy(hello_ + hello_size_, input.data(), taken);
    hello_size_ += static_cast<uint32_t>(taken);
    input = input.subspan(taken);
    if (step == step_t::versions && hello_[0] != version) {
        return end(rtmp_end_t::bad_peer, "the server does not speak RTMP: version %u", unsigned{hello_[0]});
    }
    if (hello_size_ < wanted) return;
    hello_size_ = 0;
    if (step == step_t::versions) {
        step = step_t::echo;
        require(core_buf_read(&output, hello_ + 1, handshake_size) != 0);
        news = true;
    } else {
        step = step_t::asking;
        require(send_connect_packet());
    }
}

void session::process(bytes_t input) noexcept {
    if (step < step_t::versions) return;
    received += input.size();
    while (!input.empty() && (step == step_t::versions || step == step_t::echo))
        take_handshake(input);
    if (!input.empty() && !ended() && !read_message(input)) {
        const chunk_fault_t fault = reader_.fault();
        if (fault == chunk_fault_t::memory) end(rtmp_end_t::failed, "no memory");
        end(rtmp_end_t::bad_peer, "%s", describe(fault));
    }
    if (!ended()) acknowledge();
}

bool session::read_message(bytes_t input) noexcept { return reader_.read(input, *this); }

void session::acknowledge() noexcept {
    if (step < step_t::asking || !window_ || received - acknowledged_ < window_) return;
    acknowledged_ = received;
    uint8_t body[4];
    put32(body, static_cast<uint32_t>(received));
    send_packet(2, message_ack, 0, body);
}

// Messages

take_t session::on_message_header(const message_t& message) noexcept {
    switch (message.type) {
        case message_audio:
        case message_video:
        case message_aggregate:
            return step >= step_t::starting ? take_t::keep : take_t::skip;
        case message_data:
        case message_data_amf3:
            return message.length <= longest_command ? take_t::keep : take_t::skip;
        case message_chunk_size:
        case message_abort:
        case message_ack:
        case message_user_control:
        case message_window_ack_size:
        case message_peer_bandwidth:
        case message_command:
        case message_command_amf3:
            return message.length <= longest_command ? take_t::keep : take_t::refuse;
        default:
            return take_t::skip;
    }
}

bool session::on_message(const message_t& message, bytes_t body) noexcept {
    process_message(message.type, message.time, body);
    return !ended();
}

void session::process_message(uint32_t type, uint32_t time, bytes_t body) noexcept {
    switch (type) {
        case message_chunk_size:
        case message_abort:
        case message_ack:
        case message_window_ack_size:
        case message_peer_bandwidth:
            return process_fixed(type, body);
        case message_user_control:
            return process_ctrl(body);
        case message_aggregate:
            return process_aggregate(time, body);
        case message_audio:
        case message_video:
            return process_media(type, time, body);
        // A byte that tells the form stands in front of those of AMF3, which hold AMF0, too.
        case message_data_amf3:
            return process_notify(body.subspan(std::min<size_t>(1, body.size())));
        case message_data:
            return process_notify(body);
        case message_command_amf3:
            return process_invoke(body.subspan(std::min<size_t>(1, body.size())));
        case message_command:
            return process_invoke(body);
        default:
            return;
    }
}

void session::process_fixed(uint32_t type, bytes_t body) noexcept {
    if (body.size() < 4) return end(rtmp_end_t::bad_peer, "a message of type %u is cut short", type);
    const uint32_t value = get32(body, 0);
    switch (type) {
        case message_chunk_size:
            if (!reader_.set_chunk_size(value & 0x7fffffff))
                end(rtmp_end_t::bad_peer, "the server sends chunks of no size");
            return;
        case message_abort:
            return reader_.abort(value);
        case message_window_ack_size:
            window_ = value;
            return;
        case message_peer_bandwidth:
            // The server is told the window that it asks for, once.
            peer_window_ = value;
            if (value != told_window_) send_serverbw();
            return;
        default:
            return;
    }
}

// Events that do not matter here may have another form.
void session::process_ctrl(bytes_t body) noexcept {
    const uint16_t event = body.size() < 2 ? uint16_t{control_ping} : get16(body, 0);
    if (event != control_ping && event != control_eof) return;
    if (body.size() < 6) return end(rtmp_end_t::bad_peer, "a user control message is cut short");
    const uint32_t value = get32(body, 2);
    if (event == control_ping) return require(send_pong(value));
    // Servers also say so of what was played before.
    if (value == stream && media_.begun()) end(rtmp_end_t::ended, "the server has ended the stream");
}

// Some servers say nothing before they send.
void session::process_media(uint32_t type, uint32_t time, bytes_t body) noexcept {
    if (step == step_t::starting && !body.empty()) begin_playing();
    if (step != step_t::playing) return;
    if (type == message_audio) {
        media_.process_audio(body, time);
    } else {
        media_.process_video(body, time);
    }
}

/// Messages in the form of FLV tags (Adobe Flash Video File Format 10.1, E.4.1), each with its size behind it. Their
/// timestamps count from that of the first, which is the message's. The last size may be missing.
void session::process_aggregate(uint32_t time, bytes_t body) noexcept {
    constexpr size_t head = 11;
    constexpr size_t tail = 4;
    uint32_t first = 0;
    for (bool begins = true; body.size() >= head && !ended(); begins = false) {
        const uint32_t type = body[0] & 0x1f;
        const uint32_t size = get32(body, 0) & 0xffffff;
        const uint32_t at = get32(body, 4) >> 8 | uint32_t{body[7]} << 24;
        if (size > body.size() - head) {
            return end(rtmp_end_t::bad_peer, "a message inside another one is longer than that");
        }
        if (begins) first = at;
        const bytes_t inner = body.subspan(head, size);
        if (type == message_audio || type == message_video || (type == message_data && size <= longest_command)) {
            process_message(type, time + (at - first), inner);
        }
        body = body.subspan(std::min(head + size + tail, body.size()));
    }
}

// What came

void session::on_track(const rtmp_track_t& track) noexcept {
    if (!ended() && handler) handler->on_rtmp_track(face, track);
}

void session::on_frame(av::frame_t& frame, int64_t media_time) noexcept {
    frame.time = play_time + static_cast<uint64_t>(media_time);
    if (!ended() && handler) handler->on_rtmp_frame(face, frame, media_time);
}

void session::on_fault(rtmp_end_t why, const char* text) noexcept { end(why, "%s", text); }

}  // namespace net::rtmp
