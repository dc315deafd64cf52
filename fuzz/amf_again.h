/// Values that are read, written and read again.
#pragma once

#include "fuzz.h"

#include "inet/rtmp_amf.h"
#include "inet/rtmp_tree.h"

namespace fuzz {

/// Whether every map in it can be written: none of a class, none with an empty name.
inline bool writable(const Variant& value) {
    return value.Type() != variant_typed_map && std::all_of(value.begin(), value.end(), [](const auto& entry) {
               return (entry.IsIndex() || !entry.Key().empty()) && writable(entry.value);
           });
}

template <class Serializer>
bool copy(const Variant& from, Variant& to) {
    IOBuffer bytes;
    Serializer serializer;
    const bool good = serializer.Write(bytes, from) && serializer.Read(bytes, to);
    if (good) require(bytes.Size() == 0);
    return good;
}

template <class Serializer>
void again(std::span<const uint8_t> input) {
    IOBuffer bytes;
    if (!bytes.ReadFromBuffer(input.data(), static_cast<uint32_t>(input.size()))) return;
    Serializer serializer;
    Variant value;
    while (bytes.Size() > 0 && serializer.Read(bytes, value)) {
        Variant second, third;
        if (!writable(value)) continue;
        const bool good = copy<Serializer>(value, second) && copy<Serializer>(second, third);
        if (starved) return;
        // A reference may stand for more than can be written out.
        if (input.size() < 1024) require(good);
        const bool prefixed = text_of(input).find("__index__value__") != std::string::npos;
        if (good && !prefixed) require(test::tree(second) == test::tree(third));
    }
}

}  // namespace fuzz
