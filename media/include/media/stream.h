/// Streams carry frames from a source to readers. An encoder, a clip or a watcher pushes frames into a stream. Services
/// and recorders read them with cursors. A push never waits for a reader. A reader that falls behind loses whole
/// pictures.
///
/// A stream has at most one track of each kind: video, audio, metadata. Several qualities of one picture are several
/// streams. A stream holds its last frames, without copying them, for readers that begin later or are slow:
///     - all from the last key picture on,
///     - all of the last two seconds, and
///     - those that a cursor has reserved.
///
/// Bounds, set at its making (limits_t):
///     bytes     32 MiB
///     frames    2048
///     time      30 s
/// A group of pictures that exceeds a bound loses its key picture. New readers then wait for the next one, and
/// status_t::key is 0. Of a stream without video the last two seconds are held, and its readers begin at the present.
///
/// A frame has two times. Its media time is the time that the source gave (av::frame_t::time, microseconds since 1970),
/// corrected where that time jumps. It never runs backwards in decoding order. A picture is shown
/// av::frame_t::shown_after after its media time. Its wall clock time is the source's own, where that is known.
///
/// Any thread may use a stream. A cursor belongs to one thread. Nothing here throws.
#pragma once

#include "avc/frame.h"
#include "core/buf.h"
#include "media/api.h"

#include <cstddef>
#include <cstdint>

namespace media {

enum class kind_t : uint8_t { video, audio, meta };
inline constexpr uint32_t kind_count = 3;

/// A set of kinds, for cursors.
constexpr uint32_t only(kind_t kind) noexcept { return 1U << static_cast<uint32_t>(kind); }
inline constexpr uint32_t all_kinds = 7;

/// The kind of frames of that format (avc/fcc.h).
MEDIA_API kind_t kind_of(uint32_t fcc) noexcept;

/// What the frames of a track are.
struct format_t {
    uint32_t fcc = 0;    ///< 0: there is no such track
    uint32_t width = 0;  ///< of pictures, 0 when not known, as is height
    uint32_t height = 0;
    uint32_t rate = 0;        ///< of sound: samples per second
    uint32_t channels = 0;    ///< of sound
    buffer_t config{};        ///< H.264: SPS and PPS in Annex B form. AAC: AudioSpecificConfig (ISO/IEC 14496-3, 1.6).
                              ///< Empty when not known
    uint32_t generation = 0;  ///< counts from 1 in each track; grows with every change
};

/// What a source knows of a frame beside av::frame_t.
struct timing_t {
    uint64_t utc = 0;         ///< wall clock of the source in microseconds since 1970; 0 for not known
    bool of_display = false;  ///< the time of an H.264 picture is that of its display; the time of its decoding follows
                              ///< from the order of these times. The SPS tells how far pictures are reordered. Where it
                              ///< does not, the first reordered ones are shown with the picture before them
};

/// A frame as a cursor shows it. Valid until the cursor's next call.
struct entry_t {
    av::frame_t frame{};  ///< `time` is the media time
    const format_t* format = nullptr;
    kind_t kind = kind_t::video;
    uint64_t number = 0;   ///< of the frame in its stream: grows by one with every push
    uint64_t utc = 0;      ///< wall clock of the source; 0 when it is not known
    uint64_t arrival = 0;  ///< core_timer() when it was pushed
};

struct limits_t {
    uint32_t bytes = 32U << 20;
    uint32_t frames = 2048;  ///< rounded up to a power of two; 16 at least
    uint64_t time = 30'000'000;
};

/// State of a stream, for people and tests.
struct status_t {
    uint64_t pushed;   ///< frames taken
    uint64_t refused;  ///< frames not taken: see stream::push()
    uint32_t held;     ///< frames held now
    uint32_t held_bytes;
    uint32_t cursors;
    uint8_t key;    ///< 1 when a key picture is held with all that follows it
    uint8_t ended;  ///< 1 after end()
};

class cursor;

class MEDIA_API stream final {
public:
    /// @param name  its name in the addresses of services; copied
    /// @return a stream that is held once; null when memory is out
    static stream* create(const char* name, const limits_t& limits, const char* file, int line) noexcept;
    /// keep() holds the stream once more, drop() releases one hold. The stream is valid until its last hold is
    /// released. A cursor holds its stream.
    void keep() noexcept;
    static void drop(stream* held) noexcept;

    stream(const stream&) = delete;
    stream& operator=(const stream&) = delete;

    const char* name() const noexcept;
    /// A number that no other stream of the process has.
    uint64_t id() const noexcept;

    /// Declares the format of a track before its frames come. Readers and descriptions wait for the formats of all
    /// declared tracks. The configuration is copied. A later call changes the format, and readers are told in order.
    /// Fields that it leaves empty keep their known values when `fcc` is the same.
    /// @return 1; 0 for a format of another kind, or when memory is out
    int declare(kind_t kind, const format_t& format) noexcept;
    /// Declares the formats of several tracks at once, one of each kind. Nobody finds the stream ready with some of
    /// them.
    /// @return 1; 0 when one of them could not be declared
    int declare(const format_t* formats, uint32_t count) noexcept;

