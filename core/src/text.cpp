#include "core/text.h"

#include "core/memory.h"
#include "core/owned.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

constexpr uint32_t replacement = 0xfffd;
constexpr uint32_t last_code = 0x10ffff;

constexpr bool is_surrogate(uint32_t code) noexcept { return code >= 0xd800 && code <= 0xdfff; }
[[maybe_unused]] constexpr bool is_high_surrogate(uint32_t code) noexcept { return code >= 0xd800 && code <= 0xdbff; }
[[maybe_unused]] constexpr bool is_low_surrogate(uint32_t code) noexcept { return code >= 0xdc00 && code <= 0xdfff; }

/// Lower case of A-Z, as a byte's value.
constexpr int fold(char c) noexcept {
    return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c);
}

/// A unit of wide text without the sign that wchar_t has on some systems.
uint32_t wide_unit(wchar_t unit) noexcept { return static_cast<std::make_unsigned_t<wchar_t>>(unit); }

/// Next character of wide text, surrogate pairs joined.
uint32_t wide_decode(const wchar_t*& text) noexcept {
    const uint32_t unit = wide_unit(*text++);
    if constexpr (sizeof(wchar_t) == 2) {
        if (is_high_surrogate(unit) && is_low_surrogate(wide_unit(*text)))
            return 0x10000 + ((unit - 0xd800) << 10) + (wide_unit(*text++) - 0xdc00);
    }
    return unit > last_code || is_surrogate(unit) ? replacement : unit;
}

/// Writes a character as wide text unless `out` is null. @return the units it takes.
size_t wide_encode(uint32_t code, wchar_t* out) noexcept {
    if constexpr (sizeof(wchar_t) == 2) {
        if (code > 0xffff) {
            if (out) out[0] = static_cast<wchar_t>(0xd800 + ((code - 0x10000) >> 10));
            if (out) out[1] = static_cast<wchar_t>(0xdc00 + ((code - 0x10000) & 0x3ff));
            return 2;
        }
    }
    if (out) *out = static_cast<wchar_t>(code);
    return 1;
}

/// UTF-8 of wide text without a terminator, counted only when `out` is null.
size_t narrow(const wchar_t* text, char* out) noexcept {
    size_t size = 0;
    while (*text) {
        char bytes[4];
        const size_t n = utf8_encode(wide_decode(text), bytes);
        if (out) std::memcpy(out + size, bytes, n);
        size += n;
    }
    return size;
}

/// Wide text of UTF-8 without a terminator, counted only when `out` is null.
size_t widen(const char* text, size_t size, wchar_t* out) noexcept {
    size_t units = 0;
    while (size > 0) {
        uint32_t code = replacement;
        const size_t read = utf8_decode(text, size, &code);
        const size_t used = read ? read : 1;
        text += used;
        size -= used;
        units += wide_encode(code, out ? out + units : nullptr);
    }
    return units;
}

char* copy(const char* text, size_t size, const char* file, int line) noexcept {
    auto* result = static_cast<char*>(core_malloc(size + 1, file, line));
    if (!result) return nullptr;
    std::memcpy(result, text, size);
    result[size] = '\0';
    return result;
}

/// How a first byte of UTF-8 goes on (RFC 3629, section 4). The second byte's range keeps out overlong forms,
/// surrogates and what lies past U+10FFFF; those after it are 80 to BF.
struct lead_t {
    uint8_t first, last;
    uint8_t size;
    uint8_t second_first, second_last;
};

constexpr lead_t leads[] = {
    {0x00, 0x7f, 1, 0, 0},       {0xc2, 0xdf, 2, 0x80, 0xbf}, {0xe0, 0xe0, 3, 0xa0, 0xbf},
    {0xe1, 0xec, 3, 0x80, 0xbf}, {0xed, 0xed, 3, 0x80, 0x9f}, {0xee, 0xef, 3, 0x80, 0xbf},
    {0xf0, 0xf0, 4, 0x90, 0xbf}, {0xf1, 0xf3, 4, 0x80, 0xbf}, {0xf4, 0xf4, 4, 0x80, 0x8f},
};

const lead_t* find_lead(uint8_t byte) noexcept {
    for (const lead_t& lead : leads)
        if (byte >= lead.first && byte <= lead.last) return &lead;
    return nullptr;
}

}  // namespace

