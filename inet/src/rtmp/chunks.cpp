#include "rtmp/chunks.h"

#include "bounded.h"

#include "core/memory.h"

#include <algorithm>
#include <cstring>

namespace inet::rtmp {

namespace {

constexpr uint32_t extended_time = 0xFFFFFF;  // what the field of three bytes holds when four follow
constexpr uint32_t message_header_size[] = {11, 7, 3, 0};

template <int bytes>
uint8_t* put(uint8_t* at, uint32_t value) noexcept {
    for (int i = 0; i < bytes; ++i)
        at[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
    return at + bytes;
}

template <int bytes>
uint32_t get(const uint8_t* at) noexcept {
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | at[i];
    return value;
}

uint32_t basic_header_size(uint32_t channel) noexcept { return channel < 64 ? 1 : channel < 319 ? 2 : 3; }

uint32_t extension_size(uint32_t time) noexcept { return time >= extended_time ? 4 : 0; }

}  // namespace

// --- Out ---

uint32_t put_basic_header(uint8_t* at, uint32_t format, uint32_t channel) noexcept {
    if (channel >= channel_ids) return 0;
    const uint32_t size = basic_header_size(channel);
    const uint32_t id = size == 1 ? channel : size - 2;
    at[0] = static_cast<uint8_t>(format << 6 | id);
    if (size == 2) at[1] = static_cast<uint8_t>(channel - 64);
    if (size == 3) put<2>(at + 1, channel - 64);
    return size;
}

uint32_t put_chunk_header(uint8_t* at, uint32_t format, const message_t& message, uint32_t time) noexcept {
    const uint32_t basic = put_basic_header(at, format, message.channel);
    if (basic == 0) return 0;
    uint8_t* to = at + basic;
    if (format < 3) to = put<3>(to, std::min(time, extended_time));
    if (format < 2) to = put<1>(put<3>(to, message.length), message.type);
    if (format == 0) {
        for (int i = 0; i < 4; ++i)
            *to++ = static_cast<uint8_t>(message.stream >> (8 * i));  // the one number with its low byte first
    }
    if (time >= extended_time) to = put<4>(to, time);
    return static_cast<uint32_t>(to - at);
}

uint64_t chunked_size(const message_t& message, uint32_t chunk_size) noexcept {
    if (message.length > max_message_length || message.channel >= channel_ids || chunk_size == 0) return 0;
    if (message.length == 0) return 0;
    const uint64_t header = basic_header_size(message.channel) + extension_size(message.time);
    const uint64_t chunks = (uint64_t{message.length} + chunk_size - 1) / chunk_size;
    return message.length + message_header_size[0] + chunks * header;
}

bool write_message(buf_t& out, const message_t& message, std::span<const std::span<const uint8_t>> pieces,
                   uint32_t chunk_size) noexcept {
    uint64_t length = 0;
    for (const auto& piece : pieces)
        length += piece.size();
    if (length > max_message_length || message.channel >= channel_ids || chunk_size == 0) return false;
    message_t head = message;
    head.length = static_cast<uint32_t>(length);
    const auto size = static_cast<uint32_t>(chunked_size(head, chunk_size));
    if (size == 0) return true;
    if (!core_buf_respace(&out, size, CORE_HERE)) return false;

    uint8_t* at = out.data + out.length;
    at += put_chunk_header(at, 0, head, head.time);
    uint32_t left = chunk_size;
    for (std::span<const uint8_t> piece : pieces) {
        while (!piece.empty()) {
            if (left == 0) {
                at += put_chunk_header(at, 3, head, head.time);
                left = chunk_size;
            }
            const size_t n = std::min<size_t>(piece.size(), left);
            std::memcpy(at, piece.data(), n);
            at += n;
            left -= static_cast<uint32_t>(n);
            piece = piece.subspan(n);
        }
    }
    out.length += size;
    return true;
}

// --- In ---

struct chunk_reader::channel_t {
    message_t message;       // the one that is being read, or the last one
    uint32_t step = 0;       // from the time of a message to the next one of format 3
    uint32_t extension = 0;  // the extended timestamp of the last header; below extended_time when it had none
    uint32_t got = 0;        // bytes of the body that have come
    bool busy = false;       // inside a message
    bool skip = false;       // its bytes are of no use
    buf_t body;              // keeps its room for the next message
};

chunk_reader::chunk_reader(const settings_t& settings, core::place where) noexcept
    : settings_(settings), where_(where), channels_(where) {}

chunk_reader::~chunk_reader() { reset(); }

void chunk_reader::reset() noexcept {
    for (channel_t& channel : channels_)
        core_buf_free(&channel.body);
    channels_.clear();
    current_ = none;
    last_ = head_length_ = chunk_left_ = held_ = 0;
    chunk_size_ = first_chunk_size;
    fault_ = chunk_fault_t::none;
}

bool chunk_reader::set_chunk_size(uint32_t size) noexcept {
    if (size == 0) return false;
    chunk_size_ = size;
    return true;
}

void chunk_reader::abort(uint32_t id) noexcept {
    channel_t* const channel = find(id);
    if (!channel) return;
    channel->busy = false;
    channel->skip = true;
    channel->got = 0;
    channel->body.length = 0;
}

chunk_reader::channel_t* chunk_reader::find(uint32_t id) noexcept {
    if (last_ < channels_.size() && channels_[last_].message.channel == id) return &channels_[last_];
    for (size_t i = 0; i < channels_.size(); ++i) {
        if (channels_[i].message.channel != id) continue;
        last_ = static_cast<uint32_t>(i);
        return &channels_[i];
    }
    return nullptr;
}

bool chunk_reader::fail(chunk_fault_t why) noexcept {
    fault_ = why;
    return false;
}

bool chunk_reader::read(std::span<const uint8_t> input, chunk_owner& owner) noexcept {
    while (fault_ == chunk_fault_t::none && !input.empty()) {
        if (current_ == none)
            read_head(input, owner);
        else
            read_body(input, owner);
    }
    return fault_ == chunk_fault_t::none;
}

// Moves bytes of a header from the input until `wanted` are there.
bool chunk_reader::head_has(uint32_t wanted, std::span<const uint8_t>& input) noexcept {
    while (head_length_ < wanted && !input.empty()) {
        head_[head_length_++] = input[0];
        input = input.subspan(1);
    }
    return head_length_ >= wanted;
}

// A header comes in pieces, and its length is told by its parts: the basic header by its first byte, the message header
// by the format, the extended timestamp by the time.
void chunk_reader::read_head(std::span<const uint8_t>& input, chunk_owner& owner) noexcept {
    if (!head_has(1, input)) return;
    const uint32_t low = head_[0] & 0x3F;
    const uint32_t basic = low > 1 ? 1 : low + 2;
    if (basic == 3 && !settings_.three_byte_ids) {
        fail(chunk_fault_t::three_byte_id);
        return;
    }
    const uint32_t format = head_[0] >> 6;
    const uint32_t size = basic + message_header_size[format];
    if (!head_has(size, input)) return;
    channel_t* const channel = open(basic == 1 ? low : basic == 2 ? 64U + head_[1] : 64U + get<2>(&head_[1]));
    if (!channel) return;

    if (format < 3) {
        uint32_t time = get<3>(&head_[basic]);
        if (time == extended_time) {
            if (!head_has(size + 4, input)) return;
            time = get<4>(&head_[size]);
        }
        begin_chunk(*channel, format, &head_[basic], time, owner);
        return;
    }
    if (channel->extension < extended_time) {
        begin_chunk(*channel, format, nullptr, 0, owner);
        return;
    }
    // The extended timestamp of the last header is repeated here, or was left out: then the body follows.
    std::array<uint8_t, 4> expected{};
    put<4>(expected.data(), channel->extension);
    uint32_t same = head_length_ - size;
    for (; same < 4 && !input.empty() && input[0] == expected[same]; input = input.subspan(1))
        head_[head_length_++] = expected[same++];
    if (same < 4 && input.empty()) return;
    begin_chunk(*channel, format, nullptr, 0, owner);
    if (same < 4 && fault_ == chunk_fault_t::none) read(std::span(expected).first(same), owner);
}

void chunk_reader::begin_chunk(channel_t& channel, uint32_t format, const uint8_t* fields, uint32_t time,
                               chunk_owner& owner) noexcept {
    head_length_ = 0;
    message_t next = channel.message;
    if (format < 2) {
        next.length = get<3>(fields + 3);
        next.type = fields[6];
    }
    for (uint32_t i = 0; format == 0 && i < 4; ++i)
        next.stream = next.stream >> 8 | uint32_t{fields[7 + i]} << 24;
    if (format < 3) channel.extension = time;
    const bool goes_on = channel.busy && next.length == channel.message.length && next.type == channel.message.type;
    if (!goes_on) {
        if (format < 3) channel.step = time;
        next.time = format == 0 ? time : next.time + channel.step;
        channel.message = next;
        channel.got = 0;
        channel.body.length = 0;
        channel.busy = true;
        const take_t take = owner.on_message_header(next);
        channel.skip = take != take_t::keep;
        if (take == take_t::refuse) fail(chunk_fault_t::refused);
        if (take == take_t::keep && next.length > settings_.max_bytes) fail(chunk_fault_t::too_much);
        if (fault_ != chunk_fault_t::none) return;
    }
    current_ = static_cast<size_t>(&channel - channels_.data());
    chunk_left_ = std::min(next.length - channel.got, chunk_size_);
    if (chunk_left_ == 0) end_chunk(channel, {}, owner);
}

void chunk_reader::read_body(std::span<const uint8_t>& input, chunk_owner& owner) noexcept {
    channel_t& channel = channels_[current_];
    const size_t n = std::min<size_t>(chunk_left_, input.size());
    const std::span<const uint8_t> bytes = input.first(n);
    input = input.subspan(n);
    chunk_left_ -= static_cast<uint32_t>(n);
    const bool whole = channel.got == 0 && n == channel.message.length;
    if (channel.busy) channel.got += static_cast<uint32_t>(n);
    if (!channel.skip && !whole && !keep(channel, bytes)) return;
    if (chunk_left_ == 0) end_chunk(channel, whole ? bytes : std::span(channel.body.data, channel.body.length), owner);
}

void chunk_reader::end_chunk(channel_t& channel, std::span<const uint8_t> body, chunk_owner& owner) noexcept {
    current_ = none;
    if (!channel.busy || channel.got < channel.message.length) return;
    channel.busy = false;
    channel.got = 0;
    channel.body.length = 0;  // its bytes stay until the next message
    const message_t message = channel.message;
    if (!channel.skip && !owner.on_message(message, body)) fail(chunk_fault_t::owner);
}

chunk_reader::channel_t* chunk_reader::open(uint32_t id) noexcept {
    if (channel_t* const known = find(id)) return known;
    if (id >= settings_.ids)
        fail(chunk_fault_t::channel);
    else if (channels_.size() >= settings_.max_channels)
        fail(chunk_fault_t::too_many_channels);
    if (fault_ != chunk_fault_t::none) return nullptr;
    try {
        channels_.emplace_back().message.channel = id;
    } catch (...) {
        fail(chunk_fault_t::memory);
        return nullptr;
    }
    return &channels_.back();
}

// Room grows with what comes, never beyond the length of the message. Channels without a message give theirs up when
// it is needed.
bool chunk_reader::keep(channel_t& channel, std::span<const uint8_t> bytes) noexcept {
    const auto more = static_cast<uint32_t>(bytes.size());
    buf_t& body = channel.body;
    if (more > body.size - body.length) {
        const uint32_t growth = channel.message.length - body.size;
        if (growth > settings_.max_bytes - held_) {
            for (channel_t& other : channels_) {
                if (other.busy) continue;
                held_ -= other.body.size;
                core_buf_free(&other.body);
            }
        }
        const uint32_t before = body.size;
        const uint32_t bound = before + std::min(growth, settings_.max_bytes - held_);
        if (more > bound - body.length) return fail(chunk_fault_t::too_much);
        if (!bounded::make_room(body, more, bound, where_.file, where_.line)) return fail(chunk_fault_t::memory);
        held_ += body.size - before;
    }
    std::memcpy(body.data + body.length, bytes.data(), more);
    body.length += more;
    return true;
}

}  // namespace inet::rtmp
