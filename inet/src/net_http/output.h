// What goes to the peer of an HTTP connection, with one send: bytes that are gathered, a body that is lent, and bytes
// behind it. The loop's own.
#pragma once

#include "core/buf.h"
#include "inet/net_tcp.h"

#include <utility>

namespace net::http {

/// Bytes of the owner's, which are given back once.
class lent {
public:
    lent() noexcept = default;
    lent(buffer_t bytes, void (*release)(void* owner), void* owner) noexcept
        : bytes_(bytes), release_(release), owner_(owner) {}
    lent(lent&& other) noexcept { swap(other); }
    lent& operator=(lent&& other) noexcept {
        lent(std::move(other)).swap(*this);
        return *this;
    }
    ~lent() {
        if (release_) release_(owner_);
    }

    void swap(lent& other) noexcept {
        std::swap(bytes_, other.bytes_);
        std::swap(release_, other.release_);
        std::swap(owner_, other.owner_);
    }
    buffer_t bytes() const noexcept { return bytes_; }
    bool is_there() const noexcept { return bytes_.size > 0 || release_; }

private:
    buffer_t bytes_{};
    void (*release_)(void* owner) = nullptr;
    void* owner_ = nullptr;
};

class output {
public:
    /// Bytes that are gathered at most, beside one message.
    static constexpr uint32_t most_gathered = 16 * 1024;

    output(const char* file, int line) noexcept : file_(file), line_(line) {}
    ~output() { clear(); }
    output(const output&) = delete;
    output& operator=(const output&) = delete;

    /// Adds a message, all of it or nothing: both texts are copied. @return false when it has to wait, or memory is out
    bool add(buffer_t head, buffer_t text, lent& body) noexcept;
    /// The same of one text, whose buffer is taken over when nothing waits.
    bool add(buf_t& text, lent& body) noexcept;

    bool is_empty() const noexcept { return waiting() == 0 && !body_.is_there(); }
    /// Whether a message without a lent body may be added.
    bool has_place() const noexcept { return !body_.is_there() && front_.length < most_gathered; }
    /// Sends what the system takes; all has gone when it is then empty. @return bytes
    uint32_t send(Tcp& to) noexcept;
    void clear() noexcept;

private:
    uint32_t waiting() const noexcept { return front_.length + body_.bytes().size + behind_.length - sent_; }
    buf_t* place_for(uint64_t size, bool with_body) noexcept;
    void forget() noexcept;

    const char* file_;
    int line_;
    buf_t front_;
    lent body_;
    buf_t behind_;
    uint32_t sent_ = 0;  ///< of all three
};

}  // namespace net::http
