#include "rtmp_service/part.h"

#include "rtmp_service/client.h"

#include "avc/fcc.h"
#include "core/buf.h"

#include <algorithm>
#include <new>
#include <utility>

namespace media::rtmp {

namespace {

/// How much earlier than the first picture a frame behind it may be: the sound of some sources lags.
constexpr uint64_t longest_lag = 1'000'000;

}  // namespace

live::~live() {
    if (following_) owner_.on().unfollow(stream_, *this);
    if (base_) owner_.of().bases().leave(stream_);
}

bool live::begin() noexcept {
    chunks_.set_whole_pictures(true);
    prepare(chunks_);
    following_ = owner_.on().follow(stream_, *this) != 0;
    return following_;
}

void live::prepare(inet::rtmp::Chunks& to) const noexcept {
    for (const kind_t kind : {kind_t::audio, kind_t::video}) {
        format_t format;
        buf_t config{};
        if (!stream_.format(kind, &format, &config)) continue;
        if (kind == kind_t::audio)
            to.set_sound(carries(format.fcc) ? format.fcc : 0, {config.data, config.length});
        else if (format.fcc == av::fcc_h264 && config.length) {
            const av::frame_t sets{.fcc = format.fcc,
                                   .time = base_ ? base_ : stream_.now(),
                                   .data = config.data,
                                   .size = config.length,
                                   .width = format.width,
                                   .height = format.height,
                                   .rate = 0,
                                   .channels = 0,
                                   .bits = 0,
                                   .key = 0,
                                   .complete = 1,
                                   .shown_after = 0,
                                   .payload = nullptr};
            to.cut(&sets);
        }
        core_buf_free(&config);
    }
}

// The first frame that is cut is the earliest that any player is sent: live ones come behind those that players are
// sent while they come up.
bool live::cut(inet::rtmp::Chunks& into, const entry_t& entry) noexcept {
    if (entry.kind == kind_t::meta) return false;
    if (!base_) {
        const uint64_t before = longest_lag + uint64_t{owner_.of().settings().first_timestamp} * 1000;
        const uint64_t first = entry.frame.time - std::min(entry.frame.time - 1, before);
        if (!owner_.of().bases().enter(stream_, first, base_)) return false;
    }
    into.set_start(base_);
    return into.cut(&entry.frame) > 0;
}

void live::on_entry(read_t what, const entry_t& entry) noexcept {
    if (what == read_t::format) return prepare(chunks_);
    if (places_.empty()) return;
    const bool has_chunks = what == read_t::frame && cut(chunks_, entry);
    places_.pass([&](size_t i) {
        const place_t place = places_[i];
        if (!place.one) return;
        if (what == read_t::ended) place.one->finish();
        if (what == read_t::lost) place.one->leave_out();
        if (what == read_t::frame && entry.number >= place.from)
            place.one->deliver(entry, has_chunks ? &chunks_ : nullptr);
    });
}

void part_t::second() noexcept {
    present_.drop_unused();
    const auto watching =
        static_cast<uint32_t>(std::ranges::count_if(clients_, [](const client_t* each) { return each->watching(); }));
    service_.count().watching += watching - std::exchange(watching_, watching);
}

bool part_t::enter(client_t& one) noexcept {
    try {
        clients_.push_back(&one);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void part_t::exit(const client_t& one) noexcept { std::erase(clients_, &one); }

void part_t::count_bytes(uint64_t bytes) noexcept {
    thread_.count().bytes += bytes;
    service_.count().bytes += bytes;
}

void part_t::count_picture(bool sent) noexcept {
    ++(sent ? thread_.count().frames : thread_.count().dropped);
    ++(sent ? service_.count().frames : service_.count().dropped);
}

}  // namespace media::rtmp
