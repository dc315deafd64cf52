// What RTMP has on a network thread: the players that are live, and the chunks of each frame, made once for all of
// them.
#pragma once

#include "rtmp_service/inside.h"
#include "station/lives.h"

#include "inet/rtmp_chunks.h"

namespace media::rtmp {

class client_t;
class part_t;

/// The players of a thread that have come up to the present of one stream: each frame is cut once for all of them.
class live final : public reader {
public:
    live(part_t& owner, stream& of) noexcept : owner_(owner), stream_(of) {}
    ~live();
    live(const live&) = delete;
    live& operator=(const live&) = delete;

    bool begin() noexcept;
    const stream& of() const noexcept { return stream_; }

    /// @param from  number of the first frame that it is sent. @return false when memory is out
    bool add(client_t& one, uint64_t from) noexcept { return places_.add({&one, from}); }
    void remove(const client_t& one) noexcept { places_.remove(one); }
    uint32_t users = 0;  ///< players that are here or on the way

    /// Gives `to` what the stream is known to have: parameter sets and the configuration of sound.
    void prepare(inet::rtmp::Chunks& to) const noexcept;
    /// Cuts a frame, with the timestamp that it has for everybody. @return whether there is something to be sent
    bool cut(inet::rtmp::Chunks& into, const entry_t& entry) noexcept;

private:
    struct place_t {
        client_t* one = nullptr;
        uint64_t from = 0;  ///< number of the first frame that it is sent
    };

    void on_entry(read_t what, const entry_t& entry) noexcept override;

    part_t& owner_;
    stream& stream_;
    inet::rtmp::Chunks chunks_{CORE_HERE};
    uint64_t base_ = 0;  ///< of the times; 0 before the first frame
    places<place_t> places_;
    bool following_ = false;
};

class part_t final : public part {
public:
    part_t(thread& on, service_t& of) noexcept : thread_(on), service_(of) {}

    /// Counts who watches at the moment when the thread does: its count less this one is that of the other services.
    void second() noexcept override;

    thread& on() noexcept { return thread_; }
    service_t& of() noexcept { return service_; }

    /// The clients of this thread. @return false when memory is out
    bool enter(client_t& one) noexcept;
    void exit(const client_t& one) noexcept;

    lives<live>& present() noexcept { return present_; }

    /// Counts on the thread, and for the service.
    void count_bytes(uint64_t bytes) noexcept;
    void count_picture(bool sent) noexcept;

private:
    thread& thread_;
    service_t& service_;
    uint32_t watching_ = 0;
    core::vector<client_t*> clients_;
    lives<live> present_;
};

}  // namespace media::rtmp
