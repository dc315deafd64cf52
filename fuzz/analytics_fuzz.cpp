// Detector reports turned into metadata documents.
#include "fuzz.h"

#include "inet/net_analytics.h"

void fuzz_target(std::span<const uint8_t> input) {
    if (input.size() < sizeof(uint64_t)) return;
    uint64_t time;
    std::memcpy(&time, input.data(), sizeof(time));
    const std::string json = fuzz::text_of(input.subspan(sizeof(time)));
    const core::owned_text net(net_analytics_convert(json.c_str(), time, CORE_HERE));
    const core::owned_text onvif(onvif_convert(json.c_str(), time));
    // Whatever was reported, the document is made of our own elements and numbers.
    for (const char* document : {net.get(), onvif.get()}) {
        const std::string_view text = document ? document : "";
        if (text.empty()) continue;
        require(text.starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?><tt:MetadataStream "));
        require(text.ends_with("</tt:Object></tt:Frame></tt:VideoAnalytics></tt:MetadataStream>"));
        require(text.find_first_of("{}[]%&'\\\n") == text.npos);
    }
    // Without memory for one of the two, the other has all of it.
    require(!fuzz::starved || !net || !onvif || std::strcmp(net.get(), onvif.get()) == 0);
}
