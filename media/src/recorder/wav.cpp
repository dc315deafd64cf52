// A RIFF file of G.711 sound, mu-law or A-law by the first block.
#include "recorder/file.h"
#include "recorder/timeline.h"

#include "avc/fcc.h"

#include <algorithm>
#include <array>
#include <limits>

namespace media::record {

namespace {

class wav_file final : public file {
public:
    using file::file;

    bool takes(uint32_t fcc) const noexcept override { return fcc == av::fcc_pcmu || fcc == av::fcc_pcma; }

    bool take(const placed_t& placed) override {
        const av::frame_t& block = placed.frame;
        if (!out().is_open() && !begin_with(block)) return false;
        if (block.fcc != fcc_) return true;
        const sound_line::place_t place = line_.place(placed.at, block.size / channels_);
        line_.set_end(line_.end() + place.silence + block.size / channels_ - place.skip);
        if (!put_silence(place.silence)) return false;
        const uint32_t skipped = std::min(place.skip * channels_, block.size);
        return put_samples(block.data + skipped, block.size - skipped);
    }

    bool finish() override {
        if (!out().is_open()) return true;
        const bool padded = bytes_ % 2 == 0 || out().put("", 1);
        // What was written to the standard output stays as it is.
        const bool headed = out().is_standard() || (out().rewind() && put_header(bytes_));
        return out().close() && padded && headed;
    }

private:
    static constexpr uint32_t header_size = 58;
    /// The format ends at 4 GiB, six days.
    static constexpr uint32_t most_bytes = std::numeric_limits<uint32_t>::max() - header_size - 1;

    bool begin_with(const av::frame_t& block) {
        constexpr uint32_t most_channels = 8;
        fcc_ = block.fcc;
        if (block.rate) rate_ = block.rate;
        if (block.channels && block.channels <= most_channels) channels_ = block.channels;
        line_.set_rate(rate_);
        return is_ready() && put_header(out().is_standard() ? most_bytes : 0);
    }

    bool put_silence(uint64_t samples) {
        constexpr uint8_t silent_mulaw = 0xff;
        constexpr uint8_t silent_alaw = 0xd5;
        std::array<uint8_t, 4096> silence;
        silence.fill(fcc_ == av::fcc_pcmu ? silent_mulaw : silent_alaw);
        uint64_t left = std::min<uint64_t>(samples * channels_, most_bytes - bytes_);
        bool written = true;
        while (written && left > 0) {
            const auto size = static_cast<uint32_t>(std::min<uint64_t>(left, silence.size()));
            written = put_samples(silence.data(), size);
            left -= size;
        }
        return written;
    }

    bool put_samples(const uint8_t* data, uint32_t size) {
        size = std::min(size, most_bytes - bytes_);
        bytes_ += size;
        return out().put(data, size);
    }

    bool put_header(uint32_t bytes) {
        std::array<uint8_t, header_size> header;
        uint8_t* at = header.data();
        const auto text = [&](const char* word) { at = std::copy_n(word, 4, at); };
        const auto number = [&](uint32_t value, int size) {
            for (; size > 0; --size, value >>= 8)
                *at++ = static_cast<uint8_t>(value);
        };
        text("RIFF");
        number(header_size - 8 + bytes + bytes % 2, 4);
        text("WAVE");
        text("fmt ");
        number(18, 4);
        number(fcc_ == av::fcc_pcma ? 6 : 7, 2);
        number(channels_, 2);
        number(rate_, 4);
        number(rate_ * channels_, 4);
        number(channels_, 2);
        number(8, 2);
        number(0, 2);
        text("fact");
        number(4, 4);
        number(bytes / channels_, 4);
        text("data");
        number(bytes, 4);
        return out().put(header.data(), header.size());
    }

    uint32_t fcc_ = av::fcc_pcmu;
    uint32_t rate_ = 8000;
    uint32_t channels_ = 1;
    sound_line line_;
    uint32_t bytes_ = 0;
};

}  // namespace

file_ptr make_wav(const char* path) { return make<wav_file>(path); }

}  // namespace media::record
