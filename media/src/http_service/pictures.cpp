#include "http_service/pictures.h"

#include "avc/fcc.h"
#include "core/memory.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <utility>

namespace media::web {

pictures::~pictures() {
    if (following_) thread_.unfollow(stream_, *this);
    avc_frame_drop(&newest_);
    stream::drop(&stream_);
}

/// Follows the stream, from its last picture on.
bool pictures::begin() noexcept {
    following_ = thread_.follow(stream_, *this) != 0;
    cursor held;
    entry_t entry;
    if (following_ && held.open(stream_, {.kinds = only(kind_t::video), .counts = false})) {
        for (read_t what = held.next(entry); what != read_t::nothing && what != read_t::ended; what = held.next(entry))
            if (what == read_t::frame) on_entry(what, entry);
    }
    return following_;
}

bool pictures::add(picture_taker& one) noexcept {
    try {
        takers_.push_back(&one);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void pictures::remove(const picture_taker& one) noexcept {
    std::ranges::replace(takers_, const_cast<picture_taker*>(&one), static_cast<picture_taker*>(nullptr));
    if (!passing_) std::erase(takers_, nullptr);
}

void pictures::on_entry(read_t what, const entry_t& entry) noexcept {
    const bool picture = what == read_t::frame && entry.frame.fcc == av::fcc_jpeg && entry.number >= number_;
    const bool other = what == read_t::frame && entry.kind == kind_t::video && entry.frame.fcc != av::fcc_jpeg;
    if (!picture && !other && what != read_t::ended) return;
    if (picture) {
        av::frame_t next{};
        if (!avc_frame_share(&next, &entry.frame, CORE_HERE)) return;
        avc_frame_drop(&newest_);
        newest_ = next;
        number_ = entry.number + 1;
        const int size = std::snprintf(part_head_, sizeof part_head_,
                                       "Content-Type: image/jpeg\r\nContent-Length: %u\r\n\r\n", newest_.size);
        part_head_size_ = static_cast<size_t>(size);
    }
    passing_ = true;
    for (size_t i = 0; i < takers_.size(); ++i) {
        if (takers_[i]) picture ? takers_[i]->on_picture() : takers_[i]->on_end();
    }
    passing_ = false;
    std::erase(takers_, nullptr);
}

void part_t::second() noexcept {
    uint32_t watching = 0;
    for (const auto& each : pictures_)
        watching += each->watching();
    all_.watching += watching - std::exchange(watching_, watching);
    std::erase_if(pictures_, [](const auto& each) { return !each->is_used(); });
}

pictures* part_t::of(stream& which) noexcept {
    const auto found = std::ranges::find_if(pictures_, [&](const auto& each) { return &each->of() == &which; });
    if (found != pictures_.end()) return found->get();
    core::owned_object<pictures> made(core::create<pictures>(CORE_HERE, thread_, which));
    if (!made || !made->begin()) return nullptr;
    try {
        pictures_.push_back(std::move(made));
        return pictures_.back().get();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace media::web
