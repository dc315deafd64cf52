// Value lists, templates and UTF-8 from any text. The input's first line is split from the rest: it gives the
// separators, its last byte the pair separator.
#include "fuzz.h"

#include "core/template.h"
#include "core/value.h"

namespace {

bool is_trimmed(std::string_view text) {
    return text.find_first_not_of(" \t") == 0 && text.find_last_not_of(" \t") == text.size() - 1;
}

void split(const char* text, const char* separator, const char* pair_separator) {
    value_t** list = core_value_split(text, separator, pair_separator, CORE_HERE);
    size_t size = 0;
    for (value_t** pair = list; pair && *pair; ++pair) {
        const std::string_view key = (*pair)->key;
        require(key.empty() || is_trimmed(key));
        require(key.find_first_of(separator) == std::string_view::npos);
        require(key.find_first_of(pair_separator) == std::string_view::npos);
        size += key.size() + core_strlen((*pair)->value);
    }
    require(size <= std::strlen(text));
    require(fuzz::starved || !list || value_get(list, list[0]->key) == list[0]->value);
    core_value_free(list);
}

void fill(const char* text) {
    const param_t params[] = {{"a", "${b}"}, {"b", int64_t{-1}}, {"", "empty"}, {}};
    const core::owned_text filled(core_template_parse(text, params, CORE_HERE));
    const std::string_view plain = text;
    if (fuzz::starved) return;
    require(filled != nullptr);
    // Only a whole place changes a text.
    const size_t open = plain.find("${");
    if (open == std::string_view::npos || plain.find('}', open) == std::string_view::npos)
        require(plain == filled.get());
}

void widen(const char* text) {
    const core::owned<wchar_t> wide(core_wchar(text, CORE_HERE));
    const core::owned_text once(core_utf8(wide.get(), CORE_HERE));
    const core::owned<wchar_t> wide_again(core_wchar(once.get(), CORE_HERE));
    const core::owned_text twice(core_utf8(wide_again.get(), CORE_HERE));
    if (fuzz::starved) return;
    require(std::strcmp(once.get(), twice.get()) == 0);
    fuzz::require_utf8(once.get());
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string whole = fuzz::text_of(input);
    const size_t line_end = std::min(whole.find('\n'), whole.size());
    const std::string separators = whole.substr(0, line_end);
    const std::string text = line_end < whole.size() ? whole.substr(line_end + 1) : whole;
    split(text.c_str(), separators.c_str(), separators.empty() ? "" : separators.c_str() + separators.size() - 1);
    fill(text.c_str());
    widen(text.c_str());
}
