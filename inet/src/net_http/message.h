// Reads HTTP messages out of received bytes. Knows no socket.
#pragma once

#include "net_http/chunks.h"
#include "net_http/download.h"
#include "net_http/head.h"

#include "core/owned.h"
#include "inet/net_http.h"

#include <optional>
#include <span>
#include <string_view>

namespace net::http {

/// What the response to a request will be.
struct expectation {
    expectation() noexcept = default;
    ~expectation() { core_buf_free(&sent); }
    expectation(const expectation&) = delete;
    expectation& operator=(const expectation&) = delete;

    bool head = false;                ///< it has no body, whatever it says
    core::owned_object<download> to;  ///< where its body goes; may be null
    buf_t sent;                       ///< the request, where it may be sent once more
    core::owned_object<expectation> next;
};

/// Owner of a reader. Inside each call it may reset(), stop() or expect(). What a call is given stays as it is until
/// the call has returned.
class message_owner {
public:
    /// As http_info::on_message; `complete` in the second call of a message.
    virtual void on_message(int status, header_s* header, const buffer_t* body, bool complete) noexcept = 0;
    /// A request was refused with 401, and no other waits for its response. @return true when the owner has reset the
    /// reader to send it once more: then nothing is told of the response
    virtual bool on_refused(const header_s& header, expectation& refused) noexcept = 0;
    /// The peer wants to be told to send the body of the request that was announced.
    virtual void on_expect() noexcept = 0;
    virtual void on_frame(const av::frame_t& frame) noexcept = 0;
    virtual void on_unknown_type(const char* type) noexcept = 0;
    /// A header, as it was received.
    virtual void on_header_text(std::string_view text) noexcept = 0;

protected:
    ~message_owner() = default;
};

/// The header at the front of what was received.
class head_text {
public:
    /// @param bare_lf  it may have lines that end with LF alone, as those of some cameras do (RFC 9112, 2.2)
    head_text(std::string_view in, bool bare_lf) noexcept;

    int size;               ///< as of http_header_find()
    std::string_view text;  ///< with CR LF, when there is one

    /// Bytes of the longest text: http_header_find() looks so far, and each LF may get a CR.
    static constexpr size_t most = size_t{2} * (4096 + 3);

private:
    char room_[most];
};

/// Whether the body of a response ends with the connection: no length is stated, and none follows from its status.
bool ends_with_connection(const header_s& response) noexcept;

class message_reader {
public:
    enum class role_t : uint8_t { server, client };

    message_reader(message_owner& owner, const char* file, int line) noexcept;
    ~message_reader();
    message_reader(const message_reader&) = delete;
    message_reader& operator=(const message_reader&) = delete;

    /// Parses what is there, until more is needed or owes_answer() is true. @return the bytes taken off the front
    uint32_t take(std::span<uint8_t> in) noexcept;
    /// As take(). Nothing more comes: a body that ends with the connection is complete, and reading stops.
    void end(std::span<uint8_t> in) noexcept;
    /// A connection begins: nothing is at hand.
    void reset(role_t role) noexcept;
    /// Reads nothing more; what comes is dropped.
    void stop() noexcept;

    /// The request at hand has been answered. Before its second call the rest of it is dropped, and there is none.
    void answered() noexcept;
    /// The next request may be read.
    void go_on() noexcept;
    /// The body of the response that is being announced goes to a file. @return false when none is
    bool save(core::owned_object<download> to) noexcept;
    /// It is split when it begins as a multipart body does. @return as save()
    bool split_if_parts() noexcept;
    /// Bytes of the latest body that were written to a file.
    uint64_t saved() const noexcept { return saved_; }
    /// A request goes out. A multipart body at hand is dropped.
    void expect(core::owned_object<expectation> response) noexcept;

    /// A request has been read, and no other is until go_on().
    bool owes_answer() const noexcept { return owes_ == owes_t::whole; }
    /// A request was announced, or refused, and neither was answered().
    bool awaits_answer() const noexcept { return owes_ != owes_t::nothing && owes_ != owes_t::answered && !settled_; }
    /// Of the request at hand.
    bool is_head() const noexcept { return is_head_; }
    bool is_server() const noexcept { return role_ == role_t::server; }
    /// Bytes of the longest input that can make sense now.
    uint32_t room() const noexcept;

