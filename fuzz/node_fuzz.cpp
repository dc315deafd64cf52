// The document of a node as a module reads it. And the other way round: whatever a caller puts into a document comes
// out of it unchanged, but for bytes that are not UTF-8.
#include "fuzz.h"

#include "inet/net_fish.h"
#include "inet/net_node.h"

namespace {

bool is_utf8(std::string_view text) {
    uint32_t code = 0;
    while (!text.empty()) {
        const size_t size = utf8_decode(text.data(), text.size(), &code);
        if (size == 0) return false;
        text.remove_prefix(size);
    }
    return true;
}

void there_and_back(const std::string& text) {
    const char* const given = text.c_str();
    const net::cinfo_t__ who{given, given, given, given, given};
    const core::owned_text made(fish_archive_reader(&who, given, given, given, given, CORE_HERE));
    net::Node read;
    const bool done = made && read.parse(made.get(), nullptr, 0) == 1;
    require(fuzz::starved || done);
    const std::string_view seen = read.text("arc_key2");
    require(fuzz::starved || seen == read.text("out"));
    require(fuzz::starved || seen == read.key2());
    if (!fuzz::starved && is_utf8(given)) require(seen == given);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    char error[64];
    net::Node node;
    if (node.parse(text.c_str(), error, sizeof error)) {
        fuzz::require_utf8(node.text("file"));
        require(node.number("port", 7) == node.number("port", 7) && !node.truth("file", false));
        const core::owned_text name(node.bus_name(node.text("out"), CORE_HERE));
        require(fuzz::starved || std::string_view(name.get()).starts_with(node.key1()));
    } else {
        require(std::strlen(node.section()) == 0 && std::strlen(node.text("file")) == 0);
    }
    there_and_back(text.substr(0, 4096));
}
