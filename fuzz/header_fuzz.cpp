// Heads of HTTP, RTSP and SIP messages: found, read by both parsers, printed and read again.
#include "fuzz.h"

#include "inet/net_http_header.h"

using net::http::header_s;
using owned_header = core::owned<header_s, http_header_free>;

namespace {

/// Both printers agree, and no buffer is overrun.
void print(const header_s& header, size_t room) {
    const core::owned_text text(http_header_str(&header, nullptr, CORE_HERE));
    std::vector<char> out(room + 1);
    const auto size = static_cast<size_t>(http_header_sprintf(&header, out.data(), static_cast<int>(out.size())));
    require(size <= room && out[size] == '\0');
    // Without a target, the two write another number of slashes.
    require(!text || (header.status == 0 && !header.uri) || std::memcmp(text.get(), out.data(), size) == 0);
}

/// What was printed is what is read: the fields all come back.
void read_again(const header_s& header) {
    const core::owned_text text(http_header_str(&header, "", CORE_HERE));
    const auto size = static_cast<unsigned>(text ? std::strlen(text.get()) : 0);
    const owned_header again(http_header_parse(text.get(), size, CORE_HERE));
    if (fuzz::starved) return;
    require(value_count(again->fields) == value_count(header.fields));
    for (uint32_t i = 0; i < value_count(header.fields); ++i)
        require(std::strcmp(again->fields[i]->value, header.fields[i]->value) == 0);
}

/// A record takes a change whole or stays as it was.
void build(header_s& header) {
    const uint32_t fields = value_count(header.fields);
    const int put = http_header_put_format(&header, "F", "%d", 1);
    require((put == 1 || fuzz::starved) && value_count(header.fields) == fields + static_cast<uint32_t>(put));
    const int set = http_header_set(&header, "F", "%d", 2);
    require(set == 1 ? std::strcmp(http_header_get_value(&header, "F"), "2") == 0 : fuzz::starved);
    require(http_put_request(&header, "GET", "/", "HTTP/1.1") || fuzz::starved);
    const owned_header error(http_header_error("RTSP/1.0", 404, 5, "a/b"));
    require(error ? value_count(error->fields) == 2 : fuzz::starved);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const auto* bytes = reinterpret_cast<const char*>(input.data());
    const auto length = static_cast<unsigned>(input.size());
    const int found = http_find_header(bytes, length);
    require(found <= static_cast<int>(length) &&
            found == http_header_find({const_cast<uint8_t*>(input.data()), length}));
    const owned_header header(http_header_parse(bytes, length, CORE_HERE));
    if (header) {
        require(value_count(header->fields) <= http_max_fields);
        print(*header, length / 2);
        print(*header, 2 * length + 64);
        if (header->method) read_again(*header);
        const core::owned_text boundary(http_get_boundary(value_geti(header->fields, "Content-Type")));
        http_get_file_mime(header->uri);
    }
    header_s older;
    const int read = http_parse_header(&older, bytes, length);
    require(fuzz::starved || (header && read == 1 && value_count(older.fields) == value_count(header->fields)));
    build(older);
    http_clear_header(&older);
}
