// Detector reports turned into metadata documents.
#include "core/memory.h"
#include "inet/net_analytics.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

/// Whatever was reported, the document is made of our own elements and numbers.
void check(const char* document) {
    if (!document) return;
    const std::string_view text = document;
    constexpr std::string_view tail = "</tt:Object></tt:Frame></tt:VideoAnalytics></tt:MetadataStream>";
    require(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream ") && text.ends_with(tail));
    require(text.find_first_of("{}[]%&'\\\n") == std::string_view::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < sizeof(uint64_t)) return 0;
    uint64_t time;
    std::memcpy(&time, data, sizeof(time));
    const std::string json(reinterpret_cast<const char*>(data) + sizeof(time), size - sizeof(time));
    char* net = net_analytics_convert(json.c_str(), time, CORE_HERE);
    char* onvif = onvif_convert(json.c_str(), time);
    check(net);
    check(onvif);
    core_mfree(net);
    core_mfree(onvif);
    require(core_mem_blocks() == 0);
    return 0;
}
