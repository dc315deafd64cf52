// The messages that a server session sends, as trees of inet/rtmp_serializer.h, and where they travel: each kind on a
// chunk stream of its own, all with absolute times, so that media has the same bytes for every viewer.
#pragma once

#include "rtmp/chunks.h"

#include "common/iobuffer.h"
#include "common/variant.h"

#include <cstdint>
#include <string_view>

namespace inet::rtmp {

inline constexpr uint32_t control_channel = 2, command_channel = 3, data_channel = 4, status_channel = 5;
inline constexpr uint32_t video_channel = 6, audio_channel = 7;
inline constexpr uint32_t media_stream = 1;  // the message stream that createStream gives

inline message_t video_message(uint32_t time) noexcept {
    return {.channel = video_channel, .type = message_video, .stream = media_stream, .time = time};
}
inline message_t audio_message(uint32_t time) noexcept {
    return {.channel = audio_channel, .type = message_audio, .stream = media_stream, .time = time};
}
inline message_t data_message(uint32_t time) noexcept {
    return {.channel = data_channel, .type = message_data, .stream = media_stream, .time = time};
}

Variant chunk_size_message(uint32_t size) noexcept;
Variant ack_message(uint32_t bytes) noexcept;
Variant window_message(uint32_t size) noexcept;
Variant bandwidth_message(uint32_t value, uint32_t kind) noexcept;
Variant stream_begin_message(uint32_t stream) noexcept;
Variant stream_end_message(uint32_t stream) noexcept;
Variant pong_message(uint32_t value) noexcept;

// A command on a message stream. "parameters" 0 is null: the answers of this session have no command object.
Variant command_message(const char* name, double id, uint32_t stream) noexcept;
Variant result_message(double id) noexcept;
// The information object of an answer or onStatus, at "parameters" 1.
void set_status(Variant& command, const char* level, const char* code, std::string_view description) noexcept;
Variant on_status_message(const char* level, const char* code, std::string_view description) noexcept;
// What players ask before they show pixels and sound to a script.
Variant sample_access_message() noexcept;

// What onMetaData tells.
struct metadata_t {
    uint32_t width = 0, height = 0;
    bool video = false;
    uint8_t sound = 0;  // FLV codec; 0 for none
    char date[32] = {};
};
bool put_metadata_body(const metadata_t& known, IOBuffer& out) noexcept;

// The value as text into a caller's room, cut to it, with a terminator: for logs.
void print(const Variant& value, char* out, uint32_t size) noexcept;

}  // namespace inet::rtmp
