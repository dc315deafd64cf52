#include "net_dash/packer.h"

#include "avc/fcc.h"
#include "avc/mp4.h"
#include "common/h264.h"
#include "core/log.h"
#include "core/time.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>

namespace net::dash {

namespace {

constexpr uint64_t shortest = 2 * us_per_second;
/// ffmpeg keeps its place in a list by whole seconds.
constexpr uint64_t shortest_by_outage = us_per_second;
constexpr uint64_t longest_held = 60 * us_per_second;
constexpr uint64_t most_held = 64ULL << 20;

}  // namespace

/// Makes the init segment and starts the clock. @return false when the picture's parameter sets are missing.
bool packer::open(const av::frame_t& key) noexcept {
    core::owned_object<opening_segment> made(core::create<opening_segment>(CORE_HERE));
    block_hold bytes(core::create<block>(CORE_HERE));
    if (!made || !bytes || !av_mp4_init(&bytes->bytes, &key, CORE_HERE)) return false;
    const std::span data(key.data, key.size);
    const auto sps = h264_find(data.first(data.size() - h264_first_slice(data).size()), h264_sps);
    h264_info_t info{};
    if (!h264_parse_sps(sps, &info)) return false;
    made->codec[0] = info.profile_idc;
    made->codec[2] = info.level_idc;
    made->width = key.width ? key.width : info.width;
    made->height = key.height ? key.height : info.height;
    made->base = key.time;
    made->created = time_now();
    std::snprintf(made->name, sizeof made->name, "header.m4s");
    made->show(std::move(bytes));
    list_.open(std::move(made));
    return true;
}

bool packer::sets_differ(const av::frame_t& key) noexcept {
    compared_.length = 0;
    // A key picture without parameter sets builds on those that came before.
    if (!av_mp4_init(&compared_, &key, CORE_HERE)) return false;
    const buf_t& init = list_.opening()->bytes;
    return init.length != compared_.length || std::memcmp(init.data, compared_.data, init.length) != 0;
}

packer::verdict packer::take(const av::frame_t& picture) noexcept {
    if (fcc_unic(picture.fcc) != av::fcc_h264) return verdict::taken;
    const bool key = picture.key != 0;
    if (!list_.opening() && !(key && open(picture))) return verdict::taken;
    if (is_full_ || (from_ > 0 && list_.written() + held_ > most_bytes_)) return verdict::full;
    const bool changed = key && sets_differ(picture);
    if (key && picture.time <= from_) {
        drop();
        clock_.restart();
    }
    const media_clock::moment at = clock_.take(picture.time, key);
    now_ = clock_.base() + at.time - core_timer();
    if (at.outage && !pictures_.empty()) {
        cut(std::max(at.usual_end, pictures_.front().time - clock_.base() + shortest_by_outage));
    }
    wants_key_ = wants_key_ || at.outage;
    if (changed) {
        cut(at.time);
        wants_key_ = true;
        return verdict::changed;
    }
    if (key && !pictures_.empty() && at.exact - first_ >= shortest) cut(at.time);
    wants_key_ = wants_key_ && !key;
    if (!wants_key_) keep(picture, at);
    return verdict::taken;
}

void packer::keep(const av::frame_t& picture, const media_clock::moment& at) noexcept {
    if (pictures_.empty()) first_ = at.exact;
    av::frame_t share{};
    try {
        if (held_ + picture.size > most_held || at.exact - first_ > longest_held ||
            !avc_frame_share(&share, &picture, CORE_HERE))
            throw std::bad_alloc();
        share.time = clock_.base() + at.time;
        pictures_.push_back(share);
        held_ += picture.size;
    } catch (const std::bad_alloc&) {
        avc_frame_drop(&share);
        drop();
        wants_key_ = true;
    }
}

void packer::cut(uint64_t end) noexcept {
    if (pictures_.empty()) return;
    const uint64_t base = clock_.base();
    try {
        in_order_.clear();
        for (av::frame_t& each : pictures_)
            in_order_.push_back(&each);
        in_order_.push_back(nullptr);
        if (!free_) free_.reset(core::create<block>(CORE_HERE));
        if (!free_) throw std::bad_alloc();
        free_->bytes.length = 0;
        const uint64_t start = pictures_.front().time - base;
        const fragment made{.t = start / us_per_ms,
                            .d = static_cast<uint32_t>((end - start) / us_per_ms),
                            .sequence = sequence_ + 1,
                            .base = base};
        if (av_mp4_moof(&free_->bytes, in_order_.data(), base, base + end, made.sequence, CORE_HERE) &&
            list_.append(made, free_))
            sequence_ = made.sequence;
        else
            is_full_ = from_ > 0;
    } catch (const std::bad_alloc&) {
        core_con_printf(1, "dash: no free segment");
    }
    drop();
}

void packer::drop() noexcept {
    for (av::frame_t& each : pictures_)
        avc_frame_drop(&each);
    pictures_.clear();
    held_ = 0;
}

void packer::finish() noexcept { cut(clock_.end()); }

uint64_t packer::now() const noexcept { return now_ + core_timer(); }

}  // namespace net::dash
