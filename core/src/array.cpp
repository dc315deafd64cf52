#include "core/array.h"

#include "core/memory.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>

namespace {

size_t joined_size(char* const* array, size_t separator) noexcept {
    size_t size = 0;
    for (char* const* text = array; *text; ++text)
        size += std::strlen(*text) + (text[1] ? separator : 0);
    return size;
}

char* append(char* out, const char* text, size_t size) noexcept {
    std::memcpy(out, text, size);
    return out + size;
}

/// Room grows geometrically. @return false, with the array as it was, when memory is out.
bool make_room(void**& array, size_t length, const char* file, int line) noexcept {
    const size_t places = core_mem_size(array) / sizeof(void*);
    if (length + 2 > places) {
        const size_t more = std::max<size_t>(4, places * 2);
        void* moved = core_realloc(array, more * sizeof(void*), file, line);
        if (!moved) return false;
        array = static_cast<void**>(moved);
    }
    return true;
}

}  // namespace

void** core_array_add(void** array, void* item, const char* file, int line) noexcept {
    return core_array_add_at(array, core_array_length(array), item, file, line);
}

void** core_array_add_at(void** array, uint32_t length, void* item, const char* file, int line) noexcept {
    if (!item || !make_room(array, length, file, line)) return array;
    array[length] = item;
    array[length + 1] = nullptr;
    return array;
}

void** core_array_rem(void** array, void* item, const char*, int) noexcept {
    if (!array || !item) return array;
    void** end = array + core_array_length(array);
    void** found = std::find(array, end, item);
    if (found != end) std::copy(found + 1, end + 1, found);
    if (*array) return array;
    core_array_free(array);
    return nullptr;
}

uint32_t core_array_length(void* const* array) noexcept {
    uint32_t length = 0;
    while (array && array[length])
        ++length;
    return length;
}

void core_array_free(void** array) noexcept { core_mfree(array); }

char* core_array_to_string(char* const* array, const char* file, int line) noexcept {
    return core_array_to_sstring(array, "", file, line);
}

char* core_array_to_sstring(char* const* array, const char* separator, const char* file, int line) noexcept {
    if (!array || !*array) return nullptr;
    const size_t between = core_strlen(separator);
    auto* result = static_cast<char*>(core_malloc(joined_size(array, between) + 1, file, line));
    if (!result) return nullptr;
    char* out = result;
    for (char* const* text = array; *text; ++text) {
        out = append(out, *text, std::strlen(*text));
        if (text[1] && between) out = append(out, separator, between);
    }
    *out = '\0';
    return result;
}
