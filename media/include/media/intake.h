/// An intake takes the frames of a track of the profile bus (core/profile.h) into a stream: those that a module of a
/// graph puts there (docs/modules.md).
///
///     media::intake live;
///     graph->add_archive_media(&node, "yard.h264");  // puts them on "site_yard_1_video"
///     if (!live.open("site_yard_1_video", *stream, &error)) ...
///     graph->start();
///     ...
///     net::Graph::destroy(graph);
///     live.close();
///
/// Frames are pushed on the thread that puts them. A frame allocates nothing, and its payload is shared. Frames of a
/// format that the stream does not take are left out. Times are those of the frames.
///
/// One thread, such as the main thread, and no callback. Nothing here throws.
#pragma once

#include "media/api.h"
#include "media/stream.h"

struct profile_ctx;

namespace media {

class MEDIA_API intake final {
public:
    intake() noexcept = default;
    ~intake() { close(); }
    intake(const intake&) = delete;
    intake& operator=(const intake&) = delete;

    /// Subscribes to a track and holds the stream. Gives up an earlier track. Whoever puts the frames is asked what
    /// they are, and the stream's format of that kind is declared. Where nobody answers, it is learned from the first
    /// frame.
    /// @param track  its name on the bus, "KEY1_KEY2_KEY3_TRACK"
    /// @param found  takes the answer, without its configuration; its `fcc` is 0 where there is none. May be null
    /// @return 1, or 0 when memory is out
    int open(const char* track, stream& into, format_t* found = nullptr) noexcept;
    /// Unsubscribes and releases the stream. After the call nothing is pushed.
    void close() noexcept;

private:
    profile_ctx* bus_ = nullptr;
    stream* into_ = nullptr;
};

}  // namespace media
