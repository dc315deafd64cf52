#include "net_http/head.h"

#include "net_http_header/block.h"

#include <new>

namespace net::http {

namespace {

constexpr size_t usual_fields = 64;  // room for so many is kept

}  // namespace

head::head(const char* file, int line) noexcept
    : file_(file), line_(line), pairs_(core::place{file, line}), fields_(core::place{file, line}) {}

header_s* head::read(std::string_view start, std::string_view rest) noexcept {
    header_ = {};
    pairs_.clear();
    fields_.clear();
    if (pairs_.capacity() > usual_fields) {
        pairs_.shrink_to_fit();
        fields_.shrink_to_fit();
    }
    if (!copy(start, rest) || !cut_block(reinterpret_cast<char*>(text_.data), all_protocols, *this)) return nullptr;
    try {
        fields_.reserve(pairs_.size() + 1);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    for (value_t& each : pairs_)
        fields_.push_back(&each);
    fields_.push_back(nullptr);
    header_.fields = pairs_.empty() ? nullptr : fields_.data();
    return &header_;
}

bool head::copy(std::string_view start, std::string_view rest) noexcept {
    text_.length = 0;
    const auto size = static_cast<uint32_t>(start.size() + rest.size());
    if (!core_buf_respace(&text_, size + 1, file_, line_)) return false;
    char* end = reinterpret_cast<char*>(text_.data);
    for (const std::string_view each : {start, rest})
        end += each.copy(end, each.size());
    *end = '\0';
    return true;
}

bool head::status(uint32_t number) noexcept {
    header_.status = number;
    return true;
}

bool head::method(char* text) noexcept {
    header_.method = text;
    return true;
}

bool head::uri(char* text) noexcept {
    header_.uri = text;
    return true;
}

bool head::field(char* name, char* value) noexcept {
    if (pairs_.size() == http_max_fields) return true;
    try {
        pairs_.push_back({name, value});
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace net::http
