#include "inet/net_uri.h"

#include "scan.h"
#include "uri/reference.h"

#include "core/array.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

using net::uri_arg_s;
using net::uri_s;

namespace {

constexpr size_t max_host = 255;
constexpr uint32_t max_port = 65535;
constexpr std::string_view authority_mark = "://";
constexpr std::string_view hex_digits = "0123456789ABCDEF";

/// Parts of a URI as views into it; those that are absent are not set.
struct parts {
    std::optional<std::string_view> user;
    std::optional<std::string_view> password;
    std::optional<std::string_view> host;
    uint32_t port = 0;
    std::optional<std::string_view> path;
    std::optional<std::string_view> query;
};

/// Takes "user:password@" off the front. The '@' may stand anywhere, in the path as well: the first one counts.
void split_user_info(parts& out, std::string_view& rest) noexcept {
    if (rest.find('@') == std::string_view::npos) return;
    const scan::pair info = scan::split(scan::take(rest, '@'), ':');
    out.user = info.key;
    if (info.has_value) out.password = info.value;
}

void split_host(parts& out, std::string_view rest) noexcept {
    const size_t end = rest.find_first_of(":/");
    const std::string_view host = rest.substr(0, end);
    if (host.size() <= max_host) out.host = host;
    if (end == std::string_view::npos || rest[end] != ':') return;
    const uint32_t port = scan::decimal(rest.substr(end + 1));
    out.port = port <= max_port ? port : 0;
}

/// The path starts with `rest`, the end of `text`.
void split_path(parts& out, std::string_view text, std::string_view rest) noexcept {
    const size_t mark = text.find('?');
    const size_t start = text.size() - rest.size();
    if (mark != std::string_view::npos) out.query = text.substr(mark);
    if (mark >= start) out.path = text.substr(start, mark == std::string_view::npos ? mark : mark - start);
}

/// @return not set when nothing follows "://".
std::optional<parts> split(std::string_view text) noexcept {
    parts out;
    std::string_view rest = text;
    const size_t mark = text.find(authority_mark);
    if (mark != std::string_view::npos) {
        rest.remove_prefix(mark + authority_mark.size());
        if (rest.empty()) return std::nullopt;
        split_user_info(out, rest);
        split_host(out, rest);
        // Without a path there is no query: the host runs to the end.
        if (rest.find('/') == std::string_view::npos) return out;
    }
    const scan::pair path = scan::split(rest, '/');
    split_path(out, text, path.has_value ? path.value : rest);
    return out;
}

/// Copies parts into a record, remembering whether all could be held.
class copier {
public:
    copier(const char* file, int line) noexcept : file_(file), line_(line) {}

