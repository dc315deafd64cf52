// Pictures become fragments.
#pragma once

#include "net_dash/media_clock.h"
#include "net_dash/segments.h"

#include "avc/frame.h"

namespace net::dash {

/// Cuts the pictures of one track. One thread at a time, except now().
class packer {
public:
    enum class verdict { taken, full, changed };

    /// @param from        of a range: its start, 0 for live. It begins with the last key picture that is not behind
    /// @param most_bytes  of a range: what its files may take
    packer(segment_list& to, uint64_t from, uint64_t most_bytes) noexcept
        : list_(to), from_(from), most_bytes_(most_bytes), clock_(from > 0) {}
    ~packer() { drop(); }
    packer(const packer&) = delete;
    packer& operator=(const packer&) = delete;

    /// @return full when the files of a range take no more. changed when the picture has other parameter sets than the
    /// init segment: what came before is then cut, and the picture was not taken.
    verdict take(const av::frame_t& picture) noexcept;
    /// Cuts what is left.
    void finish() noexcept;

    /// Microseconds UTC by the clock of the media: the time of the newest picture, and what has passed since it came.
    /// Any thread.
    uint64_t now() const noexcept;

private:
    bool open(const av::frame_t& key) noexcept;
    bool sets_differ(const av::frame_t& key) noexcept;
    void cut(uint64_t end) noexcept;
    void keep(const av::frame_t& picture, const media_clock::moment& at) noexcept;
    void drop() noexcept;

    segment_list& list_;
    const uint64_t from_;
    const uint64_t most_bytes_;
    media_clock clock_;
    std::atomic<uint64_t> now_ = 0;  ///< less core_timer()

    core::vector<av::frame_t> pictures_;   ///< since the last cut, their times by the clock
    core::vector<av::frame_t*> in_order_;  ///< the same for the codec library
    uint64_t held_ = 0;                    ///< their bytes
    uint64_t first_ = 0;                   ///< media time of the first, not rounded
    bool wants_key_ = true;
    bool is_full_ = false;
    uint32_t sequence_ = 0;
    block_hold free_;  ///< to write the next fragment into
    struct scratch : buf_t {
        ~scratch() { core_buf_free(this); }
    } compared_;
};

}  // namespace net::dash
