#include "core/template.h"

#include "core/memory.h"

#include <charconv>
#include <span>
#include <string_view>

namespace {

using namespace std::string_view_literals;

/// First entry of that name. Names in a template are no texts of their own, so param_find() does not serve.
const param_t* find(const param_t* params, std::string_view key) noexcept {
    for (; params && params->type != param_end; ++params)
        if (params->key && key == params->key) return params;
    return nullptr;
}

/// Text of an entry; `digits` holds that of an integer.
std::string_view value_text(const param_t* param, std::span<char> digits) noexcept {
    if (param && param->type == param_text && param->text) return param->text;
    if (!param || param->type != param_integer) return {};
    const char* end = std::to_chars(digits.data(), digits.data() + digits.size(), param->integer).ptr;
    return {digits.data(), static_cast<size_t>(end - digits.data())};
}

/// Hands the pieces of the finished text to `put`, in order.
template <class Put>
void expand(std::string_view rest, const param_t* params, Put put) noexcept {
    char digits[24];
    for (;;) {
        const size_t open = rest.find("${"sv);
        const size_t close = open == std::string_view::npos ? open : rest.find('}', open);
        // Without a "}" ahead no later place is whole either.
        if (close == std::string_view::npos) return put(rest);
        put(rest.substr(0, open));
        put(value_text(find(params, rest.substr(open + 2, close - open - 2)), digits));
        rest.remove_prefix(close + 1);
    }
}

}  // namespace

char* core_template_parse(const char* text, const param_t* params, const char* file, int line) noexcept {
    if (!text) return nullptr;
    size_t size = 0;
    expand(text, params, [&size](std::string_view piece) noexcept { size += piece.size(); });
    auto* result = static_cast<char*>(core_malloc(size + 1, file, line));
    if (!result) return nullptr;
    char* out = result;
    expand(text, params, [&out](std::string_view piece) noexcept { out += piece.copy(out, piece.size()); });
    *out = '\0';
    return result;
}
