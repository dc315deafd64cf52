/// How a protocol becomes a service of a station. RTSP is one (media/rtsp_service.h); a page, RTMP or SIP stand beside
/// it without a change to station, thread or stream.
///
/// Three classes make a service:
///     service    one for the station: its settings, which port it wants, which connections are its own
///     part       one on each network thread: what all clients of that thread share (ports for UDP, packets cut once)
///     client     one for each connection or call: lives on one thread and is deleted there
///
/// Life:
///     1. station::add() takes the service over, station::start() calls make_part() on each thread.
///     2. A connection to service::port() is accepted and given to the thread with the fewest clients. Where several
///        services share a port, the station's door reads the first bytes and asks their claims() in the order in which
///        they were added, until one answers yes.
///     3. take() makes the client, on that thread. The thread drives it: serve() when it is new, when it is due and
///        after thread::wake(); second() once a second. When finished() it is deleted, as soon as no callback runs.
///     4. station::stop() deletes clients, then parts, on their threads, then ends the threads, then the services.
///
/// Sending a stream: a client that comes up to the present reads with a cursor of its own. Then it follows: the part
/// registers one reader per stream with thread::follow(), is called once for each frame of the stream, makes of the
/// frame what the protocol sends (once for all clients) and passes over its live clients in one loop. A client may
/// change from one to the other where cursor::position() is thread::position().
///
/// Bounds for one thread:
///     clients        500, less what their places() take beyond one: the network thread watches 512 descriptors.
///                    When one more comes, the oldest idle() client gives way
///     first bytes    4096 for each connection in the door, and ten seconds
///
/// All virtual calls come from the thread of the client or part, but for port(), claims() and addresses(), which come
/// from any. None of them may throw.
#pragma once

#include "core/buf.h"
#include "inet/net_tcp.h"
#include "inet/net_thread.h"
#include "media/api.h"
#include "media/stream.h"

#include <atomic>
#include <cstdint>

namespace media {

class station;
class thread;

/// What is counted on a thread, for the status line. Written by the thread, read by any.
struct counters_t {
    std::atomic<uint32_t> watching = 0;  ///< clients that are sent a stream; counted once a second
    std::atomic<uint64_t> bytes = 0;     ///< sent
    std::atomic<uint64_t> dropped = 0;   ///< pictures left out for clients that do not keep up
};

/// A connection, or a call. Made with core::create(), released by delete, as are parts and services.
class MEDIA_API client {
public:
    virtual ~client();
    static void operator delete(void* block) noexcept;

    /// New, due, or woken: sends what has come. @param now  core_timer()
    /// @return when it is to be called next, by core_timer(); 0 for after the next thread::wake()
    virtual uint64_t serve(uint64_t now) noexcept = 0;
    /// Once a second: ends what is silent or stalls.
    virtual void second() noexcept = 0;
    /// Has it ended: it is deleted as soon as no callback runs.
    virtual void finish() noexcept = 0;
    virtual bool finished() const noexcept = 0;
    /// It is sent nothing and may give way to another.
    virtual bool idle() const noexcept = 0;
    /// It is sent a stream.
    virtual bool watching() const noexcept = 0;
    /// Descriptors that it watches.
    virtual uint32_t places() const noexcept { return 1; }

protected:
    client() = default;
    client(const client&) = delete;
    client& operator=(const client&) = delete;
};

/// What a service has on one thread.
class MEDIA_API part {
public:
    virtual ~part();
    static void operator delete(void* block) noexcept;
    /// Once a second.
    virtual void second() noexcept {}

protected:
    part() = default;
    part(const part&) = delete;
    part& operator=(const part&) = delete;
};

/// Follows a stream on a thread, for all clients of a part.
class MEDIA_API reader {
public:
    /// A frame, or what a cursor tells beside frames. @param entry  holds for the call
    virtual void on_entry(read_t what, const entry_t& entry) noexcept = 0;

protected:
    ~reader() = default;
};

/// Whether a connection is a service's.
enum class claim_t : uint8_t { no, yes, more };

class MEDIA_API service {
public:
    virtual ~service();
    static void operator delete(void* block) noexcept;

    /// The port that it listens on; 0 for none. Before station::start() 0 may also mean: any.
    virtual uint16_t port() const noexcept = 0;
    /// Is told the port that was found for it.
    virtual void set_port(uint16_t port) noexcept = 0;
    virtual bool listens() const noexcept { return true; }
    /// Judges a connection by its first bytes, `more` at most until 4096 are there. A service that stands alone on its
    /// port is not asked.
    virtual claim_t claims(buffer_t first) const noexcept = 0;
    /// Before the threads start. @return 1, or 0 with a reason in `error`
    virtual int open(station& of, failure_t* error) noexcept;
    /// @return null when memory is out, with a reason in `error`
    virtual part* make_part(thread& on, failure_t* error) noexcept = 0;
    /// Makes a client of a connection. The handler of the connection is the client's to set; it then calls
    /// Tcp::show_received().
    /// @param from  becomes the client's; null on return when it was taken
    /// @return null when it cannot be
    virtual client* take(thread& on, net::Tcp*& from) noexcept = 0;
    /// Calls `each` with the address of a stream for every way in which this service offers it.
    /// @param host  as the asker reaches the station
    virtual void addresses(const stream& of, const char* host, void (*each)(void* arg, const char* address),
                           void* arg) const noexcept = 0;

protected:
    service() = default;
    service(const service&) = delete;
    service& operator=(const service&) = delete;
};

/// A network thread of a station, as its clients and parts see it.
class MEDIA_API thread final {
public:
    net::nt_ctx* nt() const noexcept;
    media::station& station() const noexcept;
    /// 0 for the first; the others count up.
    unsigned index() const noexcept;
    counters_t& count() noexcept;
    /// What the service made here; null before make_part() and after its end.
    media::part* part(const service& of) const noexcept;

    /// Takes a client over and serves it. @return 1; 0 when there is no place for it, or memory is out: it is then the
    /// caller's still
    int add(client* taken) noexcept;
    /// Has serve() called before the next wait.
    void wake(client& which) noexcept;
    /// Has finished clients deleted as soon as no callback runs.
    void sweep() noexcept;

    /// Has `by` called for each frame of the stream from now on, before the next wait. The stream is held.
    /// @return 1, or 0 when memory is out
    int follow(stream& which, reader& by) noexcept;
    void unfollow(stream& which, reader& by) noexcept;
    /// Number of the frame that readers of this stream are called for next; 0 when nobody follows it here.
    uint64_t position(const stream& which) const noexcept;

    // Any thread

    /// Has `fn(arg)` called on this thread, in the order of the calls. What is left when the thread stops is called by
    /// the thread that stops it: nt() is then null. @return 1, or 0 when memory is out: `fn` is then not called
    int call(void (*fn)(thread& on, void* arg), void* arg) noexcept;
    /// Clients here and on their way here.
    uint32_t load() const noexcept;

    struct inside;
    inside& in() const noexcept { return *inside_; }

    thread(const thread&) = delete;
    thread& operator=(const thread&) = delete;

private:
    friend class media::station;
    explicit thread(inside* made) noexcept : inside_(made) {}
    ~thread() = default;

    inside* inside_;
};

}  // namespace media
