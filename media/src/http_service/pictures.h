// JPEG pictures of a stream for browsers: the newest one for everybody of a thread.
#pragma once

#include "avc/frame.h"
#include "core/owned.h"
#include "media/service.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace media::web {

/// Who is sent the pictures of a stream as they come.
class picture_taker {
public:
    virtual void on_picture() noexcept = 0;
    virtual void on_end() noexcept = 0;

protected:
    ~picture_taker() = default;
};

/// The pictures of one stream on a thread.
class pictures final : public reader {
public:
    pictures(thread& on, stream& of) noexcept : thread_(on), stream_(of) { stream_.keep(); }
    ~pictures();
    pictures(const pictures&) = delete;
    pictures& operator=(const pictures&) = delete;

    bool begin() noexcept;
    stream& of() const noexcept { return stream_; }

    /// @return false when memory is out
    bool add(picture_taker& one) noexcept;
    void remove(const picture_taker& one) noexcept;
    bool is_used() const noexcept { return !takers_.empty(); }
    /// How many take more than one picture. @param change  1 for one that begins, -1 for one that ends
    void watch(int change) noexcept { watching_ += static_cast<uint32_t>(change); }
    uint32_t watching() const noexcept { return watching_; }

    /// The newest picture; its data is null before the first.
    const av::frame_t& newest() const noexcept { return newest_; }
    uint64_t number() const noexcept { return number_; }
    /// What stands before it in a multipart body, behind the boundary.
    std::string_view part_head() const noexcept { return {part_head_, part_head_size_}; }

private:
    void on_entry(read_t what, const entry_t& entry) noexcept override;

    thread& thread_;
    stream& stream_;
    bool following_ = false;
    bool passing_ = false;
    av::frame_t newest_{};
    uint64_t number_ = 0;  ///< of the newest picture; 0 for none
    uint32_t watching_ = 0;
    char part_head_[64];
    size_t part_head_size_ = 0;
    core::vector<picture_taker*> takers_;
};

/// What the service has on a thread.
class part_t final : public part {
public:
    part_t(thread& on, counters_t& all) noexcept : thread_(on), all_(all) {}
    /// Counts who watches at the moment when the thread does: its count less this one is that of the other services.
    void second() noexcept override;
    /// The pictures of a stream, made at their first use; null when memory is out. They stay while somebody takes them.
    pictures* of(stream& which) noexcept;

private:
    thread& thread_;
    counters_t& all_;  ///< of the service, on all threads
    uint32_t watching_ = 0;
    core::vector<core::owned_object<pictures>> pictures_;
};

}  // namespace media::web
