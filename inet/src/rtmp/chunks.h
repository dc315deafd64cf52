// The RTMP chunk stream: headers of chunks, messages out of chunks in any split of the input, and messages into chunks.
#pragma once

#include "core/buf.h"
#include "core/owned.h"

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>

namespace inet::rtmp {

inline constexpr uint32_t first_chunk_size = 128;
inline constexpr uint32_t max_message_length = 0xFFFFFF;
inline constexpr uint32_t channel_ids = 65599;  // a basic header tells lower ones

enum message_type_t : uint8_t {
    message_chunk_size = 1,
    message_abort = 2,
    message_ack = 3,
    message_user_control = 4,
    message_window_ack_size = 5,
    message_peer_bandwidth = 6,
    message_audio = 8,
    message_video = 9,
    message_data_amf3 = 15,
    message_shared_object_amf3 = 16,
    message_command_amf3 = 17,
    message_data = 18,
    message_shared_object = 19,
    message_command = 20,
};

struct message_t {
    uint32_t channel = 0;  // chunk stream id
    uint32_t type = 0;
    uint32_t stream = 0;  // message stream id
    uint32_t time = 0;    // absolute, milliseconds modulo 2^32
    uint32_t length = 0;  // of the body
};

// --- Out ---

// Bytes of the longest header of a chunk: basic, message, extended timestamp.
inline constexpr uint32_t max_chunk_header = 3 + 11 + 4;

// Writes a basic header. The number of the three-byte form has its high byte first; chunk_reader takes it so, too.
// Returns its bytes, 1 to 3; 0 for a channel of channel_ids and above.
uint32_t put_basic_header(uint8_t* at, uint32_t format, uint32_t channel) noexcept;
// Writes basic header, message header and extended timestamp of a format. `time` is what the field of the format holds.
// Format 3 writes the extended timestamp of `time`, too. Returns the bytes; 0 for a channel of channel_ids and above.
uint32_t put_chunk_header(uint8_t* at, uint32_t format, const message_t& message, uint32_t time) noexcept;

// Bytes of a message in chunks whose first has format 0; 0 for one that write_message() refuses.
uint64_t chunked_size(const message_t& message, uint32_t chunk_size) noexcept;

// Appends a message whose body is the pieces, one after the other: a header of format 0 with the absolute time, then
// chunks of format 3, which repeat an extended timestamp. `message.length` is ignored: it is the length of the pieces.
// The bytes are the same for all viewers of one chunk size. A body without bytes makes no chunk. Allocates only when
// `out` has to grow. Returns false, with `out` as it was, when
//   - the body is longer than max_message_length,
//   - the channel is channel_ids or above, the chunk size is 0,
//   - memory is out.
bool write_message(buf_t& out, const message_t& message, std::span<const std::span<const uint8_t>> pieces,
                   uint32_t chunk_size) noexcept;
inline bool write_message(buf_t& out, const message_t& message, std::initializer_list<std::span<const uint8_t>> pieces,
                          uint32_t chunk_size) noexcept {
    return write_message(out, message, {pieces.begin(), pieces.size()}, chunk_size);
}

// --- In ---

enum class take_t : uint8_t { keep, skip, refuse };

// Takes messages. From inside, the owner may call set_chunk_size() and abort() of the reader, but may not end it.
class chunk_owner {
public:
    // The header of a message is complete; nothing of its body is held yet. Of a skipped message no more is heard.
    virtual take_t on_message_header(const message_t& message) noexcept = 0;
    // A message is complete. The body is valid until the call returns. False makes the read fail.
    virtual bool on_message(const message_t& message, std::span<const uint8_t> body) noexcept = 0;

protected:
    ~chunk_owner() = default;
};

// Why a read failed, for the log.
enum class chunk_fault_t : uint8_t {
    none,
    three_byte_id,
    channel,
    too_many_channels,
    too_much,
    memory,
    refused,
    owner
};

// Puts messages together. Input comes in any split and is always taken whole. A body that came in one piece within one
// chunk is handed on as it stands in the input, without a copy. After a failed read every further one fails.
//
// What other senders do is taken:
//   - A message is begun with any format. Fields that its header lacks are those of the message before on that channel.
//   - Chunks of format 3 repeat the extended timestamp, or leave it out.
//   - A header of format 0 to 2 inside a message continues it when length and type are the same. Otherwise the message
//     is given up, and another one begins.
//   - Format 3 begins a message with the time step of the message before. After format 0 the step is that time.
//
// Bounds: settings_t::max_channels records of at most 128 bytes, settings_t::max_bytes of bodies over all channels.
class chunk_reader {
public:
    struct settings_t {
        uint32_t ids = channel_ids;  // chunk stream ids below it are taken
        bool three_byte_ids = true;  // whether their form is understood
        uint32_t max_channels = 64;  // in use, over the whole connection
        // Of bodies, held over all channels. A longer message that is kept fails at its header.
        uint32_t max_bytes = 4U << 20;
    };

    explicit chunk_reader(const settings_t& settings, core::place where = core::place::here()) noexcept;
    chunk_reader(const chunk_reader&) = delete;
    chunk_reader& operator=(const chunk_reader&) = delete;
    ~chunk_reader();

    bool read(std::span<const uint8_t> input, chunk_owner& owner) noexcept;
    chunk_fault_t fault() const noexcept { return fault_; }

    // Body bytes of a chunk, from the next chunk on; first_chunk_size at first. False for 0, which changes nothing.
    bool set_chunk_size(uint32_t size) noexcept;
    uint32_t chunk_size() const noexcept { return chunk_size_; }

    // Gives up what has come of the message on a channel. The rest of a chunk that is being read is skipped.
    void abort(uint32_t channel) noexcept;

    // As new, for another connection.
    void reset() noexcept;

    // Bytes of memory that bodies hold.
    uint32_t held() const noexcept { return held_; }

private:
    struct channel_t;

    channel_t* find(uint32_t id) noexcept;
    channel_t* open(uint32_t id) noexcept;
    bool fail(chunk_fault_t why) noexcept;
    bool head_has(uint32_t wanted, std::span<const uint8_t>& input) noexcept;
    void read_head(std::span<const uint8_t>& input, chunk_owner& owner) noexcept;
    void begin_chunk(channel_t& channel, uint32_t format, const uint8_t* fields, uint32_t time,
                     chunk_owner& owner) noexcept;
    void read_body(std::span<const uint8_t>& input, chunk_owner& owner) noexcept;
    void end_chunk(channel_t& channel, std::span<const uint8_t> body, chunk_owner& owner) noexcept;
    bool keep(channel_t& channel, std::span<const uint8_t> bytes) noexcept;

    settings_t settings_;
    core::place where_;
    core::vector<channel_t> channels_;
    size_t current_ = none;  // the channel whose chunk is being read
    static constexpr size_t none = static_cast<size_t>(-1);
    std::array<uint8_t, max_chunk_header> head_{};  // of the chunk that is being read, as far as it has come
    uint32_t head_length_ = 0;
    uint32_t chunk_left_ = 0;  // bytes of the body in the current chunk that have not come
    uint32_t last_ = 0;        // place of the channel that was found last
    uint32_t chunk_size_ = first_chunk_size;
    uint32_t held_ = 0;
    chunk_fault_t fault_ = chunk_fault_t::none;
};

}  // namespace inet::rtmp
