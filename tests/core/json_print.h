// A tree of JSON as text again: members and items in order, numbers as they are held.
#pragma once

#include "core/json.h"
#include "core/owned.h"

#include <cstdio>
#include <string>

namespace test {

inline std::string quoted(const char* text) {
    const core::owned_text encoded(core_json_encode(text, CORE_HERE));
    return '"' + std::string(encoded ? encoded.get() : "") + '"';
}

inline std::string print(const json_t& value) {
    constexpr const char* literals[] = {"null", "false", "true"};
    char number[32];
    std::snprintf(number, sizeof number, "%.17e", value.number);
    if (value.type == json_number) return value.is_integer ? std::to_string(value.integer) : number;
    if (value.type == json_string) return value.text[value.length] == '\0' ? quoted(value.text) : "no end";
    if (value.type != json_array && value.type != json_object) return literals[value.type];
    std::string out;
    for (uint32_t i = 0; i < value.count; ++i) {
        if (i > 0) out += ',';
        if (value.type == json_object) out += quoted(value.members[i].name) + ':';
        out += print(value.type == json_object ? value.members[i].value : value.items[i]);
    }
    return value.type == json_array ? '[' + out + ']' : '{' + out + '}';
}

}  // namespace test