char* core_strdup(const char* text, const char* file, int line) noexcept {
    return text ? copy(text, std::strlen(text), file, line) : nullptr;
}

char* core_strndup(const char* text, size_t n, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const void* end = std::memchr(text, '\0', n);
    return copy(text, end ? static_cast<size_t>(static_cast<const char*>(end) - text) : n, file, line);
}

char* core_sprintf(const char* file, int line, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    char* text = core_vsprintf(file, line, format, args);
    va_end(args);
    return text;
}

char* core_vsprintf(const char* file, int line, const char* format, va_list args) noexcept {
    if (!format) return nullptr;
    // Most texts are short: they are formatted once.
    char small[256];
    va_list again;
    va_copy(again, args);
    const int needed = std::vsnprintf(small, sizeof(small), format, args);
    const size_t size = static_cast<size_t>(needed < 0 ? 0 : needed) + 1;
    char* text = needed < 0 ? nullptr : static_cast<char*>(core_malloc(size, file, line));
    if (text && size <= sizeof(small)) {
        std::memcpy(text, small, size);
    } else if (text && std::vsnprintf(text, size, format, again) != needed) {
        core_mfree(text);
        text = nullptr;
    }
    va_end(again);
    return text;
}

int core_strcasecmp(const char* a, const char* b) noexcept { return core_strncasecmp(a, b, SIZE_MAX); }

int core_strncasecmp(const char* a, const char* b, size_t n) noexcept {
    if (!a || !b) return (a != nullptr) - (b != nullptr);
    for (size_t i = 0; i < n; ++i) {
        const int difference = fold(a[i]) - fold(b[i]);
        if (difference != 0 || a[i] == '\0') return difference;
    }
    return 0;
}

size_t core_strlen(const char* text) noexcept { return text ? std::strlen(text) : 0; }

char* core_strhex(const void* data, size_t size, const char* file, int line) noexcept {
    if (!data || size > (SIZE_MAX - 1) / 2) return nullptr;
    auto* text = static_cast<char*>(core_malloc(size * 2 + 1, file, line));
    if (!text) return nullptr;
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < size; ++i) {
        text[2 * i] = "0123456789abcdef"[bytes[i] >> 4];
        text[2 * i + 1] = "0123456789abcdef"[bytes[i] & 15];
    }
    text[size * 2] = '\0';
    return text;
}

size_t utf8_decode(const char* text, size_t size, uint32_t* code) noexcept {
    const auto* bytes = reinterpret_cast<const uint8_t*>(text);
    const lead_t* lead = size > 0 ? find_lead(bytes[0]) : nullptr;
    if (!lead || lead->size > size) return 0;
    uint32_t value = lead->size == 1 ? bytes[0] : bytes[0] & (0x7fu >> lead->size);
    for (size_t i = 1; i < lead->size; ++i) {
        const uint8_t lowest = i == 1 ? lead->second_first : 0x80;
        const uint8_t highest = i == 1 ? lead->second_last : 0xbf;
        if (bytes[i] < lowest || bytes[i] > highest) return 0;
        value = value << 6 | (bytes[i] & 0x3f);
    }
    *code = value;
    return lead->size;
}

size_t utf8_encode(uint32_t code, char out[4]) noexcept {
    if (code > last_code || is_surrogate(code)) code = replacement;
    if (code < 0x80) {
        out[0] = static_cast<char>(code);
        return 1;
    }
    const size_t size = code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    for (size_t i = size - 1; i > 0; --i) {
        out[i] = static_cast<char>(0x80 | (code & 0x3f));
        code >>= 6;
    }
    out[0] = static_cast<char>((0xf00u >> size & 0xff) | code);
    return size;
}

char* core_utf8(const wchar_t* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const size_t size = narrow(text, nullptr);
    auto* result = static_cast<char*>(core_malloc(size + 1, file, line));
    if (!result) return nullptr;
    narrow(text, result);
    result[size] = '\0';
    return result;
}

wchar_t* core_wchar(const char* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const size_t size = std::strlen(text);
    const size_t units = widen(text, size, nullptr);
    if (units >= SIZE_MAX / sizeof(wchar_t)) return nullptr;
    auto* result = static_cast<wchar_t*>(core_malloc((units + 1) * sizeof(wchar_t), file, line));
    if (!result) return nullptr;
    widen(text, size, result);
    result[units] = L'\0';
    return result;
}