    /// Takes a frame. The payload is shared, not copied, unless the frame borrows it. A track that was not declared
    /// begins with its first frame. A key picture without parameter sets gets those that are known. A report of "META"
    /// (inet/net_analytics.h) is converted to its document, once for all readers. A report that names no object is not
    /// passed on.
    /// @return 1; 0 when it is not taken:
    ///   - a picture before the first key picture, or before the first one after a gap,
    ///   - a frame without data, above a bound, or of another format than its track,
    ///   - the stream has ended, or
    ///   - memory is out.
    int push(const av::frame_t& frame, const timing_t& timing = {}) noexcept;

    /// The source was away. The next picture taken is a key, and readers are told. Readers that begin before it wait
    /// for it.
    void gap() noexcept;
    /// Ends the stream. Readers are told when they have read all held frames.
    void end() noexcept;

    /// The format of a track now. Its configuration is copied into `config`, which may be null, for the caller to free
    /// with core_buf_free(). @return 1, or 0 when it is not known
    int format(kind_t kind, format_t* out, buf_t* config) const noexcept;
    /// 1 when there is a track, and the format of every declared track is known: of H.264 its parameter sets, too.
    int ready() const noexcept;

    /// Has `wanted` called with 1 when the first cursor opens, and with 0 when the last one has been closed for
    /// `linger` microseconds. The calls come from the station's control thread, while it runs. station::stop() and
    /// station::remove_stream() make the last one themselves, where 1 was told. Null ends the calls: after that
    /// on_demand() no call runs. None of the three is called inside `wanted`.
    void on_demand(void (*wanted)(void* arg, int yes), void* arg, uint64_t linger) noexcept;

    /// Pictures per second, by the media times of those that are held and came after the last gap; 0 where these are
    /// fewer than two.
    double rate() const noexcept;

    /// Media time of this moment, by the frames so far; 0 before the first.
    uint64_t now() const noexcept;

    status_t status() const noexcept;

    struct inside;
    /// For the library's own use.
    inside& in() const noexcept { return *inside_; }

private:
    friend class cursor;
    explicit stream(inside* made) noexcept : inside_(made) {}
    int take(const av::frame_t& frame, const timing_t& timing) noexcept;
    int take_report(const av::frame_t& frame, const timing_t& timing) noexcept;
    ~stream() = default;

    inside* inside_;
};

/// What a cursor found.
enum class read_t : uint8_t {
    frame,    ///< a frame, in `entry`
    nothing,  ///< it has reached the present
    lost,     ///< it fell behind and frames were left out; the next picture is a key
    gap,      ///< the source was away; the next picture is a key
    format,   ///< entry.format of entry.kind holds from the next frame of that kind on
    ended,    ///< the stream has ended and all of it was read
};

/// A place in a stream. It belongs to one thread.
class MEDIA_API cursor final {
public:
    struct settings_t {
        bool at_key = true;  ///< begin with the last key picture, where one is held; else at the present, pictures
                             ///< from the next key on
        bool any = false;    ///< when it begins at the present: pictures at once, not from the next key on
        uint32_t kinds = all_kinds;
        uint64_t reserve = 0;  ///< microseconds for which frames stay held that this cursor has not read, within
                               ///< the stream's bounds
        bool counts = true;    ///< it counts as demand
    };

    cursor() noexcept = default;
    ~cursor() { close(); }
    cursor(const cursor&) = delete;
    cursor& operator=(const cursor&) = delete;

    /// Takes a place and holds the stream. Gives up an earlier place. @return 1, or 0 when memory is out
    int open(stream& from, const settings_t& settings) noexcept;
    /// Gives the place up and releases the stream. After the call `news` of told() does not run.
    void close() noexcept;
    bool is_open() const noexcept { return inside_ != nullptr; }

    /// Reads the next frame or event. @return read_t::nothing also for a cursor that is not open
    read_t next(entry_t& entry) noexcept;
    /// As next(), after waiting at most `milliseconds` for it. For threads without a loop.
    read_t wait(entry_t& entry, uint32_t milliseconds) noexcept;
    /// Skips frames that it has not read: those before the last key picture when that is among them, or else all. The
    /// next picture is that key picture, or else the next one to come. Sound and metadata go on from the same place.
    /// next() does not tell of it.
    void skip() noexcept;

    /// Number of the entry at which next() begins. Cursors with the same number read the same.
    uint64_t position() const noexcept;
    /// Number of frames between it and the present.
    uint64_t behind() const noexcept;

    /// Has `news` called when there is something new, on the thread that pushes or declares. `news` may only wake a
    /// thread: it may not call the stream, and may not wait. Null ends the calls. @return 1, or 0 when memory is out
    int told(void (*news)(void* arg), void* arg) noexcept;

    struct inside;

private:
    inside* inside_ = nullptr;
};

}  // namespace media