    void set_limit(uint32_t most) noexcept;
    void set_types(const char* types) noexcept;

private:
    using bytes = std::span<uint8_t>;
    enum class phase_t : uint8_t { head, announcing, body, stopped };
    enum class framing_t : uint8_t { none, length, chunked, close };
    enum class mode_t : uint8_t { whole, multipart, dropped, unknown, file };
    enum class owes_t : uint8_t { nothing, announced, answered, whole };
    enum class step_t : uint8_t { on, more };

    step_t step(bytes& in) noexcept;
    step_t read_head(bytes& in) noexcept;
    step_t announce() noexcept;
    bool is_sent_again() noexcept;
    bool is_sound(std::string_view text) const noexcept;
    void judge_framing() noexcept;
    framing_t framing_of_body() const noexcept;
    bool choose_mode() noexcept;
    bool choose_boundary(std::string_view type) noexcept;
    bool takes_whole(std::string_view type) const noexcept;
    bool wants_continue() const noexcept;

    step_t read_body(bytes& in) noexcept;
    step_t read_chunked(bytes& in) noexcept;
    step_t read_content(bytes& from, bool all) noexcept;
    step_t read_whole(bytes& from, bool all) noexcept;
    step_t pass_through(bytes& from, bool all) noexcept;
    step_t look_for_parts(bytes& from, bool all) noexcept;

    step_t read_parts(bytes& from, bool all) noexcept;
    step_t read_boundary(bytes& from) noexcept;
    step_t skip_to_boundary(bytes& from) noexcept;
    step_t read_part_head(bytes& from) noexcept;
    step_t read_part(bytes& from) noexcept;
    step_t leave_part(bytes& from, size_t count, bool at_boundary) noexcept;
    bool take_part_head(std::string_view text) noexcept;
    step_t hand_over_part(bytes content) noexcept;

    step_t complete(const buffer_t* body) noexcept;
    step_t refuse(int status) noexcept;
    bytes within(bytes from) const noexcept;
    void consume(bytes& from, size_t count) noexcept;
    void forget() noexcept;
    void leave_call() noexcept;
    bool call(int status, header_s* header, const buffer_t* body, bool is_complete) noexcept;

    message_owner& owner_;
    const char* file_;
    int line_;
    role_t role_ = role_t::server;
    uint32_t limit_ = 8U << 20;
    core::owned_text types_;

    phase_t phase_ = phase_t::head;
    uint32_t blank_lines_ = 0;  ///< before the head
    head head_;
    header_s* header_ = nullptr;  ///< of the message at hand; it is head_'s
    framing_t framing_ = framing_t::none;
    mode_t mode_ = mode_t::whole;
    owes_t owes_ = owes_t::nothing;
    bool settled_ = false;   ///< what is owed has been answered
    bool silent_ = false;    ///< the owner gave the message up
    bool is_head_ = false;   ///< the request at hand is HEAD
    bool is_old_ = false;    ///< of HTTP/1.0, the message at hand
    bool looking_ = false;   ///< whether the body at hand is multipart is not known yet
    bool bodyless_ = false;  ///< the response at hand has no body
    uint32_t turn_ = 0;      ///< changed when the owner has reset or stopped the reader
    uint64_t left_ = 0;      ///< of a body with a length
    chunks chunks_;
    buf_t decoded_;                    ///< of chunks
    core::owned_object<download> to_;  ///< of the response at hand
    uint64_t saved_ = 0;

    core::owned_object<expectation> expected_;  ///< of requests that went out, in their order
    expectation* last_expected_ = nullptr;

    // What a call of the owner still reads though the reader was reset inside it. Nothing is read meanwhile, so that
    // the heads stay as they are.
    uint32_t calling_ = 0;
    buf_t spent_;

    // A multipart body
    core::owned_text boundary_;     ///< "--boundary"
    bool behind_boundary_ = false;  ///< the front stands right behind one
    bool skipping_ = false;         ///< until the next boundary
    head part_head_;
    header_s* part_ = nullptr;  ///< header of the part at the front; it is part_head_'s
    size_t part_head_size_ = 0;
    std::optional<uint64_t> part_length_;  ///< what stands behind it, where that is stated
    size_t searched_ = 0;                  ///< bytes at the front in which no boundary begins
};

}  // namespace net::http
