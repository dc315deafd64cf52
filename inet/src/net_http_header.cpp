#include "inet/net_http_header.h"

#include "net_http_header/block.h"
#include "scan.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <span>
#include <string_view>

using net::http::header_s;

namespace {

constexpr size_t max_end_positions = 4096;
constexpr std::string_view end_of_line = "\r\n";
constexpr std::string_view end_of_header = "\r\n\r\n";

// Reading

/// Makes an owned text of a record; @return false when memory is out.
bool set_text(char*& out, const char* text, const char* file, int line) noexcept {
    out = core_strdup(text, file, line);
    return out != nullptr;
}

/// What cut_block() finds, as copies that a record owns. Each call returns false when memory is out.
class copier {
public:
    copier(header_s& header, const char* file, int line) noexcept : header_(header), file_(file), line_(line) {}

    bool status(uint32_t number) noexcept {
        header_.status = number;
        return true;
    }
    bool method(const char* text) noexcept { return set_text(header_.method, text, file_, line_); }
    bool uri(const char* text) noexcept { return set_text(header_.uri, text, file_, line_); }
    void protocol(const char* text) noexcept { header_.protocol = text; }
    bool field(const char* name, const char* value) noexcept {
        if (count_ == http_max_fields) return true;
        header_.fields = core_value_put_at(header_.fields, count_, name, value, file_, line_);
        return header_.fields && header_.fields[count_++];
    }

private:
    header_s& header_;
    const char* file_;
    int line_;
    uint32_t count_ = 0;
};

bool read_block(header_s& header, const net::http::dialect& known, const char* data, unsigned size, const char* file,
                int line) noexcept {
    const core::owned_text text(static_cast<char*>(core_malloc(size_t{size} + 1, file, line)));
    if (!text) return false;
    if (data) std::memcpy(text.get(), data, size);
    text.get()[data ? size : 0] = '\0';
    copier into(header, file, line);
    return net::http::cut_block(text.get(), known, into);
}

// Building

int append_field(header_s* header, const char* name, const char* value) noexcept {
    if (!header || !name || !value) return 0;
    const uint32_t count = value_count(header->fields);
    header->fields = core_value_put(header->fields, name, value, CORE_HERE);
    return header->fields && header->fields[count];
}

header_s* finish(header_s* header, bool complete) noexcept {
    if (header && !complete) http_header_free(header);
    return header;
}

header_s* create_header(const char* file, int line) noexcept { return core::create<header_s>(file, line); }

// Printing

/// Only counts what is printed.
struct counter {
    size_t size = 0;
    void put(std::string_view text) noexcept { size += text.size(); }
};

/// Prints as long as there is room.
struct writer {
    std::span<char> room;
    size_t size = 0;
    void put(std::string_view text) noexcept {
        const size_t taken = std::min(text.size(), room.size() - size);
        if (taken > 0) std::memcpy(room.data() + size, text.data(), taken);
        size += taken;
    }
};

template <class Out, class... Texts>
void put_all(Out& out, const Texts&... texts) noexcept {
    (out.put(texts), ...);
}

template <class Out>
void print_start(Out& out, const header_s& header, const char* target) noexcept {
    const std::string_view protocol = scan::text(header.protocol);
    if (header.status != 0) {
        char number[16];
        const char* end = std::to_chars(std::begin(number), std::end(number), header.status).ptr;
        put_all(out, protocol, " ", std::string_view(number, end), " ", scan::text(header.reason), end_of_line);
        return;
    }
    std::string_view uri = scan::text(header.uri);
    if (uri.starts_with('/')) uri.remove_prefix(1);
    const bool whole = !header.uri && target;
    put_all(out, scan::text(header.method), whole ? " " : " /", whole ? std::string_view(target) : uri, " ", protocol,
            end_of_line);
}

template <class Out>
void print(Out& out, const header_s& header, const char* target) noexcept {
    print_start(out, header, target);
    for (value_t* const* field = header.fields; field && *field; ++field)
        put_all(out, scan::text((*field)->key), ": ", scan::text((*field)->value), end_of_line);
    out.put(end_of_line);
}

// Texts

struct status_text {
    unsigned status;
    const char* text;
};
constexpr status_text status_texts[] = {
    {200, "OK"},        {400, "Bad Request"},           {401, "Access denied"},         {403, "Forbidden"},
    {404, "Not Found"}, {461, "Unsupported Transport"}, {500, "Internal Server Error"},
};

struct file_type {
    const char* extension;
    const char* type;
};
constexpr file_type file_types[] = {
    {".mp4", "video/mp4"},       {".flv", "video/flv"},       {".mkv", "video/x-matroska"},
    {".jpg", "image/jpeg"},      {".bmp", "image/bmp"},       {".html", "text/html"},
    {".js", "text/javascript"},  {".css", "text/css"},        {".swf", "application/x-shockwave-flash"},
    {".zip", "application/zip"}, {".sdp", "application/sdp"},
};

}  // namespace

int http_find_header(const char* data, unsigned size) noexcept {
    if (!data || size < end_of_header.size()) return 0;
    constexpr size_t enough = max_end_positions + end_of_header.size() - 1;
    const size_t found = std::string_view(data, std::min<size_t>(size, enough)).find(end_of_header);
    if (found != std::string_view::npos) return static_cast<int>(found + end_of_header.size());
    return size >= enough ? -1 : 0;
}

