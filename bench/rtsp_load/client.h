// One client of the load: its dialog with the server and what it receives. All on one thread.
#pragma once

#include "stream.h"

#include <cstdint>
#include <netinet/in.h>
#include <span>
#include <string>
#include <unistd.h>
#include <utility>

namespace load {

enum class transport_t : uint8_t { tcp, udp, http, multicast };

/// What a client does with the server.
enum class manner_t : uint8_t {
    watch,  ///< reads everything at once
    stall,  ///< stops reading after PLAY
    slow,   ///< sends a request of a byte a second and never ends it
};

struct target {
    std::string url;
    sockaddr_in address{};
    transport_t transport = transport_t::tcp;
    bool uncut = false;     ///< datagrams of one message are taken as one
    uint32_t ticks = 3600;  ///< of the 90 kHz clock, from picture to picture
};

class descriptor {
public:
    descriptor() = default;
    explicit descriptor(int fd) : fd_(fd) {}
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

class client {
public:
    enum class state_t : uint8_t { setting_up, playing, ended };

    /// Begins to connect; what happens on its sockets is told by `epoll` through its user data.
    /// @param server  outlives the client
    client(const target& server, manner_t manner, int epoll);
    ~client();
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    /// Something happened on the socket with the given user data.
    /// @param scratch  room to read into, shared by the viewers of a thread
    void on_event(const void* user_data, uint32_t events, std::span<uint8_t> scratch, bool measuring);

    /// Once a second: keeps the session alive; sends the next byte of a slow one.
    void on_second();

    /// Reads what a stalled connection still has: true when the server has closed it.
    bool was_dropped(std::span<uint8_t> scratch);

    state_t state() const { return state_; }
    manner_t manner() const { return manner_; }
    /// Why it ended.
    const std::string& reason() const { return reason_; }
    const video_stream& video() const { return video_; }
    /// Microseconds from PLAY to the first picture that can be decoded; negative when none came.
    int64_t first_picture_delay() const { return video_.first_picture() ? video_.first_picture() - asked_ : -1; }

private:
    /// A socket with the client it belongs to, which is what the user data of its events points to.
    struct source {
        client* owner = nullptr;
        descriptor fd;
        bool open = false;
    };

public:
    static client* owner_of(void* user_data) { return static_cast<source*>(user_data)->owner; }

private:
    using step_t = void (client::*)(const std::string& response);

    bool connect(source& to);
    bool watch(source& what, uint32_t events);
    void on_open(source& opened);
    void read_connection(std::span<uint8_t> scratch, bool measuring);
    void read_datagrams(bool measuring);
    void read_uncut(std::span<uint8_t> scratch, bool measuring);
    void request(const std::string& method, const std::string& url, const std::string& headers, step_t next);
    void send_text(int fd, const std::string& text);
    void on_response(const std::string& response);
    void fail(const std::string& reason);

    void on_tunnel(const std::string& response);
    void on_options(const std::string& response);
    void on_describe(const std::string& response);
    void on_setup(const std::string& response);
    void on_play(const std::string& response);
    std::string wanted_transport();
    bool join(const std::string& transport);

    const target& server_;
    const manner_t manner_;
    const int epoll_;
    state_t state_ = state_t::setting_up;
    step_t next_ = nullptr;
    source control_;  ///< the RTSP connection, the GET half of a tunnel
    source post_;     ///< the POST half of a tunnel
    source rtp_;
    descriptor rtcp_;
    interleaved_stream incoming_;
    video_stream video_;
    bool measuring_ = false;
    int64_t now_ = 0;
    int64_t asked_ = 0;
    unsigned sequence_ = 0;
    unsigned seconds_ = 0;
    std::string cookie_;
    std::string base_;
    std::string session_;
    std::string reason_;
};

/// Address of "rtsp://host[:port]/..."; false when it cannot be told.
bool resolve(const std::string& url, sockaddr_in& address);

}  // namespace load
