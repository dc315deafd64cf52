// What the rooms of the stream share: the ring of held frames and who reads it.
#pragma once

#include "core/owned.h"
#include "media/stream.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>

namespace media {

/// A format with its configuration, never changed once made; held by count.
struct format_record {
    format_t shown{};
    core::vector<uint8_t> config;
    uint32_t reordered = 0;  ///< pictures that may be decoded before one that is shown before them, by its SPS
    std::atomic<uint32_t> users{1};
};

inline void release(format_record* record) noexcept {
    if (record->users.fetch_sub(1, std::memory_order_acq_rel) == 1) core::destroy(record);
}
using format_share = core::owned<format_record, release>;

inline format_share share(format_record* record) noexcept {
    if (record) record->users.fetch_add(1, std::memory_order_relaxed);
    return format_share(record);
}

/// Null when memory is out. @param generation  1 for the first of a track
format_share make_format(const format_t& format, uint32_t generation, const char* file, int line) noexcept;

/// Whether two formats are the same but for the generation.
bool same_format(const format_t& one, const format_t& other) noexcept;

struct learned_t {
    format_t format;
    bool lacks_sets;  ///< an H.264 key picture without its parameter sets
};

/// A format as it is told, and what is `known` where it does not tell. Parameter sets are gathered in `config`.
format_t complete(const format_t& told, const format_t& known, core::vector<uint8_t>& config);

/// What a frame tells of its format; the rest is as in `known`. Parameter sets are gathered in `config`.
learned_t learn(const av::frame_t& frame, const format_t& known, core::vector<uint8_t>& config);

struct slot_t {
    av::frame_t frame{};
    format_share format;
    kind_t kind = kind_t::video;
    uint32_t gaps = 0;  ///< in front of it, since the stream began
    uint64_t utc = 0;
    uint64_t arrival = 0;

    void clear() noexcept {
        avc_frame_drop(&frame);
        format.reset();
    }
};

/// When pictures are decoded whose times of display are known: the n-th at the n-th of these times, less by as many as
/// change places.
class decoding_clock {
public:
    /// @param reordered  how many change places, at least @return the time of decoding
    int64_t take(int64_t shown, uint32_t reordered) noexcept;
    /// The next time may be any.
    void gap() noexcept { waiting_ = seen_ = 0; }

private:
    static constexpr uint32_t most = 16;  ///< ITU-T H.264, A.3.1
    static constexpr int64_t longest_jump = 10'000'000;
    static constexpr int64_t usual_step = 40'000;

    uint32_t depth_ = 0;
    std::array<int64_t, most + 1> times_{};  ///< of display that no picture was decoded at yet, in order
    uint32_t waiting_ = 0;
    std::array<int64_t, most> last_shown_{};
    uint32_t seen_ = 0;
    int64_t last_ = 0;
};

/// Turns the times of a source into media time, which never runs back. The tracks of a stream share the correction, so
/// that they stay in step.
class media_clock {
public:
    /// @param now  core_timer()
    uint64_t take(kind_t kind, uint64_t time, uint64_t now) noexcept;
    /// The media time at core_timer() `now`; 0 before the first frame.
    uint64_t at(uint64_t now) const noexcept { return started_ ? last_any_ + (now - last_any_now_) : 0; }
    /// The next time may be any.
    void gap() noexcept { gap_ = true; }

private:
    static constexpr int64_t longest_drift = 5'000'000;  ///< a source's clock that goes apart further was set
    static constexpr int64_t longest_return = 500'000;   ///< and one of a track that runs back further

    bool started_ = false;
    bool gap_ = false;
    int64_t correction_ = 0;
    std::array<uint64_t, kind_count> last_{};
    std::array<uint64_t, kind_count> last_now_{};  ///< core_timer() of `last_`
    uint64_t last_any_ = 0;
    uint64_t last_any_now_ = 0;
};

inline constexpr uint64_t no_number = UINT64_MAX;

struct demand_t {
    void (*wanted)(void* arg, int yes) = nullptr;
    void* arg = nullptr;
    uint64_t linger = 0;
    bool told = false;        ///< the last call was with 1
    uint64_t idle_since = 0;  ///< core_timer() when the last reader left; 0 for never
};

struct stream::inside {
    inside(const char* caller_file, int caller_line) noexcept;
    ~inside();
    inside(const inside&) = delete;
    inside& operator=(const inside&) = delete;

    slot_t& slot(uint64_t number) noexcept { return ring[number & (ring.size() - 1)]; }
    const format_record* format(kind_t kind) const noexcept { return formats[static_cast<size_t>(kind)].get(); }
    bool declare(const format_t& format) noexcept;
    bool shape(const av::frame_t& frame, kind_t kind, slot_t& out) noexcept;
    bool share_with_sets(const av::frame_t& frame, const format_t& format, av::frame_t& out);
    void evict_first() noexcept;
    void evict(uint64_t now) noexcept;
    bool is_reserved(uint64_t number, uint64_t age) const noexcept;
    void news() noexcept;

    const char* file;
    int line;
    uint64_t id;
    core::owned_text name;
    limits_t limits;
    std::atomic<uint32_t> users{1};

    mutable std::mutex lock;
    std::condition_variable pushed;
    uint32_t waiting = 0;

    core::vector<slot_t> ring;
    uint64_t first = 0;        ///< number of the oldest held frame
    uint64_t next = 0;         ///< of the next one to be pushed
    uint64_t key = no_number;  ///< of the last key picture that is held with all that follows
    uint64_t bytes = 0;
    uint64_t refused = 0;
    bool ended = false;
    uint32_t gaps = 0;      ///< so far
    bool wants_key = true;  ///< pictures are taken from the next key on
    std::array<format_share, kind_count> formats;
    decoding_clock decoding;
    media_clock clock;
    core::vector<uint8_t> config;  ///< room for parameter sets at work

    core::vector<cursor::inside*> cursors;
    uint32_t reserving = 0;  ///< of them, those with a reserve
    std::mutex demand_lock;  ///< held while demand_t::wanted runs
    demand_t demand;
    std::atomic<uint32_t> readers = 0;     ///< cursors that count as demand
    void (*stirred)(void* arg) = nullptr;  ///< the station's: somebody came or went
    void* stirred_arg = nullptr;

    /// Held while `told` functions are called, and never together with `lock`.
    std::mutex news_lock;
    core::vector<cursor::inside*> listeners;
};

struct cursor::inside {
    stream::inside* from = nullptr;
    stream* held_stream = nullptr;
    settings_t settings;
    uint64_t next = 0;
    bool wants_key = false;  ///< pictures are shown from the next key on
    uint32_t gaps_told = 0;
    std::array<uint32_t, kind_count> generations{};
    av::frame_t shown{};
    format_share shown_format;
    void (*news)(void* arg) = nullptr;
    void* news_arg = nullptr;
};

/// Tells on_demand() that nobody reads any more, whatever it lingers.
void end_demand(stream& of) noexcept;

/// Calls what on_demand() named when it is due. On the control thread. @return core_timer() for the next look; 0 when
/// nothing is pending
uint64_t settle_demand(stream& of, uint64_t now) noexcept;

}  // namespace media
