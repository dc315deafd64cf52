#include "clip.h"

#include "program.h"

#include "avc/access_units.h"
#include "avc/fcc.h"
#include "avc/jpeg.h"
#include "common/h264.h"
#include "core/file.h"
#include "core/memory.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <filesystem>
#include <new>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace camera {
namespace {

constexpr size_t largest_file = 512u << 20;
constexpr pace still_pictures{5, 1};
constexpr pace detector_reports{5, 1};
constexpr uint32_t audio_rate = 8000;
constexpr size_t audio_block = 160;  // 20 ms, what telephones and cameras send

/// ITU-T G.711, table 2.
constexpr uint8_t mulaw_encode(int16_t sample) {
    constexpr int bias = 0x84;
    constexpr int clip = 32635;
    const int sign = sample < 0 ? 0x80 : 0;
    const int magnitude = std::min(sample < 0 ? -static_cast<int>(sample) : sample, clip) + bias;
    // The segment is the position of the highest bit above the lowest segment's eight.
    const int segment = static_cast<int>(std::bit_width(static_cast<unsigned>(magnitude))) - 8;
    const int mantissa = magnitude >> (segment + 3) & 0x0f;
    return static_cast<uint8_t>(~(sign | segment << 4 | mantissa));
}

struct mfree {
    void operator()(uint8_t* block) const { core_mfree(block); }
};

/// A whole file in memory.
class file_bytes {
public:
    explicit file_bytes(const std::string& path)
        : data_(core_file_load(path.c_str(), largest_file, &size_, CORE_HERE)) {
        if (!data_) throw std::runtime_error("cannot read " + path);
    }
    std::span<const uint8_t> bytes() const { return {data_.get(), size_}; }
    buffer_t buffer() const { return {data_.get(), static_cast<uint32_t>(size_)}; }
    std::string_view text() const { return {reinterpret_cast<const char*>(data_.get()), size_}; }

private:
    size_t size_ = 0;
    std::unique_ptr<uint8_t, mfree> data_;
};

frame_ptr make_frame(uint32_t fcc, std::span<const uint8_t> bytes) {
    frame_ptr frame(avc_frame_create(fcc, 0, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE));
    if (!frame) throw std::bad_alloc();
    return frame;
}

/// Pictures a second by the timing information of the stream (two fields a picture), 25 without.
pace video_pace(std::span<const uint8_t> stream) {
    std::span<const uint8_t> sps;
    std::span<const uint8_t> pps;
    h264_info_t info{};
    if (!h264_parse(stream, &sps, &pps, &info) || !info.num_units_in_tick || !info.time_scale) return {25, 1};
    const uint64_t frames = info.time_scale;
    const uint64_t seconds = 2ull * info.num_units_in_tick;
    const uint64_t common = std::gcd(frames, seconds);
    // Beyond 1 to 240 pictures a second the information is nonsense.
    if (frames < seconds || frames > 240 * seconds) return {25, 1};
    return {frames / common, seconds / common};
}

/// Where each picture stands among those that are shown (ITU-T H.264, 8.2.1): an IDR picture and what follows it up to
/// the next one change places only with each other.
class display_order {
public:
    void add(const av::frame_t& picture);
    std::vector<size_t> places() &&;

private:
    void end_sequence();

