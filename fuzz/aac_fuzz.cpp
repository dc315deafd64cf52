// AAC from files and the network: a run of ADTS frames, whose headers are written again as they were understood, and an
// AudioSpecificConfig.
#include "fuzz.h"

#include "avc/aac.h"

#include <array>

void fuzz_target(std::span<const uint8_t> input) {
    av::aac_config_t config;
    aac_parse_config(input, &config);
    av::adts_t frame;
    while (adts_parse(input, &frame) == 1) {
        require(frame.header < frame.size && frame.rate > 0 && frame.channels > 0);
        require(aac_parse_config(frame.config, &config) == 1);
        require(config.rate == frame.rate && config.channels == frame.channels && config.samples == 1024);
        std::array<uint8_t, av::adts_header_size> header{};
        const uint32_t size = frame.size - frame.header;
        require(adts_header(config, size, header) == 1);
        av::adts_t again;
        require(adts_parse(header, &again) == 1 && std::ranges::equal(again.config, frame.config));
        require(again.size == again.header + size && again.rate == frame.rate);
        input = input.subspan(std::min<size_t>(frame.size, input.size()));
    }
}
