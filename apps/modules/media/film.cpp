#include "film.h"

#include "program.h"

#include "avc/access_units.h"
#include "avc/fcc.h"
#include "common/h264.h"
#include "core/file.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace media_module {
namespace {

constexpr size_t largest_file = 512u << 20;

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

}  // namespace

file_bytes::file_bytes(const std::string& path) : data_(core_file_load(path.c_str(), largest_file, &size_, CORE_HERE)) {
    if (!data_) throw std::runtime_error("cannot read " + path);
}

frame_ptr make_frame(uint32_t fcc, std::span<const uint8_t> bytes) {
    frame_ptr frame(avc_frame_create(fcc, 0, bytes.data(), static_cast<uint32_t>(bytes.size()), CORE_HERE));
    if (!frame) throw std::bad_alloc();
    return frame;
}

void track::set_order(const std::vector<size_t>& places) {
    size_t furthest = 0;
    for (size_t i = 0; i < places.size(); ++i)
        furthest = std::max(furthest, i - std::min(i, places[i]));
    for (size_t i = 0; i < places.size(); ++i)
        frames_[i]->shown_after = static_cast<uint32_t>(time(places[i] + furthest) - time(i));
    delay_ = time(furthest);
}

track load_film(const std::string& path, uint32_t per_second) {
    const file_bytes file(path);
    struct pictures_t {
        std::vector<frame_ptr> all;
        bool whole = true;
    } found;
    av::AccessUnits units(CORE_HERE);
    const auto keep = [](void* arg, buffer_t unit) {
        auto& to = *static_cast<pictures_t*>(arg);
        try {
            to.all.push_back(make_frame(av::fcc_h264, {unit.data, unit.size}));
        } catch (const std::bad_alloc&) {
            to.whole = false;
        }
    };
    const auto bytes = file.bytes();
    units.take({const_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())}, keep, &found);
    units.end(keep, &found);
    if (!found.whole) throw std::bad_alloc();
    std::vector<frame_ptr>& pictures = found.all;
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
    track result(std::move(pictures), per_second > 0 ? pace{per_second, 1} : video_pace(bytes));
    result.set_order(std::move(order).places());
    return result;
}

}  // namespace media_module
