// Detector reports turned into metadata documents.
#include "fuzz.h"

#include "core/memory.h"
#include "inet/net_analytics.h"

#include <cstring>
#include <string>
#include <string_view>

namespace {

using fuzz::require;

/// Whatever was reported, the document is made of our own elements and numbers.
void check(const char* document) {
    if (!document) return;
    const std::string_view text = document;
    constexpr std::string_view tail = "</tt:Object></tt:Frame></tt:VideoAnalytics></tt:MetadataStream>";
    require(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream ") && text.ends_with(tail));
    require(text.find_first_of("{}[]%&'\\\n") == std::string_view::npos);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    if (input.size() < sizeof(uint64_t)) return;
    uint64_t time;
    std::memcpy(&time, input.data(), sizeof(time));
    const std::string json = fuzz::text_of(input.subspan(sizeof(time)));
    char* net = net_analytics_convert(json.c_str(), time, CORE_HERE);
    char* onvif = onvif_convert(json.c_str(), time);
    check(net);
    check(onvif);
    // Without memory for one of the two, the other has all of it.
    require(!fuzz::starved || !net || !onvif || std::strcmp(net, onvif) == 0);
    core_mfree(net);
    core_mfree(onvif);
}
