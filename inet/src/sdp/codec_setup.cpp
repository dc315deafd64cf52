// The texts that set up a decoder: parameter sets in Base64, a configuration in hexadecimal.
#include "scan.h"

#include "common/digest.h"
#include "core/owned.h"
#include "inet/net_sdp.h"

#include <string_view>
#include <utility>

namespace {

struct owned_buf : buf_t {
    owned_buf() = default;
    owned_buf(const owned_buf&) = delete;
    owned_buf& operator=(const owned_buf&) = delete;
    ~owned_buf() { core_buf_free(this); }
};

/// Decodes Base64. @return false when memory is out.
bool decode(std::string_view text, buf_t& out, core::place where) noexcept {
    // With room made here, nothing of what follows can fail.
    const auto room = static_cast<uint32_t>(text.size() / 4 * 3 + 3);
    if (!core_buf_respace(&out, room, where.file, where.line)) return false;
    b64_decode(text.data(), text.size(), &out, where.file, where.line);
    return true;
}

/// @return false when the text has no ',' or memory is out.
bool decode_parameter_sets(const char* value, buf_t& sps, buf_t& pps, core::place where) noexcept {
    if (!value) return false;
    const scan::pair sets = scan::split(value, ',');
    return sets.has_value && decode(sets.key, sps, where) && decode(sets.value, pps, where);
}

/// Bytes of hexadecimal text, counted only when `out` is null.
uint32_t unhex(std::string_view text, uint8_t* out) noexcept {
    uint32_t count = 0;
    int high = -1;
    for (const char c : text) {
        const int digit = scan::hex_digit(c);
        if (digit < 0 && std::string_view(" \t\r\n").find(c) == std::string_view::npos) break;
        if (digit < 0) continue;
        if (high < 0) {
            high = digit;
            continue;
        }
        if (out) out[count] = static_cast<uint8_t>(high * 16 + digit);
        ++count;
        high = -1;
    }
    return count;
}

}  // namespace

void sdp_parse_sprop_parameter_sets(char* value, buf_t* out, const char* file, int line) noexcept {
    constexpr uint8_t start_code[] = {0, 0, 1};
    owned_buf sets[2];
    if (!out || !decode_parameter_sets(value, sets[0], sets[1], {file, line})) return;
    const uint32_t size = sets[0].length + sets[1].length + 2 * sizeof(start_code);
    if (out->size < size && !core_buf_resize(out, size, file, line)) return;
    out->length = 0;
    for (const buf_t& set : sets) {
        core_buf_read(out, start_code, sizeof(start_code));
        core_buf_read(out, set.data, set.length);
    }
}

void sdp_parse_config(const char* value, buf_t* out, const char* file, int line) noexcept {
    const uint32_t count = value ? unhex(value, nullptr) : 0;
    if (!out || count == 0 || !core_buf_resize(out, count, file, line)) return;
    out->length = unhex(value, out->data);
}

void net::sdp::Sdp::parse_sprop_parameter_sets(char* value, buffer_t& sps, buffer_t& pps) noexcept {
    owned_buf sets[2];
    if (!decode_parameter_sets(value, sets[0], sets[1], {CORE_HERE})) return;
    buffer_t new_sps;
    if (!core_buffer_set(&new_sps, sets[0].data, sets[0].length, CORE_HERE)) return;
    if (core_buffer_set(&pps, sets[1].data, sets[1].length, CORE_HERE)) std::swap(sps, new_sps);
    core_buffer_free(&new_sps);
}

void net::sdp::Sdp::parse_config(char* value, buffer_t& out) noexcept {
    const uint32_t count = value ? unhex(value, nullptr) : 0;
    if (count != 0 && buffer_resize(&out, count, CORE_HERE)) unhex(value, out.data);
}
