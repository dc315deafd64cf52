// JSON from any text: what was read stays within its bounds and, printed, reads as the same again. Any text can be
// encoded into a string.
#include "fuzz.h"

#include "core/json.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using fuzz::require;

std::string quoted(const char* text) {
    const core::owned_text encoded(core_json_encode(text, CORE_HERE));
    require(encoded || fuzz::starved);
    return '"' + std::string(encoded ? encoded.get() : "") + '"';
}

std::string print(const json_t& value);

std::string print_children(const json_t& value) {
    std::string out;
    for (uint32_t i = 0; i < value.count; ++i) {
        if (i > 0) out += ',';
        if (value.type == json_object) out += quoted(value.members[i].name) + ':';
        out += print(value.type == json_object ? value.members[i].value : value.items[i]);
    }
    return out;
}

std::string print(const json_t& value) {
    switch (value.type) {
        case json_number: {
            require(std::isfinite(value.number));
            if (value.is_integer) return std::to_string(value.integer);
            char text[32];
            std::snprintf(text, sizeof text, "%.17e", value.number);
            return text;
        }
        case json_string:
            require(value.text[value.length] == '\0');
            return quoted(value.text);
        case json_array:
            return '[' + print_children(value) + ']';
        case json_object:
            return '{' + print_children(value) + '}';
        case json_true:
            return "true";
        case json_false:
            return "false";
        case json_null:
            break;
    }
    return "null";
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    const std::string text = fuzz::text_of(input);
    char error[64];
    json_t* root = yajl_tree_parse(text.c_str(), error, sizeof(error));
    require((root != nullptr) == (error[0] == '\0'));
    if (root) {
        require(core_mem_size(root) <= 32 * text.size() + sizeof(json_t));
        const std::string printed = print(*root);
        yajl_tree_free(root);
        root = yajl_tree_parse(printed.c_str(), nullptr, 0);
        require((root && print(*root) == printed) || fuzz::starved);
        yajl_tree_free(root);
    }
    root = yajl_tree_parse(quoted(text.c_str()).c_str(), nullptr, 0);
    require((root && root->type == json_string) || fuzz::starved);
    yajl_tree_free(root);
}
