// A fragmented MP4 file: what is read of it lies in it, H.264 comes as NAL units behind start codes, and going back to
// a fragment gives the same again.
#include "fuzz.h"

#include "avc/fcc.h"
#include "avc/mp4_reader.h"
#include "common/h264.h"

namespace {

uint32_t read_at(void* arg, uint64_t position, void* data, uint32_t size) {
    const auto& file = *static_cast<std::span<const uint8_t>*>(arg);
    if (position >= file.size()) return 0;
    const auto part = file.subspan(static_cast<size_t>(position));
    const size_t count = std::min<size_t>(size, part.size());
    std::memcpy(data, part.data(), count);
    return static_cast<uint32_t>(count);
}

/// @return the sum of the bytes of all samples
uint64_t take_fragment(av::Mp4Reader& film, size_t room) {
    uint64_t sum = 0;
    av::mp4_taken_t taken{};
    while (film.next(taken)) {
        require(taken.track < film.tracks().size() && !taken.data.empty());
        if (film.tracks()[taken.track].fcc == av::fcc_h264) {
            require(taken.data.size() > 4 && taken.data[2] == 0 && taken.data[3] == 1);
            require(taken.data.size() <= 5 * room);
        } else {
            require(taken.data.size() <= room);
        }
        for (const uint8_t byte : taken.data)
            sum += byte;
    }
    return sum;
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    av::Mp4Reader film(CORE_HERE);
    if (!film.open({read_at, &input})) return;
    require(!film.tracks().empty() && film.tracks().size() <= 8);
    for (const av::mp4_track_t& each : film.tracks())
        require(each.scale > 0 && (each.fcc == av::fcc_h264 || each.channels > 0));
    while (film.next_fragment() == 1) {
        av::mp4_span_t span{};
        if (film.span(0, &span)) require(span.begin <= span.end && span.shown_before >= 0);
        if (film.load() != 1) continue;
        const uint64_t sum = take_fragment(film, input.size());
        film.go(film.position());
        const bool again = film.next_fragment() == 1 && film.load() == 1;
        const uint64_t sum_again = again ? take_fragment(film, input.size()) : 0;
        require(fuzz::starved || (again && sum == sum_again));
        if (!again) return;
    }
}
