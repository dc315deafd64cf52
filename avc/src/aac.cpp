#include "avc/aac.h"

#include <algorithm>
#include <iterator>

namespace {

/// Sampling rates by their index (ISO/IEC 14496-3, 1.6.3.3).
constexpr uint32_t rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr uint32_t explicit_rate = 15;
constexpr uint32_t channels_of[] = {0, 1, 2, 3, 4, 5, 6, 8};
constexpr uint32_t sbr = 5;
constexpr uint32_t ps = 29;

constexpr uint32_t checked_header_size = 9;
constexpr uint32_t longest_frame = 0x1fff;

/// Bits from the highest down.
class bits {
public:
    explicit bits(std::span<const uint8_t> from) noexcept : from_(from) {}

    uint32_t take(unsigned count) noexcept {
        uint32_t value = 0;
        for (; count > 0; --count, ++at_) {
            const uint32_t byte = at_ / 8 < from_.size() ? from_[at_ / 8] : 0;
            value = value << 1 | (byte >> (7 - at_ % 8) & 1);
        }
        return value;
    }
    bool is_complete() const noexcept { return at_ <= from_.size() * 8; }

private:
    std::span<const uint8_t> from_;
    size_t at_ = 0;
};

uint32_t take_type(bits& from) noexcept {
    constexpr uint32_t escape = 31;
    const uint32_t type = from.take(5);
    return type == escape ? 32 + from.take(6) : type;
}

/// 0 for a reserved index.
uint32_t take_rate(bits& from) noexcept {
    const uint32_t index = from.take(4);
    if (index == explicit_rate) return from.take(24);
    return index < std::size(rates) ? rates[index] : 0;
}

}  // namespace

int aac_parse_config(std::span<const uint8_t> config, av::aac_config_t* out) noexcept {
    bits from(config);
    av::aac_config_t read;
    read.type = take_type(from);
    read.rate = take_rate(from);
    read.layout = from.take(4);
    if (read.type == sbr || read.type == ps) {
        take_rate(from);
        read.type = take_type(from);
    }
    read.samples = from.take(1) ? 960 : 1024;
    if (!read.rate || !from.is_complete()) return 0;
    if (read.layout < std::size(channels_of)) read.channels = channels_of[read.layout];
    *out = read;
    return 1;
}

int adts_parse(std::span<const uint8_t> bytes, av::adts_t* out) noexcept {
    bits from(bytes);
    if (!bytes.empty() && from.take(8) != 0xff) return -1;
    if (bytes.size() > 1 && from.take(4) != 0xf) return -1;
    if (bytes.size() < av::adts_header_size) return 0;
    from.take(1);  // which MPEG
    const uint32_t layer = from.take(2);
    const bool checked = from.take(1) == 0;
    const uint32_t profile = from.take(2);
    const uint32_t index = from.take(4);
    from.take(1);  // private
    const uint32_t layout = from.take(3);
    from.take(4);  // who made it
    const uint32_t size = from.take(13);
    from.take(11);  // fullness
    const uint32_t more_blocks = from.take(2);
    const uint32_t header = checked ? checked_header_size : av::adts_header_size;
    if (layer != 0 || index >= std::size(rates) || layout == 0 || size <= header || more_blocks != 0) return -1;
    const uint32_t type = profile + 1;
    out->header = header;
    out->size = size;
    out->rate = rates[index];
    out->channels = channels_of[layout];
    out->config[0] = static_cast<uint8_t>(type << 3 | index >> 1);
    out->config[1] = static_cast<uint8_t>(index << 7 | layout << 3);
    return 1;
}

int adts_header(const av::aac_config_t& config, uint32_t size, std::span<uint8_t, av::adts_header_size> out) noexcept {
    const auto index = static_cast<uint32_t>(std::ranges::find(rates, config.rate) - std::begin(rates));
    const uint32_t whole = av::adts_header_size + size;
    const bool fits = size > 0 && size <= longest_frame - av::adts_header_size;
    if (config.type < 1 || config.type > 4 || index == std::size(rates) || config.layout == 0 ||
        config.layout >= std::size(channels_of) || !fits)
        return 0;
    constexpr uint32_t unknown_fullness = 0x7ff;
    const uint64_t all = uint64_t{0xfff1} << 40 | uint64_t{config.type - 1} << 38 | uint64_t{index} << 34 |
                         uint64_t{config.layout} << 30 | uint64_t{whole} << 13 | uint64_t{unknown_fullness} << 2;
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<uint8_t>(all >> 8 * (out.size() - 1 - i));
    return 1;
}
