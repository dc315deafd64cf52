// Fixed XML documents, and how they are filled with a caller's values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace soap {

/// A document as it is sent. In the source each element may have a line of its own. A line end and the blanks behind it
/// are one blank between the attributes of a tag; elsewhere they are left out.
template <size_t size>
struct document {
    constexpr document(const char (&source)[size]) noexcept {
        size_t length = 0;
        for (size_t at = 0; at + 1 < size; ++at) {
            if (source[at] != '\n') {
                text[length++] = source[at];
                continue;
            }
            while (source[at + 1] == ' ')
                ++at;
            const char before = length > 0 ? text[length - 1] : '>';
            const char behind = source[at + 1];
            if (before != '>' && before != '}' && behind != '<' && behind != '\0') text[length++] = ' ';
        }
    }
    constexpr operator const char*() const noexcept { return text; }

    char text[size] = {};
};

/// A piece of XML, filled in as it is.
struct xml {
    const char* text;
};

/// A value for the places of that name in a document. Texts are encoded; null is empty.
struct field {
    enum class kind_t : uint8_t { text, xml, number };

    constexpr field(const char* name, const char* value) noexcept : key(name), text(value), kind(kind_t::text) {}
    constexpr field(const char* name, xml value) noexcept : key(name), text(value.text), kind(kind_t::xml) {}
    constexpr field(const char* name, int64_t value) noexcept : key(name), number(value), kind(kind_t::number) {}

    const char* key;
    const char* text = nullptr;
    int64_t number = 0;
    kind_t kind;
};

inline constexpr size_t most_fields = 8;

/// @return a new text for core_mfree(); null when memory is out
char* fill(const char* document, std::initializer_list<field> fields, const char* file, int line) noexcept;

}  // namespace soap
