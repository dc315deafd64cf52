#include "auth/grammar.h"

#include "scan.h"

#include <cstring>

namespace auth {

namespace {

bool is_token_character(char c) noexcept {
    constexpr std::string_view marks = "!#$%&'*+-.^_`|~";
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
           marks.find(c) != std::string_view::npos;
}

/// What may not stand in quotes; the end of the text is one of them.
bool is_control(char c) noexcept { return (c >= '\0' && c < ' ' && c != '\t') || c == '\x7f'; }

std::string_view between(const char* begin, const char* end) noexcept {
    return {begin, static_cast<size_t>(end - begin)};
}

}  // namespace

bool lists(std::string_view list, std::string_view name) noexcept {
    while (!list.empty()) {
        if (scan::same_name(scan::trim(scan::take(list, ','), blanks), name)) return true;
    }
    return false;
}

const char* end_of_quoted(const char* begin) noexcept {
    if (*begin != '"') return nullptr;
    for (const char* at = begin + 1;; ++at) {
        if (*at == '"') return at;
        if (*at == '\\') ++at;
        if (is_control(*at)) return nullptr;
    }
}

bool ends_element(const char* rest) noexcept {
    rest += std::strspn(rest, blanks.data());
    return *rest == '\0' || *rest == ',';
}

void reader::skip(std::string_view characters) noexcept {
    while (!ends() && characters.find(*at_) != std::string_view::npos)
        ++at_;
}

std::string_view reader::token() noexcept {
    const char* const begin = at_;
    while (is_token_character(*at_))
        ++at_;
    return between(begin, at_);
}

std::optional<std::string_view> reader::quoted() noexcept {
    const char* const end = end_of_quoted(at_);
    if (!end) return std::nullopt;
    const char* const begin = ++at_;
    char* out = at_;
    for (; at_ != end; ++at_) {
        if (*at_ == '\\') ++at_;
        *out++ = *at_;
    }
    ++at_;
    return between(begin, out);
}

std::string_view reader::rest_of_element() noexcept {
    const char* const begin = at_;
    at_ += std::strcspn(at_, ",");
    return scan::trim(between(begin, at_), blanks);
}

std::optional<parameter_t> reader::parameter() noexcept {
    parameter_t read{token(), {}};
    skip(blanks);
    if (read.name.empty() || *at_ != '=') return std::nullopt;
    ++at_;
    skip(blanks);
    if (*at_ != '"') {
        read.value = token();
        if (read.value.empty()) return std::nullopt;
        return read;
    }
    const std::optional<std::string_view> value = quoted();
    if (!value) return std::nullopt;
    read.value = *value;
    return read;
}

}  // namespace auth