    h264_info_t sps_{};
    std::vector<std::pair<int64_t, size_t>> sequence_;  ///< order of display and of decoding, from the last IDR on
    std::vector<size_t> places_;
    int64_t reference_ = 0;  ///< order of the last picture that others build on
    int64_t previous_ = 0;
};

void display_order::add(const av::frame_t& picture) {
    const std::span bytes(picture.data, picture.size);
    const auto slices = h264_first_slice(bytes);
    h264_parse_sps(h264_find(bytes.first(bytes.size() - slices.size()), h264_sps), &sps_);
    h264_slice_t slice{};
    h264_parse_slice(slices, sps_, &slice);
    if (slice.idr) {
        end_sequence();
        reference_ = previous_ = 0;
    }
    int64_t order = previous_ + 1;  // of the types whose order is that of decoding
    if (sps_.picture_order_type == 0) {
        const int64_t range = int64_t{1} << sps_.log2_max_picture_order;
        const int64_t low = reference_ & (range - 1);
        order = reference_ - low + slice.picture_order;
        if (order - reference_ > range / 2) order -= range;
        if (reference_ - order >= range / 2) order += range;
    } else if (sps_.picture_order_type == 1 && slice.b) {
        throw std::runtime_error("its B-pictures have an order that is not read");
    }
    if (slice.reference) reference_ = order;
    previous_ = order;
    sequence_.emplace_back(order, sequence_.size());
}

void display_order::end_sequence() {
    std::ranges::stable_sort(sequence_);
    const size_t begin = places_.size();
    places_.resize(begin + sequence_.size());
    for (size_t i = 0; i < sequence_.size(); ++i)
        places_[begin + sequence_[i].second] = begin + i;
    sequence_.clear();
}

std::vector<size_t> display_order::places() && {
    end_sequence();
    return std::move(places_);
}

/// What makes a file that can be played of another one.
std::string conversion_of(const std::string& path) {
    const std::filesystem::path made = apps::utf8_path(path).replace_extension(".h264");
    return "; try: ffmpeg -i " + path + " -an -c:v libx264 " + apps::utf8_text(made);
}

track load_video(const std::string& path) {
    const file_bytes file(path);
    std::vector<frame_ptr> pictures;
    av::AccessUnits units(CORE_HERE);
    const auto keep = [](void* arg, buffer_t unit) {
        static_cast<std::vector<frame_ptr>*>(arg)->push_back(make_frame(av::fcc_h264, {unit.data, unit.size}));
    };
    units.take(file.buffer(), keep, &pictures);
    units.end(keep, &pictures);
    if (pictures.empty() || !pictures.front()->key)
        throw std::runtime_error(path + ": no H.264 stream in Annex B form that begins with a key picture" +
                                 conversion_of(path));
    display_order order;
    try {
        for (const frame_ptr& each : pictures)
            order.add(*each);
    } catch (const std::runtime_error& reason) {
        throw std::runtime_error(path + ": " + reason.what() + conversion_of(path) + " with -bf 0");
    }
    track result(std::move(pictures), video_pace(file.bytes()));
    result.set_order(std::move(order).places());
    return result;
}

uint32_t little_endian(std::span<const uint8_t> bytes, size_t at, size_t count) {
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value |= static_cast<uint32_t>(bytes[at + i]) << 8 * i;
    return value;
}

/// Finds a chunk of a RIFF file; empty when it is not there. A chunk cut short by the end of the file is taken as it
/// is.
std::span<const uint8_t> riff_chunk(std::span<const uint8_t> file, std::string_view name) {
    for (size_t at = 12; at + 8 <= file.size();) {
        const size_t size = little_endian(file, at + 4, 4);
        const auto body = file.subspan(at + 8);
        if (std::memcmp(&file[at], name.data(), 4) == 0) return body.first(std::min(size, body.size()));
        at += 8 + size + size % 2;
    }
    return {};
}

/// Samples of a wave file as µ-law.
std::vector<uint8_t> wave_samples(const std::string& path) {
    const file_bytes file(path);
    const auto bytes = file.bytes();
    if (!file.text().starts_with("RIFF")) throw std::runtime_error(path + ": no wave file");
    const auto format = riff_chunk(bytes, "fmt ");
    const auto data = riff_chunk(bytes, "data");
    constexpr uint32_t pcm = 1;
    constexpr uint32_t mulaw = 7;
    if (format.size() < 16 || little_endian(format, 2, 2) != 1 || little_endian(format, 4, 4) != audio_rate) {
        throw std::runtime_error(path + ": wants one channel at 8000 Hz");
    }
    const uint32_t coding = little_endian(format, 0, 2);
    const uint32_t bits = little_endian(format, 14, 2);
    if (coding == mulaw && bits == 8) return {data.begin(), data.end()};
    if (coding != pcm || bits != 16) throw std::runtime_error(path + ": wants \xC2\xB5-law or 16-bit PCM");
    std::vector<uint8_t> samples(data.size() / 2);
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = mulaw_encode(static_cast<int16_t>(little_endian(data, 2 * i, 2)));
    }
    return samples;
}

track load_audio(const std::string& path) {
    const std::vector<uint8_t> samples = wave_samples(path);
    if (samples.size() < audio_block) throw std::runtime_error(path + ": shorter than 20 ms");
    // Whole blocks only: what is left of the last one, less than 20 ms, is not played.
    std::vector<frame_ptr> blocks;
    for (size_t at = 0; at + audio_block <= samples.size(); at += audio_block) {
        blocks.push_back(make_frame(av::fcc_pcmu, std::span(samples).subspan(at, audio_block)));
    }
    return {std::move(blocks), {audio_rate / audio_block, 1}};
}

