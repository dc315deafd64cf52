// From text to tree.
#pragma once

#include "xml/tree.h"

#include <string_view>

namespace common::xml {

/// Why and where a text is refused.
struct refusal {
    const char* reason;
    size_t offset;
};

/// Reads a text into an empty document. Throws std::bad_alloc. @return false when it is refused.
bool read(std::string_view text, document* out, refusal* why);

}  // namespace common::xml
