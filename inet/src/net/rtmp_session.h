// The client's side of one RTMP conversation: bytes in, bytes out, calls to the handler. It knows no socket.
#pragma once

#include "net/rtmp_media.h"
#include "net/rtmp_url.h"
#include "rtmp/amf.h"
#include "rtmp/chunks.h"

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/log.h"
#include "inet/rtmp_amf.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace net::rtmp {

inline constexpr uint32_t most_input = 8U << 20;  // bodies of messages, over all channels
inline constexpr uint32_t longest_command = 64 * 1024;
inline constexpr uint32_t most_values = 16384;          // made of a command or data message
inline constexpr uint32_t longest_packet = 128 * 1024;  // body that is sent
inline constexpr uint32_t most_output = 256 * 1024;
inline constexpr uint32_t handshake_size = 1536;  // C1, C2, S1, S2
inline constexpr uint32_t own_window = 2500000;

/// Settings with their texts.
class kept_settings {
public:
    /// @return false when memory is out: nothing has changed then
    bool set(const rtmp_settings_t& from, const char* file, int line) noexcept;
    const rtmp_settings_t* operator->() const noexcept { return &values_; }

private:
    static constexpr size_t text_count = 6;
    rtmp_settings_t values_;
    std::array<core::owned_text, text_count> texts_;
};

/// What parse_url() has read.
struct target_t {
    int protocol = 0;
    char host[longest_host + 1] = "";
    uint16_t port = 0;
    core::owned_text application;
    core::owned_text play_path;
};

class session : private ::inet::rtmp::chunk_owner, private media_owner {
public:
    session(ProtocolRtmp* face, const char* file, int line) noexcept;
    virtual ~session();
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    enum class step_t : uint8_t { idle, connecting, versions, echo, asking, creating, starting, playing, ended };

    bool handshake() noexcept;
    void process(std::span<const uint8_t> input) noexcept;
    void flush() noexcept { media_.flush(); }
    INET_PRINTF(3, 4) void end(rtmp_end_t why, const char* format, ...) noexcept;

    // As those of the ProtocolRtmp.

    bool send_connect_packet() noexcept;
    bool send_create_stream() noexcept;
    bool send_play() noexcept;
    bool send_ctrl(uint16_t event, uint32_t value, uint32_t time) noexcept;
    bool send_pong(uint32_t value) noexcept;
    bool send_checkbw() noexcept;
    bool send_checkbw_result(double id) noexcept;
    bool send_serverbw() noexcept;
    bool send_packet(uint32_t channel, uint8_t type, uint32_t stream, std::span<const uint8_t> body) noexcept;

    IRtmp* handler = nullptr;
    ProtocolRtmp* face;  ///< null once destroyed
    target_t target;
    kept_settings settings;
    buf_t output;
    bool news = false;  ///< something was added to the output
    step_t step = step_t::idle;
    uint32_t stream = 0;
    uint64_t received = 0;
    uint64_t play_time = 0;
    uint32_t calls = 0;  ///< of the owner's that run
    const char* file;
    int line;

    std::string_view application() const noexcept;
    std::string_view play_path() const noexcept;
    bool ended() const noexcept { return step == step_t::ended; }

private:
    using bytes_t = std::span<const uint8_t>;
    using message_t = ::inet::rtmp::message_t;

    // In
    void take_handshake(bytes_t& input) noexcept;
    bool read_message(bytes_t input) noexcept;
    ::inet::rtmp::take_t on_message_header(const message_t& message) noexcept override;
    bool on_message(const message_t& message, bytes_t body) noexcept override;
    void process_message(uint32_t type, uint32_t time, bytes_t body) noexcept;
    void process_fixed(uint32_t type, bytes_t body) noexcept;
    void process_ctrl(bytes_t body) noexcept;
    void process_media(uint32_t type, uint32_t time, bytes_t body) noexcept;
    void process_aggregate(uint32_t time, bytes_t body) noexcept;
    void acknowledge() noexcept;

    // Commands
    static constexpr size_t most_parameters = 4;
    using parameters_t = std::array<Variant, most_parameters>;
    void process_invoke(bytes_t body) noexcept;
    void process_notify(bytes_t body) noexcept;
    static uint32_t read_parameters(::inet::rtmp::amf::input_t& in, parameters_t& out) noexcept;
    void take_result(double id, const parameters_t& parameters) noexcept;
    void take_error(double id, const parameters_t& parameters) noexcept;
    void take_status(double id, const parameters_t& parameters) noexcept;
    void take_check(double id, const parameters_t& parameters) noexcept;
    void take_check_done(double id, const parameters_t& parameters) noexcept;
    void take_close(double id, const parameters_t& parameters) noexcept;
    void created(const Variant& id) noexcept;
    void begin_playing() noexcept;
    void refuse(rtmp_end_t why, const char* what, const Variant& info) noexcept;
    void require(bool sent) noexcept;

    // Out
    void begin_command(std::string_view name, double id) noexcept;
    void put(std::string_view text) noexcept;
    void put(double number) noexcept;
    void put_null() noexcept;
    void put_name(std::string_view name) noexcept;
    void put_property(std::string_view name, const char* text) noexcept;
    void put_property(std::string_view name, double number) noexcept;
    bool send_command(uint32_t channel, uint32_t stream_id) noexcept;
    bool make_tc_url(core::owned_text& out) const noexcept;

    // What came
    void on_track(const rtmp_track_t& track) noexcept override;
    void on_frame(av::frame_t& frame, int64_t media_time) noexcept override;
    void on_fault(rtmp_end_t why, const char* text) noexcept override;

    media media_;
    ::inet::rtmp::chunk_reader reader_;
    ::inet::rtmp::AMF0Serializer amf_;
    IOBuffer body_;  ///< a command that goes out
    bool body_whole_ = true;
    bool full_ = false;  ///< the output was at its bound
    log_ctx* log_;
    uint32_t number_;

    uint8_t hello_[1 + handshake_size] = {};  ///< S0 and S1
    uint32_t hello_size_ = 0;                 ///< how much of them has come, then how much of S2
    double last_id_ = 0;                      ///< transactions
    double connect_id_ = 0, create_id_ = 0, play_id_ = 0;
    bool checked_ = false;          ///< the bandwidth check was asked for
    double checks_ = 0;             ///< answered
    uint32_t window_ = own_window;  ///< after which the server wants to be told
    uint64_t acknowledged_ = 0;
    uint32_t told_window_ = 0;  ///< what the server was told
    uint32_t peer_window_ = own_window;
};

}  // namespace net::rtmp
