#include "rtsp/tidy.h"

#include "scan.h"

#include "core/memory.h"

#include <algorithm>

namespace rtsp3 {

namespace {

constexpr std::string_view blanks = " \t\v\f";

std::string_view trim(std::string_view text) noexcept { return scan::trim(text, blanks); }

/// Takes the next word off the front; empty when there is none.
std::string_view take_word(std::string_view& rest) noexcept {
    rest = scan::skip(rest, blanks);
    const std::string_view word = rest.substr(0, rest.find_first_of(blanks));
    rest.remove_prefix(word.size());
    return word;
}

/// Writes lines into room that is known to be there: a tidied line is at most one character longer than it was.
class writer {
public:
    explicit writer(char* out) noexcept : out_(out) {}

    void line(std::string_view line) noexcept {
        line = trim(line);
        if (line.empty()) return;
        if (line.size() < 2 || line[1] != '=') {
            put(line);
        } else {
            put(line.substr(0, 2));
            value(line[0], trim(line.substr(2)));
        }
        put("\r\n");
    }
    void end() noexcept { *out_ = '\0'; }

private:
    void value(char type, std::string_view text) noexcept {
        if (type == 'm' || type == 'c') return words(text);
        if (type != 'a') return put(text);
        const scan::pair attribute = scan::split(text, ':');
        if (!attribute.has_value) return put(text);
        put_small(trim(attribute.key));
        put(":");
        std::string_view rest = trim(attribute.value);
        const bool is_map = scan::same_name(trim(attribute.key), "rtpmap");
        if (!is_map && !scan::same_name(trim(attribute.key), "fmtp")) return put(rest);
        put(take_word(rest));
        rest = trim(rest);
        if (!rest.empty()) put(" ");
        if (!is_map) return parameters(rest);
        for (std::string_view word = take_word(rest); !word.empty(); word = take_word(rest))
            put(word);
    }

    void words(std::string_view text) noexcept {
        std::string_view word = take_word(text);
        put(word);
        while (!(word = take_word(text)).empty()) {
            put(" ");
            put(word);
        }
    }

    void parameters(std::string_view text) noexcept {
        for (std::string_view between; !text.empty();) {
            const std::string_view element = trim(scan::take(text, ';'));
            if (element.empty()) continue;
            const scan::pair parameter = scan::split(element, '=');
            put(between);
            put_small(trim(parameter.key));
            if (parameter.has_value) put("=");
            put(trim(parameter.value));
            between = ";";
        }
    }

    void put(std::string_view text) noexcept { out_ += text.copy(out_, text.size()); }
    void put_small(std::string_view text) noexcept {
        out_ = std::ranges::transform(text, out_, [](char c) {
                   return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
               }).out;
    }

    char* out_;
};

}  // namespace

core::owned_text tidy(std::string_view text, std::string_view* control, const char* file, int line) noexcept {
    *control = {};
    text = text.substr(0, text.find('\0'));
    core::owned_text tidied(static_cast<char*>(core_malloc(2 * text.size() + 4, file, line)));
    if (!tidied) return tidied;
    writer out(tidied.get());
    bool of_session = true;
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of("\r\n"), text.size());
        const std::string_view each = trim(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        out.line(each);
        of_session = of_session && !each.starts_with("m=");
        if (!of_session || !each.starts_with("a=")) continue;
        const scan::pair attribute = scan::split(each.substr(2), ':');
        if (scan::same_name(trim(attribute.key), "control")) *control = trim(attribute.value);
    }
    out.end();
    return tidied;
}

}  // namespace rtsp3
