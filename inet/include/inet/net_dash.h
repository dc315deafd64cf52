/// MPEG-DASH (ISO/IEC 23009-1) of one camera track: H.264 pictures from the profile bus become segments of fragmented
/// MP4, listed in a manifest (MPD). A context packs what is live, or one recorded range. The host puts its tracks into
/// tab_tracks (inet/net_tab.h). The log is named "dash".
///
/// Where the pictures come from, by the track's key texts:
///     live    "key1_key2_key3_key4": lists with an entry "frame" (avc_frame_parse()). "key1_key2_key3" is woken
///     range   "key1_key2_#_dash_NAME_key4", played by a graph (net::Graph::add_archive() of key2) at speed 100000.
///             A list with an entry "end" says that nothing more comes
/// They are packed on the thread that puts them, which waits while a file is written: a thread of its own, not a
/// network thread.
///
/// What a context does with them:
///   - A segment begins at a key picture, and ends at the first one that comes 2 s or more later.
///   - Media time counts from the first key picture, whose time is the start of availability. It never runs back: a
///     source whose clock was set back goes on where it was. Segments begin and end at whole milliseconds.
///   - A pause of a live track is an outage when it is longer than 5 s and longer than 3 times the pause before it (the
///     first one: longer than 15 s). It ends the segment with the usual duration of a picture, but not before it lasts
///     1 s; the next begins with the next key picture. In a range pauses are left out: recordings have holes.
///   - The live list holds 15 s and one segment; the oldest goes when a new one comes. The manifest is there once the
///     first has gone.
///   - When the parameter sets of a live track change, which segments do not carry, the context is retired, and a new
///     one takes over at that picture. Its segments can still be asked for. A track has 3 retired contexts at most:
///     until one is released, pictures with yet other sets are dropped.
///   - A range is whole, and its manifest there, when the first of these happens: a picture from behind its end comes,
///     the source says so, nothing comes for 10 s, the parameter sets change, a file cannot be written, or a bound is
///     reached.
///
/// Bytes and files: every segment is written to ./temp/NAME/T.m4s, relative to the working directory. The segments of a
/// live list are served from memory, each for all readers from one block that is freed or used again when the segment
/// has gone and nobody holds a share. Of a range only the files are kept: a segment is read when somebody asks for it,
/// and shared by those who ask for it meanwhile.
///
/// A context that has no users is released 20 to 25 s after it was last opened, or asked for a manifest or a segment. A
/// thread of the library does that.
///
/// Bounds:
///     contexts            256, of which 8 are ranges
///     length of a range   1 hour, 1 GiB of files; what lies behind is left out
///     pictures of a segment that is not cut yet   64 MiB and 60 s; then all are dropped up to the next key picture
///     id of a track       64 letters, digits, '.', '_' and '-'
///
/// Any thread, unless a call says otherwise. A context is valid until net_dash_close(), and until the last dash_free().
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>

namespace net {

struct dash_ctx;

struct dash_segment {
    const char* mime = "video/mp4";
    buf_t bytes = {};     ///< the fragment; of a range only between net_dash_segment_video() and _close()
    char name[32] = {};   ///< "%llu.m4s" with t, or "header.m4s"
    char path[192] = {};  ///< of its file; empty for the init segment, which has none
    uint64_t t = 0;       ///< milliseconds from the first key picture to its start
    uint32_t d = 0;       ///< milliseconds that it lasts
    uint32_t sequence = 0;
    uint64_t created = 0;  ///< microseconds UTC
};

struct dash_property_t {
    const char* token;       ///< valid as long as the context
    uint64_t start, end;     ///< of the range, microseconds UTC; both 0 for live
    uint32_t width, height;  ///< of the pictures, or of the registry before there are any
    uint8_t profile;         ///< the profile_idc, likewise
};

struct dash_info {
    const uint8_t* data;
    uint32_t size;
    const char* mime;
    uint32_t duration;  ///< milliseconds
};

/// Milliseconds; a list ends with a pair whose t and d are both 0.
struct dash_timeline {
    uint64_t t;
    uint32_t d;
};

enum dash_state_t : int {
    dash_filling = 0,  ///< no manifest yet: ask again
    dash_ready = 1,
    dash_retired = 2,  ///< the parameter sets have changed: close it and open the track again
    dash_failed = -1,  ///< no manifest will come: the range has no pictures or cannot be played
};

/// A share of a segment's bytes, which stay valid until net_dash_share_release(), whatever becomes of the context.
struct dash_share {
    dash_info info;
    void* owner;
};

inline constexpr uint64_t dash_longest_range_us = 3600ULL * 1'000'000;

}  // namespace net