int http_header_find(buffer_t data) noexcept {
    return http_find_header(reinterpret_cast<const char*>(data.data), data.size);
}

header_s* http_header_parse(const char* data, unsigned size, const char* file, int line) noexcept {
    header_s* header = create_header(file, line);
    return finish(header, header && read_block(*header, net::http::all_protocols, data, size, file, line));
}

int http_parse_header(header_s* header, const char* data, unsigned size) noexcept {
    http_clear_header(header);
    if (!header) return 0;
    if (read_block(*header, net::http::without_sip, data, size, CORE_HERE)) return 1;
    http_clear_header(header);
    return 0;
}

void http_clear_header(header_s* header) noexcept {
    if (!header) return;
    core_mfree(header->method);
    core_mfree(header->uri);
    core_value_free(header->fields);
    *header = header_s();
}

void http_header_free(header_s*& header) noexcept {
    http_clear_header(header);
    core::destroy(header);
    header = nullptr;
}

const char* http_header_get_value(const header_s* header, const char* name) noexcept {
    return header ? value_get(header->fields, name) : nullptr;
}

header_s* http_header_request(const char* method, const char* uri, const char* protocol) noexcept {
    header_s* header = create_header(CORE_HERE);
    return finish(header, http_put_request(header, method, uri, protocol) != 0);
}

header_s* http_header_respond(const char* protocol, unsigned status, const char* reason) noexcept {
    header_s* header = create_header(CORE_HERE);
    return finish(header, http_put_response(header, protocol, status, reason) != 0);
}

int http_put_request(header_s* header, const char* method, const char* uri, const char* protocol) noexcept {
    if (!header) return 0;
    core::owned_text new_method(core_strdup(method, CORE_HERE));
    core::owned_text new_uri(core_strdup(uri, CORE_HERE));
    if ((method && !new_method) || (uri && !new_uri)) return 0;
    core_mfree(header->method);
    core_mfree(header->uri);
    header->method = new_method.release();
    header->uri = new_uri.release();
    header->protocol = protocol;
    header->status = 0;
    header->reason = nullptr;
    return 1;
}

int http_put_response(header_s* header, const char* protocol, unsigned status, const char* reason) noexcept {
    if (!http_put_request(header, nullptr, nullptr, protocol ? protocol : "HTTP/1.1")) return 0;
    header->status = status;
    header->reason = reason;
    return 1;
}

header_s* http_header_error(const char* protocol, unsigned status, unsigned content_length,
                            const char* content_type) noexcept {
    header_s* header = http_header_respond(protocol, status, http_error(status));
    return finish(header, http_header_put_uint32(header, "Content-Length", content_length) &&
                              (!content_type || http_header_put(header, "Content-Type", content_type)));
}

int http_header_put(header_s* header, const char* name, const char* value) noexcept {
    return append_field(header, name, value ? value : "");
}

int http_header_put_uint32(header_s* header, const char* name, unsigned value) noexcept {
    char number[16] = {};
    std::to_chars(std::begin(number), std::end(number) - 1, value);
    return append_field(header, name, number);
}

int http_header_put_format(header_s* header, const char* name, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    const core::owned_text value(core_vsprintf(CORE_HERE, format, args));
    va_end(args);
    return append_field(header, name, value.get());
}

int http_header_set(header_s* header, const char* name, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    const core::owned_text value(core_vsprintf(CORE_HERE, format, args));
    va_end(args);
    if (!header || !name || !value) return 0;
    header->fields = core_value_set(header->fields, name, value.get(), CORE_HERE);
    return scan::text(http_header_get_value(header, name)) == value.get();
}

int http_header_copy(header_s* to, const char* name, value_t* const* from) noexcept {
    const char* value = value_geti(from, name);
    return value ? http_header_put(to, name, value) : 1;
}

int http_header_sprintf(const header_s* header, char* out, int size) noexcept {
    if (!out || size <= 0) return 0;
    writer printed{std::span(out, static_cast<size_t>(size) - 1)};
    if (header) print(printed, *header, nullptr);
    out[printed.size] = '\0';
    return static_cast<int>(printed.size);
}

char* http_header_str(const header_s* header, const char* target, const char* file, int line) noexcept {
    if (!header) return nullptr;
    if (!target) target = "";
    counter needed;
    print(needed, *header, target);
    auto* text = static_cast<char*>(core_malloc(needed.size + 1, file, line));
    if (!text) return nullptr;
    writer printed{std::span(text, needed.size)};
    print(printed, *header, target);
    text[printed.size] = '\0';
    return text;
}

const char* http_error(unsigned status) noexcept {
    const auto* found = std::ranges::find(status_texts, status, &status_text::status);
    return found == std::end(status_texts) ? "Unknown error" : found->text;
}

char* http_get_boundary(const char* content_type) noexcept {
    value_t** parameters = core_value_split(content_type, ";", "=", CORE_HERE);
    const char* boundary = value_get(parameters, "boundary");
    char* delimiter = boundary ? core_sprintf(CORE_HERE, "--%s", boundary + std::strspn(boundary, "-")) : nullptr;
    core_value_free(parameters);
    return delimiter;
}

const char* http_get_file_mime(const char* file_name) noexcept {
    const char* extension = file_name ? std::strrchr(file_name, '.') : nullptr;
    const auto* found = std::ranges::find_if(
        file_types, [&](const file_type& known) { return core_strcasecmp(known.extension, extension) == 0; });
    return found == std::end(file_types) ? "application/octet-stream" : found->type;
}
