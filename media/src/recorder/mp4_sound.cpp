#include "recorder/mp4_sound.h"

#include "recorder/g711.h"

#include "avc/aac.h"
#include "avc/fcc.h"

#include <algorithm>
#include <iterator>
#include <span>
#include <string_view>

namespace media::record {

namespace {

constexpr uint32_t pcm = av::fcc("PCM ");
constexpr uint32_t sample_size = 2;
constexpr uint64_t longest_silence = 600;  ///< seconds
constexpr uint32_t most_channels = 8;

constexpr auto mulaw_samples = g711_table(mulaw_decode);
constexpr auto alaw_samples = g711_table(alaw_decode);

/// Elements of an AAC frame by channel configuration (ISO/IEC 14496-3, 1.6.3.5): single channels, pairs, one for low
/// frequencies. Configuration 0 tells elsewhere.
constexpr std::string_view elements_of[] = {"", "s", "p", "sp", "sps", "spp", "sppl", "spppl"};

/// An AAC frame without a sound (ISO/IEC 14496-3, 4.4.2): elements whose bands are none, then the end.
core::vector<uint8_t> silent_frame(std::string_view elements) {
    core::vector<uint8_t> made;
    uint32_t size = 0;
    const auto put = [&](uint64_t value, uint32_t count) {
        for (; count > 0; --count, ++size) {
            if (size % 8 == 0) made.push_back(0);
            made.back() = static_cast<uint8_t>(made.back() | (value >> (count - 1) & 1) << (7 - size % 8));
        }
    };
    constexpr std::string_view kinds = "sp l";  // by their numbers in the stream
    constexpr uint32_t channel = 22;            // bits
    constexpr uint32_t end = 7;
    uint32_t numbers[kinds.size()] = {};
    for (const char each : elements) {
        const size_t kind = kinds.find(each);
        put(kind, 3);
        put(numbers[kind]++, 4);
        put(0, each == 'p' ? 1 + 2 * channel : channel);
    }
    put(end, 3);
    return made;
}

}  // namespace

bool mp4_sound::takes(uint32_t fcc) noexcept {
    return fcc == av::fcc_pcmu || fcc == av::fcc_pcma || fcc == av::fcc_mp4a;
}

bool mp4_sound::open(const format_t& format) {
    if (format.fcc == av::fcc_mp4a) {
        if (!read_aac(format)) return false;
    } else if (takes(format.fcc)) {
        law_ = format.fcc;
        track_ = {.fcc = pcm,
                  .scale = format.rate ? format.rate : 8000,
                  .channels = std::clamp(format.channels, 1U, most_channels),
                  .config = {}};
    }
    line_.set_rate(track_.scale);
    return is_open();
}

/// How long a frame is, and how many channels it has.
bool mp4_sound::read_aac(const format_t& format) {
    av::aac_config_t read;
    if (!aac_parse_config({format.config.data, format.config.size}, &read)) return false;
    const uint32_t clock = format.rate ? format.rate : read.rate;
    config_.assign(format.config.data, format.config.data + format.config.size);
    if (read.layout > 0 && read.layout < std::size(elements_of)) silent_ = silent_frame(elements_of[read.layout]);
    unit_ = static_cast<uint32_t>(uint64_t{read.samples} * clock / read.rate);
    track_ = {.fcc = av::fcc_mp4a,
              .scale = clock,
              .channels = read.channels ? read.channels : std::max(format.channels, 1U),
              .config = {config_.data(), config_.size()}};
    return unit_ > 0;
}

void mp4_sound::take(const placed_t& placed) {
    const av::frame_t& block = placed.frame;
    const uint32_t duration = unit_ ? unit_ : block.size / track_.channels;
    const sound_line::place_t place = line_.place(placed.at, duration);
    add_silence(place.silence);
    if (unit_) {
        if (place.skip <= unit_ / 2) add(block.data, block.size, unit_);
    } else if (duration > place.skip) {
        const uint32_t codes = (duration - place.skip) * track_.channels;
        add_decoded(block.data + size_t{place.skip} * track_.channels, codes);
    }
}

void mp4_sound::add(const uint8_t* data, uint32_t size, uint32_t duration) {
    if (held_.empty()) start_ = line_.end();
    bytes_.insert(bytes_.end(), data, data + size);
    held_.push_back({size, duration});
    line_.set_end(line_.end() + duration);
}

void mp4_sound::add_decoded(const uint8_t* data, uint32_t size) {
    const auto& table = law_ == av::fcc_pcmu ? mulaw_samples : alaw_samples;
    if (held_.empty()) start_ = line_.end();
    bytes_.reserve(bytes_.size() + size_t{size} * sample_size);
    for (const uint8_t code : std::span(data, size)) {
        const auto sample = static_cast<uint16_t>(table[code]);
        bytes_.push_back(static_cast<uint8_t>(sample));
        bytes_.push_back(static_cast<uint8_t>(sample >> 8));
    }
    held_.push_back({size * sample_size, size / track_.channels});
    line_.set_end(line_.end() + size / track_.channels);
}

void mp4_sound::add_silence(uint64_t duration) {
    const bool unknown = unit_ && silent_.empty();
    if (unknown || duration > longest_silence * track_.scale) {
        // A step: the last sample lasts so long.
        if (!held_.empty()) held_.back().duration += static_cast<uint32_t>(duration);
        line_.set_end(line_.end() + duration);
    } else if (unit_) {
        for (uint64_t left = (duration + unit_ / 2) / unit_; left > 0; --left)
            add(silent_.data(), static_cast<uint32_t>(silent_.size()), unit_);
    } else {
        while (duration > 0) {
            const auto part = static_cast<uint32_t>(std::min<uint64_t>(duration, track_.scale));
            const uint32_t size = part * track_.channels * sample_size;
            if (held_.empty()) start_ = line_.end();
            bytes_.resize(bytes_.size() + size);
            held_.push_back({size, part});
            line_.set_end(line_.end() + part);
            duration -= part;
        }
    }
}

void mp4_sound::fill(int64_t at) {
    const uint64_t until = line_.samples(at);
    if (until > line_.end()) add_silence(until - line_.end());
}

void mp4_sound::end_at(int64_t at) {
    const uint64_t until = line_.samples(at);
    while (!held_.empty() && line_.end() > until) {
        sample_t& last = held_.back();
        const uint64_t begin = line_.end() - last.duration;
        const uint64_t kept = begin < until ? until - begin : 0;
        if (kept > 0 && unit_) break;
        // A long silence is a step of the times, without bytes.
        const auto size =
            static_cast<uint32_t>(std::min<uint64_t>(last.size, kept * track_.channels * uint64_t{sample_size}));
        bytes_.resize(bytes_.size() - (last.size - size));
        line_.set_end(begin + kept);
        last = {size, static_cast<uint32_t>(kept)};
        if (kept == 0) held_.pop_back();
    }
    fill(at);
}

av::mp4_run_t mp4_sound::run(uint32_t number, int64_t until, int64_t delay) {
    const uint64_t last = line_.samples(until);
    const uint8_t* data = bytes_.data();
    uint64_t begin = start_;
    shown_.clear();
    for (const sample_t& each : held_) {
        if (begin >= last) break;
        shown_.push_back({.data = {data, each.size}, .duration = each.duration});
        data += each.size;
        begin += each.duration;
    }
    return {.track = number, .annex_b = false, .start = start_ + line_.samples(delay), .samples = shown_};
}

void mp4_sound::drop_run() noexcept {
    size_t size = 0;
    for (const av::mp4_sample_t& each : shown_) {
        size += each.data.size();
        start_ += each.duration;
    }
    held_.erase(held_.begin(), held_.begin() + static_cast<std::ptrdiff_t>(shown_.size()));
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(size));
    shown_.clear();
}

}  // namespace media::record
