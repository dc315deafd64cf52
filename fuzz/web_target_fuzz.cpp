// The target of a request and the range that it asks for, each on a line. What leads somewhere is plain text.
#include "fuzz.h"
#include "http_service/range.h"
#include "http_service/target.h"

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    const size_t end = std::min(text.find('\n'), text.size());
    media::web::target_t target;
    if (media::web::read_target(std::string_view(text).substr(0, end), target)) {
        require(target.path.starts_with('/') || target.path == "*");
        fuzz::require_utf8(target.path);
        require(std::ranges::none_of(target.path, [](char c) { return c >= 0 && (c < 0x20 || c == 0x7f); }));
    }
    for (const uint64_t size : {0ULL, 1ULL, 1000ULL}) {
        uint64_t first = 0;
        uint64_t last = size;
        const auto range =
            media::web::read_range(std::string_view(text).substr(std::min(end + 1, text.size())), size, first, last);
        require(range == media::web::range_t::part ? first < last && last <= size : first == 0 && last == size);
    }
}
