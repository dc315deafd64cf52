// A byte stream cut into access units: the same whatever pieces it comes in, every NAL unit once and in order, a slice
// in each unit. The first byte of the input is the size of the pieces, the second the limit.
#include "fuzz.h"

#include "avc/access_units.h"
#include "common/h264.h"

namespace {
using bytes_t = std::vector<uint8_t>;

struct units_t {
    std::vector<bytes_t> all;
    uint32_t left_out = 0;
};

units_t split(std::span<const uint8_t> stream, size_t piece, uint32_t limit) {
    units_t found;
    av::AccessUnits splitter(CORE_HERE, limit);
    const auto keep = [](void* arg, buffer_t unit) {
        static_cast<units_t*>(arg)->all.emplace_back(unit.data, unit.data + unit.size);
    };
    for (size_t at = 0; at < stream.size(); at += piece) {
        bytes_t part(stream.begin() + static_cast<std::ptrdiff_t>(at),
                     stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + piece, stream.size())));
        splitter.take({part.data(), static_cast<uint32_t>(part.size())}, keep, &found);
    }
    splitter.end(keep, &found);
    found.left_out = splitter.left_out();
    return found;
}

void check_nal_units(std::span<const uint8_t> stream, const units_t& found) {
    for (const bytes_t& unit : found.all) {
        bool has_slice = false;
        std::span<const uint8_t> rest = unit;
        for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
            require(!has_slice || !h264_starts_access_unit(nal));
            has_slice = has_slice || h264_is_slice(h264_nal_type(nal));
            require(std::ranges::equal(nal, h264_next_nal(stream)));
        }
        require(has_slice);
    }
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.size() < 2) return;
    const size_t piece = input[0] + size_t{1};
    const uint32_t limit = input[1] == 0 ? UINT32_MAX / 2 : input[1];
    const auto stream = input.subspan(2);
    const units_t found = split(stream, piece, limit);
    if (fuzz::starved) return;
    if (limit > stream.size()) {
        require(found.left_out == 0);
        check_nal_units(stream, found);
    }
    const units_t at_once = split(stream, SIZE_MAX / 2, limit);
    if (fuzz::starved) return;
    require(found.all == at_once.all && found.left_out == at_once.left_out);
}
