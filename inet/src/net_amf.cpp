#include "inet/net_amf.h"

#include "rtmp/amf.h"

#include "core/memory.h"
#include "core/text.h"

namespace {

using inet::rtmp::amf::input_t;
using inet::rtmp::amf::max_nesting;

bool skip(input_t& in, uint64_t bytes) noexcept {
    if (bytes > in.left()) return false;
    in.skip(static_cast<size_t>(bytes));
    return true;
}

bool walk_properties(input_t& in, uint32_t nesting) noexcept;

// Passes over a value with its marker.
bool walk_value(input_t& in, uint32_t nesting) noexcept {
    if (!in.has(1)) return false;
    switch (in.u8()) {
        case 0x00:
            return skip(in, 8);
        case 0x01:
            return skip(in, 1);
        case 0x02:
            return in.has(2) && skip(in, in.u16());
        case 0x03:
            return walk_properties(in, nesting + 1);
        case 0x05:
        case 0x06:
        case 0x0D:
            return true;
        case 0x08:
            return skip(in, 4) && walk_properties(in, nesting + 1);
        case 0x0B:
            return skip(in, 8 + 2);
        case 0x0C:
            return in.has(4) && skip(in, in.u32());
        default:
            return false;
    }
}

bool at_end(const input_t& in) noexcept { return in.peek() == 0 && in.peek(1) == 0 && in.peek(2) == 0x09; }

// Passes over properties and the end of their object. From a property that it does not know it goes on byte by byte to
// the next end.
bool walk_properties(input_t& in, uint32_t nesting) noexcept {
    if (nesting > max_nesting) return false;
    bool lost = false;
    while (in.has(3)) {
        if (at_end(in)) {
            in.skip(3);
            return true;
        }
        const input_t property = in;
        lost = lost || !(skip(in, in.u16()) && walk_value(in, nesting));
        if (!lost) continue;
        in = property;
        in.skip(1);
    }
    return false;
}

}  // namespace

namespace net {

int net_amf_read(const uint8_t* data, uint64_t length, amf_val*& out, const char* file, int line) noexcept {
    if (!data || length == 0) return 0;
    constexpr uint64_t most = INT32_MAX;  // what the result can tell
    input_t in({data, static_cast<size_t>(length < most ? length : most)});
    const uint8_t marker = in.u8();
    if (marker == 0x03) return walk_properties(in, 1) ? static_cast<int>(in.used()) : 0;
    if (marker != 0x02) return 1;

    std::string_view text;
    if (!in.has(2) || !in.text(in.u16(), text)) return 0;
    auto* const made = static_cast<amf_val*>(core_calloc(1, sizeof(amf_val), file, line));
    char* const copy = core_strndup(text.data(), text.size(), file, line);
    if (!made || !copy) {
        core_mfree(made);
        core_mfree(copy);
        return 0;
    }
    made->type = 2;
    made->value = copy;
    out = made;
    return static_cast<int>(in.used());
}

void net_amf_free(amf_val* value) noexcept {
    if (!value) return;
    core_mfree(value->name);
    if (value->type == 2) core_mfree(value->value);
    if (value->type == 3) {
        auto** const children = static_cast<amf_val**>(value->value);
        for (amf_val** child = children; child && *child; ++child)
            net_amf_free(*child);
        core_mfree(children);
    }
    core_mfree(value);
}

}  // namespace net
