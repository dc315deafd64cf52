#include "core/value.h"

#include "core/array.h"
#include "core/memory.h"
#include "core/text.h"

#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

constexpr std::string_view blanks = " \t";

std::string_view trim(std::string_view text) noexcept {
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

char* place_text(char* out, std::string_view text) noexcept {
    out[text.copy(out, text.size())] = '\0';
    return out;
}

/// A pair is one block: the record and behind it both texts.
value_t* make_pair(std::string_view key, const std::string_view* value, const char* file, int line) noexcept {
    const size_t texts = key.size() + 1 + (value ? value->size() + 1 : 0);
    void* block = core_malloc(sizeof(value_t) + texts, file, line);
    if (!block) return nullptr;
    auto* pair = static_cast<value_t*>(block);
    auto* out = reinterpret_cast<char*>(pair + 1);
    pair->key = place_text(out, key);
    pair->value = value ? place_text(out + key.size() + 1, *value) : nullptr;
    return pair;
}

value_t* make_pair(const char* key, const char* value, const char* file, int line) noexcept {
    const std::string_view text = value ? std::string_view(value) : std::string_view();
    return make_pair(std::string_view(key), value ? &text : nullptr, file, line);
}

/// Pair of one piece of a split text.
value_t* split_pair(std::string_view piece, std::string_view pair_separator, const char* file, int line) noexcept {
    const size_t at = piece.find_first_of(pair_separator);
    if (at == std::string_view::npos) return make_pair(piece, nullptr, file, line);
    const std::string_view value = trim(piece.substr(at + 1));
    return make_pair(trim(piece.substr(0, at)), &value, file, line);
}

/// Takes the piece before the next separator off the front of `rest`, without the blanks around it.
std::string_view next_piece(std::string_view& rest, std::string_view separator) noexcept {
    const size_t end = rest.find_first_of(separator);
    const std::string_view piece = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return trim(piece);
}

size_t count_pieces(std::string_view text, std::string_view separator) noexcept {
    size_t pieces = 0;
    while (!text.empty())
        if (!next_piece(text, separator).empty()) ++pieces;
    return pieces;
}

value_t** append(value_t** list, uint32_t count, value_t* pair, const char* file, int line) noexcept {
    if (!pair) return list;
    list = reinterpret_cast<value_t**>(core_array_add_at(reinterpret_cast<void**>(list), count, pair, file, line));
    if (!list || list[count] != pair) core_mfree(pair);
    return list;
}

using compare_t = int (*)(const char* a, const char* b) noexcept;

int compare_exact(const char* a, const char* b) noexcept { return std::strcmp(a, b); }

/// Place of the first pair with that key, or null.
value_t* const* find(value_t* const* list, const char* key, compare_t compare) noexcept {
    if (!list || !key) return nullptr;
    for (; *list; ++list)
        if (compare((*list)->key, key) == 0) return list;
    return nullptr;
}

const char* find_text(value_t* const* list, const char* key, compare_t compare) noexcept {
    value_t* const* found = find(list, key, compare);
    return found ? (*found)->value : nullptr;
}

template <class Number>
Number find_number(value_t* const* list, const char* key, compare_t compare) noexcept {
    const char* text = find_text(list, key, compare);
    const std::string_view digits = text ? trim(text) : std::string_view();
    Number number = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return result.ec == std::errc() ? number : 0;
}

}  // namespace

value_t** core_value_put(value_t** list, const char* key, const char* value, const char* file, int line) noexcept {
    return core_value_put_at(list, value_count(list), key, value, file, line);
}

value_t** core_value_put_at(value_t** list, uint32_t count, const char* key, const char* value, const char* file,
                            int line) noexcept {
    return key ? append(list, count, make_pair(key, value, file, line), file, line) : list;
}

value_t** core_value_set(value_t** list, const char* key, const char* value, const char* file, int line) noexcept {
    value_t* const* found = find(list, key, compare_exact);
    if (!found) return core_value_put(list, key, value, file, line);
    value_t* pair = make_pair(key, value, file, line);
    if (pair) core_mfree(std::exchange(list[found - list], pair));
    return list;
}

value_t** core_value_split(const char* text, const char* separator, const char* pair_separator, const char* file,
                           int line) noexcept {
    if (!text) return nullptr;
    const std::string_view ends = separator ? separator : "";
    const std::string_view pair_ends = pair_separator ? pair_separator : "";
    const size_t pieces = count_pieces(text, ends);
    if (pieces == 0) return nullptr;
    auto** list = static_cast<value_t**>(core_calloc(pieces + 1, sizeof(void*), file, line));
    value_t** next = list;
    for (std::string_view rest = text; list && !rest.empty();) {
        const std::string_view piece = next_piece(rest, ends);
        if (piece.empty()) continue;
        *next = split_pair(piece, pair_ends, file, line);
        if (*next++) continue;
        core_value_free(list);
        return nullptr;
    }
    return list;
}

const char* value_get(value_t* const* list, const char* key) noexcept { return find_text(list, key, compare_exact); }

const char* value_geti(value_t* const* list, const char* key) noexcept { return find_text(list, key, core_strcasecmp); }

uint32_t value_get_uint32(value_t* const* list, const char* key) noexcept {
    return find_number<uint32_t>(list, key, compare_exact);
}

uint32_t value_geti_uint32(value_t* const* list, const char* key) noexcept {
    return find_number<uint32_t>(list, key, core_strcasecmp);
}

uint64_t value_geti_uint64(value_t* const* list, const char* key) noexcept {
    return find_number<uint64_t>(list, key, core_strcasecmp);
}

uint32_t value_count(value_t* const* list) noexcept { return core_array_length(reinterpret_cast<void* const*>(list)); }

void core_value_free(value_t** list) noexcept {
    for (value_t** pair = list; pair && *pair; ++pair)
        core_mfree(*pair);
    core_mfree(list);
}
