#include "rtmp/session.h"

#include "rtmp/messages.h"

#include <algorithm>
#include <atomic>

namespace inet {

namespace {

using namespace rtmp;

std::atomic<uint32_t> next_id{0};

constexpr uint32_t channels_in = 319;  // chunk stream ids taken: 0 to 318
constexpr uint32_t max_input = 64 * 1024;
constexpr uint32_t max_answers = 64 * 1024;
constexpr uint32_t first_window = 2500000;
constexpr uint32_t stream_limit = 256;

constexpr chunk_reader::settings_t reader_settings{
    .ids = channels_in, .three_byte_ids = false, .max_channels = channels_in, .max_bytes = max_input};

}  // namespace

Rtmp::insides::insides(const char* made_in, int made_at) noexcept
    : file(made_in),
      line(made_at),
      id(++next_id),
      log(core_log_create(made_in, made_at, "rtmp")),
      first_packet_(made_in, made_at),
      reader_(reader_settings, {made_in, made_at}),
      body_(made_in, made_at),
      window_(first_window),
      written_(made_in, made_at) {}

Rtmp::insides::~insides() {
    core_buf_free(&out);
    core_log_free(log);
}

void Rtmp::insides::restart() noexcept {
    handshaken = connected = playing = paused = failed = created_ = false;
    version_ = scheme = 0;
    second_left_ = 0;
    first_packet_.IgnoreAll();
    ciphers.reset();
    reader_.reset();
    body_.IgnoreAll();
    out.length = answers_ = acknowledged = 0;
    received = told_ = 0;
    window_ = first_window;
    chunk_size_ = first_chunk_size;
    std::ranges::fill(channels_, _Channel());
    app_.reset();
    tc_url_.reset();
    own_chunks_.reset();
    head_sent_ = 0;
}

bool Rtmp::insides::fail(const char* reason) noexcept {
    if (!failed) log_line(reason);
    failed = true;
    playing = false;
    return false;
}

// --- In ---

bool Rtmp::insides::receive(bytes_t bytes) noexcept {
    if (failed) return false;
    received += bytes.size();
    if ((!handshaken || second_left_ > 0) && !receive_handshake(bytes)) return false;
    if (bytes.empty()) return true;
    return receive_chunks(bytes) && acknowledge();
}

/// Takes the bytes of the handshake off the front.
bool Rtmp::insides::receive_handshake(bytes_t& bytes) noexcept {
    if (bytes.empty()) return true;
    if (version_ == 0 && !handshaken) {
        version_ = bytes.front();
        if (version_ != plain_version && version_ != encrypted_version) return fail("closing: unknown version");
        bytes = bytes.subspan(1);
    }
    if (!handshaken) {
        const auto missing = std::min<size_t>(packet_size - first_packet_.Size(), bytes.size());
        if (!first_packet_.ReadFromBuffer(bytes.data(), static_cast<uint32_t>(missing)))
            return fail("closing: out of memory");
        bytes = bytes.subspan(missing);
        if (first_packet_.Size() < packet_size) return true;
        if (!perform_handshake(first_packet_, version_ == encrypted_version)) return false;
        first_packet_ = IOBuffer(file, line);
    }
    const auto second = std::min<size_t>(second_left_, bytes.size());
    second_left_ -= static_cast<uint32_t>(second);
    bytes = bytes.subspan(second);
    return true;
}

bool Rtmp::insides::validate(bytes_t packet, uint8_t with_scheme) noexcept {
    if (packet.size() < packet_size || !is_signed(packet.first<packet_size>(), with_scheme)) return false;
    scheme = with_scheme;
    return true;
}

bool Rtmp::insides::perform_handshake(IOBuffer& input, bool encrypted) noexcept {
    if (failed || input.Size() < packet_size) return fail("closing: first packet too short");
    if (!answer(encrypted, input.Readable())) return false;
    const uint32_t behind = input.Size() - packet_size;
    second_left_ = packet_size - std::min(behind, packet_size);
    input.IgnoreAll();
    handshaken = true;
    return true;
}

bool Rtmp::insides::answer(bool encrypted, bytes_t first_packet) noexcept {
    const auto client = first_packet.first<packet_size>();
    scheme = 0;
    bool simple = false;
    if (validates && !is_signed(client, 0)) {
        scheme = is_signed(client, 1) ? 1 : 0;
        if (scheme == 0 && encrypted) return fail("Unable to validate client");
        simple = scheme == 0;
        if (simple) log_line("Client not validated");
    }
    const uint32_t size = simple ? packet_size : answer_size;
    const core::owned<uint8_t> block(static_cast<uint8_t*>(core_malloc(size, file, line)));
    if (!block) return fail("closing: out of memory");

    std::optional<ciphers_t> agreed;
    if (simple) {
        put_simple_answer(std::span<uint8_t, packet_size>(block.get(), packet_size));
    } else {
        DHWrapper key_exchange;
        if (encrypted) {
            agreed = agree(client, scheme, key_exchange);
            if (!agreed) return fail("closing: degenerate public key");
        }
        put_signed_answer(std::span<uint8_t, answer_size>(block.get(), answer_size), client, scheme,
                          encrypted ? &key_exchange : nullptr);
    }
    const uint8_t version = encrypted ? encrypted_version : plain_version;
    if (!put({&version, 1}) || !put({block.get(), size})) return fail("closing: out of memory");
    ciphers = agreed;  // from the first byte behind the handshake on
    return true;
}

bool Rtmp::insides::receive_chunks(bytes_t bytes) noexcept {
    const auto read = [this](bytes_t plain) {
        return reader_.read(plain, *this) || fail("closing: chunks cannot be read");
    };
    if (!ciphers) return read(bytes);
    for (uint8_t plain[2048]; !bytes.empty();) {
        const bytes_t piece = bytes.first(std::min(bytes.size(), sizeof plain));
        ciphers->in.apply(piece.data(), plain, piece.size());
        if (!read({plain, piece.size()})) return false;
        bytes = bytes.subspan(piece.size());
    }
    return true;
}

take_t Rtmp::insides::on_message_header(const message_t& message) noexcept {
    if (message.type != message_audio && message.type != message_video) return take_t::keep;
    if (message.stream < stream_limit) return take_t::skip;
    if (message.type == message_video)
        core_log_print(log, "%u: The server doesn't support stream ids bigger than %u", id, stream_limit);
    return take_t::refuse;
}

bool Rtmp::insides::on_message(const message_t& message, bytes_t bytes) noexcept {
    const _Header header{.channelId = message.channel,
                         .timestamp = message.time,
                         .messageLength = message.length & max_message_length,
                         .messageType = message.type & 0xFF,
                         .streamId = message.stream,
                         .isAbsolute = true};
    body_.IgnoreAll();
    Variant tree;
    if (!body_.ReadFromBuffer(bytes.data(), static_cast<uint32_t>(bytes.size())) ||
        !serializer_.Deserialize(header, body_, tree))
        return fail("Unable to deserialize message");
    if (!serve(tree)) return fail("Unable to send rtmp message to application");
    return body_.Size() == 0 || fail("closing: bytes behind a message");
}

bool Rtmp::insides::acknowledge() noexcept {
    if (window_ == 0 || received - told_ < window_) return true;
    told_ = received;
    return send(ack_message(static_cast<uint32_t>(received)));
}

// --- Out ---

/// Bytes as they are to be on the wire.
bool Rtmp::insides::put(bytes_t bytes) noexcept {
    if (bytes.empty()) return true;
    return core_buf_read(&out, bytes.data(), static_cast<uint32_t>(bytes.size())) > 0;
}

/// Ciphers what was appended from there on.
void Rtmp::insides::cipher_from(uint32_t start) noexcept {
    if (ciphers) ciphers->out.apply(out.data + start, out.data + start, out.length - start);
}

bool Rtmp::insides::send_raw(bytes_t bytes) noexcept {
    const uint32_t start = out.length;
    if (failed || !put(bytes)) return false;
    cipher_from(start);
    return true;
}

bool Rtmp::insides::send_chunks(const message_t& message, std::initializer_list<bytes_t> pieces) noexcept {
    const uint32_t start = out.length;
    if (failed || !write_message(out, message, pieces, chunk_size_)) return false;
    cipher_from(start);
    return true;
}

bool Rtmp::insides::send(Variant& message) noexcept {
    if (failed) return false;
    const auto number = static_cast<uint32_t>(message["header"]["channelId"]);
    _Channel other;
    _Channel& channel = number < std::size(channels_) ? channels_[number] : other;
    written_.IgnoreAll();
    if (!serializer_.Serialize(channel, message, written_, chunk_size_)) return fail("closing: answer not written");
    if (out.length == 0) answers_ = 0;
    answers_ += written_.Size();
    if (answers_ > max_answers) return fail("closing: the peer does not read its answers");
    return send_raw(written_.Readable()) || fail("closing: out of memory");
}

}  // namespace inet
