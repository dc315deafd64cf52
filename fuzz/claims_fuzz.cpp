// Whose a connection is, by its first bytes: what comes behind a verdict does not change it.
#include "fuzz.h"

#include "media/rtsp_service.h"

#include <memory>

void fuzz_target(std::span<const uint8_t> input) {
    std::vector<uint8_t> first(input.begin(), input.end());
    const std::unique_ptr<media::service> rtsp(media::rtsp_service());
    if (!rtsp) return require(fuzz::starved);
    auto verdict = media::claim_t::more;
    for (size_t size = 0; size <= input.size() && !fuzz::starved; ++size) {
        const auto now = rtsp->claims({first.data(), static_cast<uint32_t>(size)});
        require(fuzz::starved || verdict == media::claim_t::more || now == verdict);
        verdict = now;
    }
    rtsp->claims({first.data(), static_cast<uint32_t>(first.size())});
}