    char* operator()(const std::optional<std::string_view>& part) noexcept {
        char* copy = part ? core_strndup(part->data(), part->size(), file_, line_) : nullptr;
        complete_ = complete_ && (copy || !part);
        return copy;
    }
    bool complete() const noexcept { return complete_; }

private:
    const char* file_;
    int line_;
    bool complete_ = true;
};

/// Cuts a text to the room there is and terminates it.
char* fill(char* out, int size, std::string_view text) noexcept {
    out[text.copy(out, static_cast<size_t>(size) - 1)] = '\0';
    return out;
}

// Query arguments

void free_arg(uri_arg_s* arg) noexcept {
    core_mfree(arg->name);
    core_mfree(arg->value);
    core::destroy(arg);
}

/// @return null when memory is out.
uri_arg_s* make_arg(std::string_view text, const char* file, int line) noexcept {
    auto* arg = core::create<uri_arg_s>(file, line);
    if (!arg) return nullptr;
    const scan::pair pair = scan::split(text, '=');
    arg->name = core_strndup(pair.key.data(), pair.key.size(), file, line);
    if (pair.has_value) arg->value = uri_decode(pair.value.data(), pair.value.data() + pair.value.size(), file, line);
    if (arg->name && (arg->value || !pair.has_value)) return arg;
    free_arg(arg);
    return nullptr;
}

// Percent-coding

/// Takes "%uXXXX" off the front: as many of its four digits as are hexadecimal.
std::optional<uint32_t> take_unit(std::string_view& rest) noexcept {
    if (!rest.starts_with("%u") || rest.size() < 6) return std::nullopt;
    uint32_t code = 0;
    for (size_t i = 2; i < 6 && scan::hex_digit(rest[i]) >= 0; ++i)
        code = code * 16 + static_cast<uint32_t>(scan::hex_digit(rest[i]));
    rest.remove_prefix(6);
    return code;
}

/// Takes the character of one unit, or of the two halves of UTF-16 for one above U+FFFF.
std::optional<uint32_t> take_character(std::string_view& rest) noexcept {
    constexpr uint32_t halves = 0x400;
    constexpr uint32_t first_high = 0xd800;
    constexpr uint32_t first_low = first_high + halves;
    const std::optional<uint32_t> high = take_unit(rest);
    if (!high || *high < first_high || *high >= first_low) return high;
    std::string_view behind = rest;
    const uint32_t low = take_unit(behind).value_or(0);
    if (low < first_low || low >= first_low + halves) return high;
    rest = behind;
    return 0x10000 + (*high - first_high) * halves + (low - first_low);
}

/// Takes a byte off the front of `rest`, which is not empty: "%XX", or a character as it stands.
char take_byte(std::string_view& rest) noexcept {
    const bool is_coded =
        rest[0] == '%' && rest.size() >= 3 && scan::hex_digit(rest[1]) >= 0 && scan::hex_digit(rest[2]) >= 0;
    const char c = is_coded ? static_cast<char>(scan::hex_digit(rest[1]) * 16 + scan::hex_digit(rest[2])) : rest[0];
    rest.remove_prefix(is_coded ? 3 : 1);
    return c;
}

/// Reads one character at the front of `rest`, which is not empty, as UTF-8. @return the bytes written, at most 4.
size_t decode_one(std::string_view& rest, char out[4]) noexcept {
    if (const std::optional<uint32_t> code = take_character(rest)) return utf8_encode(*code, out);
    const bool is_space = rest[0] == '+';
    out[0] = take_byte(rest);
    if (is_space) out[0] = ' ';
    return 1;
}

std::string_view range(const char* begin, const char* end) noexcept {
    return end ? std::string_view(begin, static_cast<size_t>(std::max(begin, end) - begin)) : begin;
}

/// Room for as many characters and the end.
core::owned_text room_for(size_t size, const char* file, int line) noexcept {
    return core::owned_text(static_cast<char*>(core_malloc(size + 1, file, line)));
}

/// A text whose bytes are coded where `is_coded` says so.
template <class IsCoded>
char* encode(const char* text, IsCoded is_coded, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const std::string_view bytes = text;
    const auto coded = static_cast<size_t>(std::ranges::count_if(bytes, is_coded));
    core::owned_text encoded = room_for(bytes.size() + 2 * coded, file, line);
    if (!encoded) return nullptr;
    char* out = encoded.get();
    for (const char c : bytes) {
        if (!is_coded(c)) {
            *out++ = c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        *out++ = '%';
        *out++ = hex_digits[byte >> 4];
        *out++ = hex_digits[byte & 15];
    }
    *out = '\0';
    return encoded.release();
}

bool stands_for_itself(char c) noexcept {
    constexpr std::string_view marks = "!'()*.~";
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           marks.find(c) != std::string_view::npos;
}

}  // namespace

uri_s* uri_parse(const char* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const std::optional<parts> found = split(text);
    uri_s* uri = found ? core::create<uri_s>(file, line) : nullptr;
    if (!uri) return nullptr;
    copier copy(file, line);
    uri->text = copy(text);
    uri->user = copy(found->user);
    uri->password = copy(found->password);
    uri->host = copy(found->host);
    uri->port = found->port;
    uri->path = copy(found->path);
    uri->query = copy(found->query);
    if (copy.complete()) return uri;
    uri_free(uri);
    return nullptr;
}

void uri_free(uri_s* uri) noexcept {
    if (!uri) return;
    for (char* text : {uri->text, uri->user, uri->password, uri->host, uri->path, uri->query})
        core_mfree(text);
    core::destroy(uri);
}

char* uri_get_subpath(const char* path, const char* prefix, char* out, int size) noexcept {
    if (!path || !prefix || !out || size < 1) return nullptr;
    const char* found = std::strstr(path, prefix);
    if (!found) return nullptr;
    const char* rest = found + std::strlen(prefix);
    if (*rest == '/') ++rest;
    return *rest ? fill(out, size, rest) : nullptr;
}

char* uri_subpath(const char* path, int index, char* out, int size) noexcept {
    if (!path || index < 0 || !out || size < 1) return nullptr;
    scan::pair segment = scan::split(path, '/');
    for (; index > 0 && segment.has_value; --index)
        segment = scan::split(segment.value, '/');
    return index == 0 ? fill(out, size, segment.key) : nullptr;
}

uri_arg_s** uri_parse_args(const char* query, const char* file, int line) noexcept {
    std::string_view rest = query ? scan::skip(query, "?") : std::string_view();
    void** args = nullptr;
    for (uint32_t count = 0; !rest.empty() && count < uri_max_args;) {
        const std::string_view text = scan::take(rest, '&');
        rest = scan::skip(rest, " &");
        if (text.size() > uri_max_arg) continue;
        uri_arg_s* arg = make_arg(text, file, line);
        args = core_array_add_at(args, count, arg, file, line);
        if (arg && args && args[count] == arg) {
            ++count;
            continue;
        }
        if (arg) free_arg(arg);
        uri_free_args(reinterpret_cast<uri_arg_s**>(args));
        return nullptr;
    }
    return reinterpret_cast<uri_arg_s**>(args);
}

void uri_free_args(uri_arg_s** args) noexcept {
    for (uri_arg_s** arg = args; arg && *arg; ++arg)
        free_arg(*arg);
    core_array_free(reinterpret_cast<void**>(args));
}

char* uri_decode(const char* begin, const char* end, const char* file, int line) noexcept {
    if (!begin) return nullptr;
    std::string_view rest = range(begin, end);
    core::owned_text decoded = room_for(rest.size(), file, line);
    if (!decoded) return nullptr;
    char* out = decoded.get();
    while (!rest.empty()) {
        char bytes[4];
        const size_t count = decode_one(rest, bytes);
        out = std::copy_n(bytes, count, out);
    }
    *out = '\0';
    return decoded.release();
}

char* uri_decode_part(const char* begin, const char* end, const char* file, int line) noexcept {
    if (!begin) return nullptr;
    std::string_view rest = range(begin, end);
    core::owned_text decoded = room_for(rest.size(), file, line);
    if (!decoded) return nullptr;
    char* out = decoded.get();
    while (!rest.empty())
        *out++ = take_byte(rest);
    *out = '\0';
    return decoded.release();
}

char* uri_encode(const char* text, const char* file, int line) noexcept {
    return encode(
        text, [](char c) { return !stands_for_itself(c); }, file, line);
}

char* uri_encode_rest(const char* text, const char* file, int line) noexcept {
    return encode(
        text, [](char c) { return static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) > 0x7e; }, file,
        line);
}

char* uri_encode_path(const char* text, const char* file, int line) noexcept {
    return encode(
        text,
        [](char c) {
            constexpr std::string_view plain = "/-._~!$&'()*+,;=:@";
            return !stands_for_itself(c) && plain.find(c) == std::string_view::npos;
        },
        file, line);
}

char* uri_resolve(const char* base, const char* reference, const char* file, int line) noexcept {
    if (!base || !reference || !std::strstr(base, "://")) return nullptr;
    return net::uri::resolve(base, reference, file, line).release();
}
