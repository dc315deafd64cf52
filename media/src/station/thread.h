// A network thread of a station, inside.
#pragma once

#include "core/owned.h"
#include "core/thread.h"
#include "inet/net_thread.h"
#include "media/service.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace media {

/// A stream that is followed on a thread: read once for all its readers.
struct feed {
    cursor place;
    stream* from = nullptr;
    core::vector<reader*> readers;  ///< null: gone while they are called
};

struct thread::inside final : net::Thread {
    inside(class station& of, unsigned number) noexcept;
    ~inside() override;

    /// @return whether it runs, with its parts
    bool begin(service* const* services, size_t count, failure_t* error) noexcept;
    // The three steps of stopping. A station takes each for all of its threads before the next: until all loops have
    // ended, one thread may still call another.
    void close() noexcept;
    void end_loop() noexcept;
    /// @return whether something was left to run
    bool drain() noexcept;
    void stop() noexcept override;
    /// @return false when memory is out
    bool post(void (*fn)(thread& on, void* arg), void* arg) noexcept;

    static void on_wake(void* arg, uint32_t events) noexcept;
    static void on_news(void* arg) noexcept;
    static void on_tick(void* arg, net::command_ctx* command) noexcept;
    static void on_close(void* arg, net::command_ctx* command) noexcept;
    static void on_second(void* arg, net::timer_ctx* timer) noexcept;
    bool open_wake() noexcept;
    void make_parts(failure_t* error) noexcept;
    void end_clients() noexcept;
    bool settled() const noexcept;
    void drop_unread() noexcept;
    void serve_due(uint64_t now) noexcept;
    void erase_finished() noexcept;
    void order_tick(uint64_t at) noexcept;
    bool make_place(uint32_t wanted) noexcept;
    feed* find_feed(const stream& which) noexcept;

    struct client_record {
        std::unique_ptr<client> served;
        uint64_t due;     ///< by core_timer(); 0 for not due
        uint32_t places;  ///< that it has taken
    };
    struct part_record {
        service* of;
        std::unique_ptr<media::part> made;
    };

    class station& owner;
    unsigned index;
    thread face;
    counters_t counters;
    std::atomic<uint32_t> load = 0;
    core::vector<client_record> clients;
    core::vector<part_record> parts;
    core::vector<core::owned_object<feed>> feeds;
    net::command_ctx* tick = nullptr;
    net::command_ctx* closer = nullptr;
    event_ctx* closed = nullptr;  ///< set once all that the thread had is gone
    bool closing = false;
    uint64_t closes_at = 0;  ///< core_timer(): at the latest
    std::mutex call_lock;    ///< `halted`, and the command that wakes the loop
    bool halted = true;
    net::timer_ctx* second = nullptr;
    uint64_t next_tick = 0;  ///< when `tick` is ordered for; 0 for not
    bool sweeping = false;

    // Who pushes sets `news` and, where it was clear, signals. The loop takes the signal, clears `news` and then looks:
    // what is pushed behind its look finds `news` clear again and signals anew.
    int wake_fd = -1;
    net::socket_ctx* wake_socket = nullptr;
    std::atomic<bool> news = false;
};

}  // namespace media
