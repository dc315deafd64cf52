// Reads HTTP messages out of received bytes. Knows no socket.
#pragma once

#include "net_http/chunks.h"
#include "net_http/download.h"

#include "core/owned.h"
#include "inet/net_http.h"

#include <optional>
#include <string_view>

namespace net::http {

/// Owner of a reader. Inside each call it may reset() or stop() the reader.
class message_owner {
public:
    /// As http_info::on_message; `complete` in the second call of a message.
    virtual void on_message(int status, header_s* header, const buffer_t* body, bool complete) noexcept = 0;
    virtual void on_frame(const av::frame_t& frame) noexcept = 0;
    virtual void on_unknown_type(const char* type) noexcept = 0;
    /// A header, as it was received.
    virtual void on_header_text(std::string_view text) noexcept = 0;

protected:
    ~message_owner() = default;
};

class message_reader {
public:
    explicit message_reader(message_owner& owner, const char* file, int line) noexcept;
    ~message_reader();
    message_reader(const message_reader&) = delete;
    message_reader& operator=(const message_reader&) = delete;

    /// Parses what is there, until more is needed or paused() is true, and takes it off the buffer.
    void take(buf_t& in) noexcept;
    /// The connection has ended: a body that ends with it is complete.
    void end(buf_t& in) noexcept;
    /// A connection begins: nothing is at hand.
    void reset() noexcept;
    /// Reads nothing more; what comes is dropped.
    void stop() noexcept;

    /// The request at hand has been answered. Before its second call the rest of it is dropped.
    void answered() noexcept;
    /// A request goes out: a multipart body at hand is given up. @param to  the file for the next body; may be null
    void expect(bool head, core::owned_object<download> to) noexcept;

    /// A request was handed over and not answered yet.
    bool owes_answer() const noexcept { return owes_ == owes_t::whole; }
    /// The request at hand was announced and asks to be told to go on.
    bool wants_continue() const noexcept;
    bool is_head() const noexcept { return is_head_; }
    /// Bytes of the longest input that can make sense now.
    uint32_t room() const noexcept;

    void set_limit(uint32_t bytes) noexcept { limit_ = bytes; }
    void set_types(const char* types) noexcept;

private:
    enum class phase_t : uint8_t { head, body, stopped };
    enum class framing_t : uint8_t { none, length, chunked, close };
    enum class mode_t : uint8_t { whole, multipart, dropped, unknown, file };
    enum class owes_t : uint8_t { nothing, announced, whole };
    enum class step_t : uint8_t { on, more };

    step_t step(buf_t& in) noexcept;
    step_t read_head(buf_t& in) noexcept;
    bool judge_framing(std::string_view text) noexcept;
    bool choose_mode() noexcept;
    bool takes_whole(std::string_view type) const noexcept;
    step_t read_body(buf_t& in) noexcept;
    step_t read_whole(buf_t& from, bool all) noexcept;
    step_t read_parts(buf_t& from, bool all) noexcept;
    step_t read_part_head(buf_t& from) noexcept;
    step_t read_part(buf_t& from) noexcept;
    step_t leave_part(buf_t& from, uint32_t count, bool at_boundary) noexcept;
    bool take_part_head(std::string_view text) noexcept;
    bool hand_over_part(uint8_t* data, uint32_t size) noexcept;
    step_t pass_through(buf_t& from, bool all) noexcept;
    step_t complete(const buffer_t* body) noexcept;
    step_t refuse(int status) noexcept;
    uint32_t within(const buf_t& from) const noexcept;
    void consume(buf_t& from, uint32_t count) noexcept;
    void forget() noexcept;
    bool call(int status, header_s* header, const buffer_t* body, bool is_complete) noexcept;

    message_owner& owner_;
    const char* file_;
    int line_;
    uint32_t limit_ = 8U << 20;
    core::owned_text types_;

    phase_t phase_ = phase_t::head;
    header_s* header_ = nullptr;
    framing_t framing_ = framing_t::none;
    mode_t mode_ = mode_t::whole;
    owes_t owes_ = owes_t::nothing;
    bool is_head_ = false;   ///< the request at hand is HEAD
    bool bodyless_ = false;  ///< the next response answers HEAD
    uint32_t turn_ = 0;      ///< changed when the owner has reset or stopped the reader
    uint64_t left_ = 0;      ///< of a body with a length
    chunks chunks_;
    buf_t decoded_;  ///< of chunks

    // A multipart body
    core::owned_text boundary_;            ///< "--boundary"
    bool behind_boundary_ = false;         ///< the front stands right behind one
    header_s* part_ = nullptr;             ///< header of the part at the front
    uint32_t part_head_ = 0;               ///< bytes of it
    std::optional<uint64_t> part_length_;  ///< what stands behind it, where that is stated
    uint32_t searched_ = 0;                ///< bytes at the front in which no boundary begins
    core::owned_object<download> file_to_;
};

}  // namespace net::http
