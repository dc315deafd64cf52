// The segments of a context: what is listed, lent and shared.
#pragma once

#include "core/owned.h"
#include "core/thread.h"
#include "inet/net_dash.h"

#include <atomic>
#include <mutex>
#include <span>

namespace net::dash {

/// Bytes, and how many hold them. The bytes go with the last hold; the block stays for those who watch for another.
struct block {
    std::atomic<uint32_t> holds = 1;
    std::atomic<uint32_t> keeps = 1;  ///< all holds together, and each watch
    buf_t bytes;

    block() noexcept = default;
    ~block() { core_buf_free(&bytes); }
    block(const block&) = delete;
    block& operator=(const block&) = delete;
};
void end_hold(block* held) noexcept;
void end_watch(block* kept) noexcept;
using block_hold = core::owned<block, end_hold>;
using block_watch = core::owned<block, end_watch>;

/// A segment and the bytes behind its record.
struct segment : dash_segment {
    block_hold held;
    block_watch lent;  ///< of a range: what was read last, as long as somebody holds it
    uint32_t file_size = 0;

    void show(block_hold bytes_of) noexcept;
    void hide() noexcept;
};

/// The init segment, and what its parameter sets say.
struct opening_segment : segment {
    uint32_t width = 0, height = 0;
    uint8_t codec[3] = {};
    uint64_t base = 0;  ///< microseconds UTC of the first picture
};

dash_info describe(const dash_segment& of) noexcept;

/// A fragment that was cut.
struct fragment {
    uint64_t t;
    uint32_t d;
    uint32_t sequence;
    uint64_t base;  ///< microseconds UTC that count as 0
};

/// What a manifest says of the list.
struct listing {
    uint64_t total = 0;  ///< milliseconds, as is longest
    uint32_t longest = 0;
    core::string lines;
};

class segment_list {
public:
    /// @param directory  where the files are; stays valid
    /// @param in_files   of a range: nothing goes, and the bytes are in the files alone
    segment_list(const char* directory, bool in_files) noexcept;
    ~segment_list();
    segment_list(const segment_list&) = delete;
    segment_list& operator=(const segment_list&) = delete;
    bool is_made() const noexcept { return lock_ != nullptr; }

    // For the packer, on one thread at a time.

    /// Publishes the init segment, once.
    void open(core::owned_object<opening_segment> made) noexcept { opening_ = made.release(); }
    /// Lists a fragment and writes its file. The file is written, and that of the segment that goes removed, before
    /// and after the lock is held.
    /// @param bytes  the fragment; then a block to fill again, or null
    /// @return false when it could not be listed
    bool append(const fragment& cut, block_hold& bytes) noexcept;
    /// A range is whole. @return false when it has no segments
    bool set_ready() noexcept;
    /// Removes the files. Nothing is appended and nobody asks any more.
    void remove_files() noexcept;

    // Any thread.

    const opening_segment* opening() const noexcept { return opening_; }
    bool is_ready() const noexcept { return ready_; }
    uint64_t written() const noexcept { return written_; }

    /// A segment by name, with the lock held until release().
    const dash_segment* hold(const char* name) noexcept;
    void release(const dash_segment* held) noexcept;
    bool share(const char* name, dash_share& out) noexcept;

    const dash_timeline* times() noexcept;
    /// For a manifest. Throws std::bad_alloc.
    listing list();

private:
    using guard_t = std::unique_lock<segment_list>;
    friend guard_t;
    void lock() noexcept { lock_enter(lock_); }
    void unlock() noexcept { lock_leave(lock_); }

    segment* find(const char* name) noexcept;
    block_hold load(guard_t& guard, const char* name) noexcept;
    segment* take_record() noexcept;
    bool write(const char* path, const buf_t& bytes) noexcept;
    void fill(segment& record, const fragment& cut, block_hold bytes) noexcept;

    const char* const directory_;
    const bool in_files_;
    lock_ctx* lock_;
    std::atomic<opening_segment*> opening_ = nullptr;
    std::atomic<bool> ready_ = false;
    std::atomic<uint64_t> written_ = 0;
    bool has_reported_ = false;  ///< that a file cannot be written

    // Under the lock.
    core::vector<segment*> segments_;
    uint64_t total_ = 0;
    uint32_t announced_ = 0;  ///< sequence number of the newest segment that list() has shown
    core::vector<dash_timeline> times_;
};

}  // namespace net::dash
