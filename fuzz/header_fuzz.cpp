// Heads of HTTP, RTSP and SIP messages: found, read by both parsers, printed and read again.
#include "fuzz.h"

#include "core/memory.h"
#include "inet/net_http_header.h"

#include <cstring>
#include <vector>

namespace {

using fuzz::require;

using net::http::header_s;

/// Both printers agree, and no buffer is overrun.
void print(const header_s& header, size_t room) {
    char* text = http_header_str(&header, nullptr, CORE_HERE);
    std::vector<char> out(room + 1);
    const int size = http_header_sprintf(&header, out.data(), static_cast<int>(out.size()));
    require(size >= 0 && static_cast<size_t>(size) <= room && out[static_cast<size_t>(size)] == '\0');
    // Without a target, the two write another number of slashes.
    if (text && (header.status != 0 || header.uri))
        require(std::memcmp(text, out.data(), static_cast<size_t>(size)) == 0);
    core_mfree(text);
}

/// What was printed is what is read: the fields all come back.
void read_again(const header_s& header) {
    char* text = http_header_str(&header, "", CORE_HERE);
    header_s* again = text ? http_header_parse(text, static_cast<unsigned>(std::strlen(text)), CORE_HERE) : nullptr;
    if (!fuzz::starved) {
        require(value_count(again->fields) == value_count(header.fields));
        for (uint32_t i = 0; i < value_count(header.fields); ++i)
            require(std::strcmp(again->fields[i]->value, header.fields[i]->value) == 0);
    }
    http_header_free(again);
    core_mfree(text);
}

/// A record takes a change whole or stays as it was.
void build(header_s& header) {
    const uint32_t fields = value_count(header.fields);
    const uint32_t status = header.status;
    const int put = http_header_put_format(&header, "F", "%d", 1);
    require((put == 1 || fuzz::starved) && value_count(header.fields) == fields + static_cast<uint32_t>(put));
    const int set = http_header_set(&header, "F", "%d", 2);
    require(set == 1 ? std::strcmp(http_header_get_value(&header, "F"), "2") == 0 : fuzz::starved);
    const int request = http_put_request(&header, "GET", "/", "HTTP/1.1");
    require(request == 1 ? std::strcmp(header.method, "GET") == 0 : fuzz::starved && header.status == status);
    header_s* error = http_header_error("RTSP/1.0", 404, 5, "a/b");
    require(error ? value_count(error->fields) == 2 : fuzz::starved);
    http_header_free(error);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const auto* bytes = reinterpret_cast<const char*>(input.data());
    const auto length = static_cast<unsigned>(input.size());
    require(http_find_header(bytes, length) <= static_cast<int>(length));

    header_s* header = http_header_parse(bytes, length, CORE_HERE);
    if (header) {
        require(value_count(header->fields) <= http_max_fields);
        print(*header, length / 2);
        print(*header, 2 * length + 64);
        if (header->method) read_again(*header);
        core_mfree(http_get_boundary(value_geti(header->fields, "Content-Type")));
        http_get_file_mime(header->uri);
    }

    header_s older;
    const int read = http_parse_header(&older, bytes, length);
    require(fuzz::starved || (header && read == 1 && value_count(older.fields) == value_count(header->fields)));
    build(older);
    http_clear_header(&older);
    http_header_free(header);
}
