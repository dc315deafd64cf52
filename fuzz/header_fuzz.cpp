// Heads of HTTP, RTSP and SIP messages: found, read by both parsers, printed and read again.
#include "core/memory.h"
#include "inet/net_http_header.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using net::http::header_s;

void require(bool holds) {
    if (!holds) std::abort();
}

/// Both printers agree, and no buffer is overrun.
void print(const header_s& header, size_t room) {
    char* text = http_header_str(&header, nullptr, CORE_HERE);
    std::vector<char> out(room + 1);
    const int size = http_header_sprintf(&header, out.data(), static_cast<int>(out.size()));
    require(size >= 0 && static_cast<size_t>(size) <= room && out[static_cast<size_t>(size)] == '\0');
    // Without a target, the two write another number of slashes.
    if (header.status != 0 || header.uri) require(std::memcmp(text, out.data(), static_cast<size_t>(size)) == 0);
    core_mfree(text);
}

/// What was printed is what is read: the fields all come back.
void read_again(const header_s& header) {
    char* text = http_header_str(&header, "", CORE_HERE);
    header_s* again = http_header_parse(text, static_cast<unsigned>(std::strlen(text)), CORE_HERE);
    require(value_count(again->fields) == value_count(header.fields));
    for (uint32_t i = 0; i < value_count(header.fields); ++i)
        require(std::strcmp(again->fields[i]->value, header.fields[i]->value) == 0);
    http_header_free(again);
    core_mfree(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto* bytes = reinterpret_cast<const char*>(data);
    const auto length = static_cast<unsigned>(size);
    require(http_find_header(bytes, length) <= static_cast<int>(length));

    header_s* header = http_header_parse(bytes, length, CORE_HERE);
    require(value_count(header->fields) <= http_max_fields);
    print(*header, size / 2);
    print(*header, 2 * size + 64);
    if (header->method) read_again(*header);
    core_mfree(http_get_boundary(value_geti(header->fields, "Content-Type")));
    http_get_file_mime(header->uri);

    header_s older;
    require(http_parse_header(&older, bytes, length) == 1);
    require(value_count(older.fields) == value_count(header->fields));
    http_clear_header(&older);
    http_header_free(header);
    require(core_mem_blocks() == 0);
    return 0;
}