/// Whether RTP can carry a JPEG picture (RFC 2435, 3.1): baseline with 4:2:2 or 4:2:0 chroma, whole blocks in a line.
bool is_sendable(const av::frame_t& picture) {
    constexpr uint32_t most_pixels = 2040;
    constexpr uint32_t block = 8;
    jpeg_info_t info{};
    if (!jpeg_inspect({picture.data, picture.size}, &info) || info.progressive || info.components != 3) return false;
    const auto [luma, cb, cr] = info.sampling;
    return (luma == 0x21 || luma == 0x22) && cb == 0x11 && cr == 0x11 && info.width % block == 0 &&
           std::max(info.width, info.height) <= most_pixels;
}

track load_pictures(const std::vector<std::string>& paths) {
    std::vector<frame_ptr> pictures;
    for (const std::string& path : paths) {
        const file_bytes file(path);
        pictures.push_back(make_frame(av::fcc_jpeg, file.bytes()));
        if (!is_sendable(*pictures.back())) {
            throw std::runtime_error(
                path +
                ": wants a baseline JPEG picture, luma sampled 2x2 or 2x1 and chroma 1x1, of at most "
                "2040 pixels a side, its width a multiple of 8");
        }
    }
    return {std::move(pictures), still_pictures};
}

track load_reports(const std::string& path) {
    const file_bytes file(path);
    std::vector<frame_ptr> reports;
    std::string_view rest = file.text();
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.find_first_not_of(" \t\r") == std::string_view::npos) continue;
        reports.push_back(make_frame(av::fcc_meta, {reinterpret_cast<const uint8_t*>(line.data()), line.size()}));
    }
    if (reports.empty()) throw std::runtime_error(path + ": no report");
    return {std::move(reports), detector_reports};
}

/// Where the bundled clip lies: beside the installed program, or in the tree the program was built from.
std::string bundled_directory() {
    const std::unique_ptr<char, decltype(&core_mfree)> program(lib_path(CORE_HERE), &core_mfree);
    const std::filesystem::path installed = apps::utf8_path(program ? program.get() : ".") / INET_CLIP_INSTALL_DIR;
    std::error_code ignored;
    return std::filesystem::exists(installed, ignored) ? apps::utf8_text(installed) : INET_CLIP_BUILD_DIR;
}

options with_bundled_files(options wanted) {
    const std::string directory = bundled_directory();
    wanted.video = directory + "/clip.h264";
    wanted.audio = directory + "/clip.wav";
    wanted.analytics = directory + "/clip.json";
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(apps::utf8_path(directory), ignored)) {
        if (entry.path().extension() == ".jpg") wanted.jpeg.push_back(apps::utf8_text(entry.path()));
    }
    std::sort(wanted.jpeg.begin(), wanted.jpeg.end());
    return wanted;
}

clip load(options wanted) {
    const bool none = wanted.video.empty() && wanted.audio.empty() && wanted.jpeg.empty() && wanted.analytics.empty();
    if (none && wanted.sources.empty()) {
        wanted = with_bundled_files(std::move(wanted));
    }
    clip result;
    channel live{"live", {}};
    if (!wanted.video.empty()) live.tracks.push_back(load_video(wanted.video));
    if (!wanted.audio.empty()) live.tracks.push_back(load_audio(wanted.audio));
    if (!wanted.analytics.empty()) live.tracks.push_back(load_reports(wanted.analytics));
    if (!live.tracks.empty()) result.channels.push_back(std::move(live));
    if (!wanted.jpeg.empty()) {
        channel jpeg{"jpeg", {}};
        jpeg.tracks.push_back(load_pictures(wanted.jpeg));
        result.channels.push_back(std::move(jpeg));
    }
    return result;
}

}  // namespace

void track::set_order(const std::vector<size_t>& places) {
    size_t furthest = 0;
    for (size_t i = 0; i < places.size(); ++i)
        furthest = std::max(furthest, i - std::min(i, places[i]));
    for (size_t i = 0; i < places.size(); ++i)
        frames_[i]->shown_after = static_cast<uint32_t>(time(places[i] + furthest) - time(i));
    delay_ = time(furthest);
}

std::optional<clip> load_clip(const options& wanted, std::string& error) {
    try {
        return load(wanted);
    } catch (const std::exception& reason) {
        error = reason.what();
        return std::nullopt;
    }
}

}  // namespace camera
