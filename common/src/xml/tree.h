// What a read document is made of, and how a text becomes one. Everything stands in the document's arena and ends with
// it.
#pragma once

#include "xml/arena.h"

#include "common/xml.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace common::xml {

struct attribute {
    const char* name;  ///< local
    const char* value;
    const char* uri;  ///< of its namespace; null for none. Equal URIs that are in force together are one text.
};

}  // namespace common::xml

struct node {
    const char* name;     ///< local name, a declaration's prefix; null for the document
    node* parent;         ///< of a declaration: the element that carries it
    node* space;          ///< declaration in force for the name; null for none
    const char* content;  ///< own text, a declaration's URI; null for none
    node** children;
    const common::xml::attribute* attributes;
    uint32_t content_length;
    uint32_t child_count;
    uint32_t attribute_count;
    uint32_t index;  ///< among the parent's children
};

namespace common::xml {

struct document : node {
    explicit document(size_t first_block) noexcept : node{}, memory(first_block) {}

    arena memory;
};

/// Why and where a text is refused.
struct refusal {
    const char* reason;
    size_t offset;
};

/// The prefixes that names may have: those that a declaration binds, or any. A name whose prefix is not bound is in no
/// namespace.
enum class prefixes { declared, any };

/// Reads a text into an empty document. Throws std::bad_alloc. @return false when it is refused.
bool read(std::string_view text, prefixes known, document* out, refusal* why);

}  // namespace common::xml