/// Start and stop by count, as net_init() and net_free(). The last dash_free() releases all contexts, also those with
/// users, and must not be called inside a callback of the profile bus. Both come between net_init() and net_free().
INET_API void dash_init() noexcept;
INET_API void dash_free() noexcept;

/// The context of a track and range, with one more user; it is made when there is none. Making one for a range loads
/// modules and starts a graph, so it may take seconds: not on a network thread. A range whose archive nobody plays is
/// dash_failed.
/// @param start, end  microseconds UTC; both 0 for live
/// @return null when:
///   - the track is not in the registry, or its id is refused,
///   - the range ends before it starts or behind INT64_MAX, is longer than dash_longest_range_us, or has a 0 on one
///     side,
///   - there are as many contexts as the bounds allow, or memory is out, or
///   - the directory of a range cannot be made.
INET_API net::dash_ctx* net_dash_open(const char* token, uint64_t start, uint64_t end, const char* file,
                                      int line) noexcept;

/// The first context with that token, or with that name (net_dash_name()), with one more user, or null. Retired ones
/// are found by name alone.
INET_API net::dash_ctx* net_dash_search(const char* token) noexcept;
INET_API net::dash_ctx* net_dash_find(const char* name) noexcept;

/// One user less. Null is ignored.
INET_API void net_dash_close(net::dash_ctx* ctx) noexcept;

/// "ID-START-END"; one that follows others, retired or on their way out, has "-1", "-2" and so on behind it. A range is
/// found without that, too. A manifest asks for its segments under "vNAME/". Valid as long as the context.
INET_API const char* net_dash_name(const net::dash_ctx* ctx) noexcept;
INET_API net::dash_property_t net_dash_property(const net::dash_ctx* ctx) noexcept;
INET_API net::dash_state_t net_dash_state(const net::dash_ctx* ctx) noexcept;

/// The segments that are listed. @return null when there is none or memory is out; valid until the next call for this
/// context, so one thread at a time.
INET_API const net::dash_timeline* net_dash_times(net::dash_ctx* ctx) noexcept;

/// The MPD. Its clock (UTCTiming) is that of the media: players keep their distance to the newest picture even when the
/// camera's clock is wrong.
/// @return a new text for core_mfree(); null when the state is not dash_ready, or memory is out
INET_API char* net_dash_manifest(net::dash_ctx* ctx, const char* file, int line) noexcept;

/// A segment by name. Any but "header.m4s" is returned with the lock of the segments held: nothing is packed until
/// net_dash_segment_close() on the same thread. Whoever sends to a peer uses net_dash_share().
/// @return null when there is none, or its file cannot be read
INET_API const net::dash_segment* net_dash_segment_video(net::dash_ctx* ctx, const char* name) noexcept;
INET_API void net_dash_segment_close(net::dash_ctx* ctx, const net::dash_segment* segment) noexcept;
/// Bytes, type and duration of such a segment. Valid until net_dash_segment_close().
INET_API net::dash_info net_dash_segment_info(const net::dash_ctx* ctx, const net::dash_segment* segment) noexcept;

/// A share of a segment, or of the init segment, by name. No lock is held after the call. Of a live context nothing is
/// copied; of a range the file is read. A live segment is there once a manifest has listed it: players that ask for
/// what is not listed yet, as ffmpeg does, lose their place when they get it.
/// @return 1; 0 when there is none, its file cannot be read, or memory is out
INET_API int net_dash_share(net::dash_ctx* ctx, const char* name, net::dash_share* out) noexcept;
/// Ends a share by its `owner`; null is ignored. It fits net_http_send_share().
INET_API void net_dash_share_release(void* owner) noexcept;
