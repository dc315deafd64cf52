#include "uri/reference.h"

#include "core/text.h"

#include <algorithm>
#include <cstring>

namespace net::uri {

namespace {

bool is_letter(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool is_scheme(std::string_view text) noexcept {
    return !text.empty() && is_letter(text[0]) && std::ranges::all_of(text, [](char c) {
        return is_letter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
    });
}

/// Where the host of an absolute URI starts, and where it ends.
size_t host_start(std::string_view uri) noexcept { return uri.find("://") + 3; }
size_t host_end(std::string_view uri) noexcept {
    return std::min(uri.find_first_of("/?", host_start(uri)), uri.size());
}

core::owned_text join(std::string_view front, const char* between, std::string_view back, const char* file,
                      int line) noexcept {
    return core::owned_text(core_sprintf(file, line, "%.*s%s%.*s", static_cast<int>(front.size()), front.data(),
                                         between, static_cast<int>(back.size()), back.data()));
}

/// Takes "." and ".." out of the path of a URI, in place (RFC 3986, 5.2.4).
void remove_dots(char* uri) noexcept {
    char* const path = uri + host_end(uri);
    char* out = path;
    const char* in = path;
    while (*in == '/') {
        const size_t size = std::strcspn(in + 1, "/?");
        const std::string_view segment(in + 1, size);
        const bool last = in[1 + size] != '/';
        const bool up = segment == "..";
        if (up || segment == ".") {
            while (up && out != path && *--out != '/') {
            }
            if (last) *out++ = '/';
        } else {
            std::memmove(out, in, 1 + size);
            out += 1 + size;
        }
        in += 1 + size;
    }
    std::memmove(out, in, std::strlen(in) + 1);
}

}  // namespace

bool is_absolute(std::string_view uri) noexcept {
    const size_t mark = uri.find("://");
    return mark != std::string_view::npos && is_scheme(uri.substr(0, mark));
}

core::owned_text without_login(std::string_view uri, const char* file, int line) noexcept {
    const size_t at = uri.substr(0, host_end(uri)).rfind('@');
    const size_t host = host_start(uri);
    const bool has_login = at != std::string_view::npos && at >= host;
    return join(uri.substr(0, host), "", uri.substr(has_login ? at + 1 : host), file, line);
}

core::owned_text resolve(std::string_view base, std::string_view reference, const char* file, int line) noexcept {
    if (is_absolute(reference)) return join(reference, "", "", file, line);
    if (reference.starts_with("//")) return join(base.substr(0, base.find(':') + 1), "", reference, file, line);
    const std::string_view path = base.substr(0, base.find('?'));
    const size_t root = host_end(base);
    const size_t slash = path.rfind('/');
    const bool has_path = slash != std::string_view::npos && slash >= root;
    std::string_view front = path.substr(0, has_path ? slash + 1 : root);
    if (reference.starts_with('?')) front = path;
    if (reference.starts_with('/')) front = base.substr(0, root);
    const bool needs_slash = front.size() == root && !reference.starts_with('/') && !reference.starts_with('?');
    core::owned_text uri = join(front, needs_slash ? "/" : "", reference, file, line);
    if (uri) remove_dots(uri.get());
    return uri;
}

}  // namespace net::uri
