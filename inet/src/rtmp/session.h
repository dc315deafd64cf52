// The insides of inet::Rtmp: handshake, bytes in, bytes out (session.cpp), messages and commands (commands.cpp), media
// (streaming.cpp).
#pragma once

#include "rtmp/chunks.h"
#include "rtmp/handshake.h"

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/log.h"
#include "core/owned.h"
#include "inet/rtmp_protocol.h"
#include "inet/rtmp_serializer.h"

#include <optional>
#include <span>
#include <string_view>

namespace inet {

using bytes_t = std::span<const uint8_t>;

class Rtmp::insides final : public rtmp::chunk_owner {
public:
    insides(const char* file, int line) noexcept;
    insides(const insides&) = delete;
    insides& operator=(const insides&) = delete;
    ~insides();

    void restart() noexcept;

    // In
    bool receive(bytes_t bytes) noexcept;
    bool perform_handshake(IOBuffer& input, bool encrypted) noexcept;
    bool validate(bytes_t packet, uint8_t with_scheme) noexcept;
    rtmp::take_t on_message_header(const rtmp::message_t& message) noexcept override;
    bool on_message(const rtmp::message_t& message, bytes_t body) noexcept override;

    // Messages and commands
    bool serve(Variant& message) noexcept;
    bool serve_control(Variant& message) noexcept;
    bool serve_chunk_size(Variant& message) noexcept;
    bool serve_window(Variant& message) noexcept;
    bool serve_abort(Variant& message) noexcept;
    bool invoke(Variant& message) noexcept;
    bool connect(Variant& message) noexcept;
    bool authenticate(Variant& message) noexcept;
    bool create_stream(Variant& message) noexcept;
    bool play(Variant& message) noexcept;
    bool pause(Variant& message) noexcept;
    bool close_stream() noexcept;
    bool stop_play() noexcept;
    bool stream_length(Variant& message) noexcept;
    bool unknown(Variant& message) noexcept;
    bool set_credentials(const char* user, const char* password) noexcept;

    // Out
    bool send(Variant& message) noexcept;
    bool send(Variant&& message) noexcept { return send(message); }
    bool send_chunks(const rtmp::message_t& message, std::initializer_list<bytes_t> pieces) noexcept;
    bool send_raw(bytes_t bytes) noexcept;

    // Media
    bool takes_media() const noexcept { return playing && !paused && !failed; }
    bool feed(const av::frame_t& frame) noexcept;
    bool feed(rtmp::Chunks& chunks, buffer_t* lent) noexcept;
    bool unsent(uint32_t fcc) noexcept;
    bool feed_video(std::initializer_list<bytes_t> body, uint32_t timestamp) noexcept;
    bool feed_audio(std::initializer_list<bytes_t> body, uint32_t timestamp, const char* failure) noexcept;

    /// Ends the conversation. @return false
    bool fail(const char* reason) noexcept;
    void log_line(const char* text) noexcept { core_log_print(log, "%u: %s", id, text); }

    Rtmp door{this};  // the object that the owner holds
    const char* file;
    int line;
    uint32_t id;
    log_ctx* log;
    IRtmp* handler = nullptr;
    bool validates = false;

    uint8_t scheme = 0;
    bool handshaken = false;
    bool connected = false;
    bool playing = false;
    bool paused = false;
    bool failed = false;
    std::optional<rtmp::ciphers_t> ciphers;
    buf_t out;
    uint64_t received = 0;
    uint32_t acknowledged = 0;

private:
    bool receive_handshake(bytes_t& bytes) noexcept;
    bool receive_chunks(bytes_t bytes) noexcept;
    bool acknowledge() noexcept;
    bool answer(bool encrypted, bytes_t first_packet) noexcept;
    bool put(bytes_t bytes) noexcept;
    void cipher_from(uint32_t start) noexcept;
    bool raise_chunk_size() noexcept;
    bool reject(double id, const char* description) noexcept;

    // Handshake
    uint8_t version_ = 0;       // the first byte; 0 before it has come
    IOBuffer first_packet_;     // as far as it has come
    uint32_t second_left_ = 0;  // bytes of the second packet still to come

    // In
    rtmp::chunk_reader reader_;
    rtmp::RTMPSerializer serializer_;
    IOBuffer body_;  // of the message being served
    uint32_t window_;
    uint64_t told_ = 0;  // bytes received at the last acknowledgement

    // Out
    uint32_t chunk_size_ = rtmp::first_chunk_size;
    uint32_t answers_ = 0;  // bytes of answers since the output was last empty
    IOBuffer written_;
    rtmp::_Channel channels_[8];

    // Stream
    bool created_ = false;
    core::owned_text app_, tc_url_;
    core::owned_text user_, password_;
    bool gated_ = false;
    core::owned_object<rtmp::Chunks> own_chunks_;
    uint32_t head_sent_ = 0;  // generation of the head that the player has
};

}  // namespace inet
