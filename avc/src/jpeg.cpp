#include "avc/jpeg.h"

#include "writer.h"

#include <algorithm>

namespace {

using bytes = std::span<const uint8_t>;

enum marker : uint8_t {
    sof0 = 0xc0,
    sof2 = 0xc2,
    dht = 0xc4,
    jpg = 0xc8,
    dac = 0xcc,
    rst0 = 0xd0,
    soi = 0xd8,
    eoi = 0xd9,
    sos = 0xda,
    dqt = 0xdb,
    dri = 0xdd,
    tem = 0x01,
};

uint32_t get16(bytes data, size_t at) noexcept { return static_cast<uint32_t>(data[at] << 8 | data[at + 1]); }

/// Markers without a segment behind them (T.81, B.1.1.3).
bool stands_alone(uint8_t code) noexcept { return code == tem || (code >= rst0 && code <= soi); }

/// SOF0..SOF15; three codes of the range mean something else (T.81, table B.1).
bool is_frame_header(uint8_t code) noexcept {
    return code >= sof0 && code <= 0xcf && code != dht && code != jpg && code != dac;
}

/// SOF2, 6, 10 and 14.
bool is_progressive(uint8_t code) noexcept { return (code & 3U) == (sof2 & 3U); }

struct segment {
    uint8_t code;
    bytes content;  ///< behind the length field
};

/// Takes the next marker and its segment off the front, passing over fill bytes and what is no marker.
/// @return false at the end of the data or when a segment is cut short.
bool next_segment(bytes& data, segment& out) noexcept {
    auto at = std::ranges::find(data, uint8_t{0xff});
    while (at != data.end() && *at == 0xff)
        ++at;
    if (at == data.end()) return false;
    out = {*at, {}};
    data = data.subspan(static_cast<size_t>(at - data.begin()) + 1);
    if (stands_alone(out.code) || out.code == 0 || out.code == eoi) return true;
    const size_t length = data.size() < 2 ? 0 : get16(data, 0);
    if (length < 2 || length > data.size()) return false;
    out.content = data.subspan(2, length - 2);
    data = data.subspan(length);
    return true;
}

/// T.81, B.2.2. A height that only comes behind the scan (DNL) is not taken.
bool read_frame_header(const segment& in, jpeg_info_t& info) noexcept {
    constexpr size_t fixed = 6;
    constexpr size_t per_component = 3;
    if (in.content.size() < fixed) return false;
    info.height = get16(in.content, 1);
    info.width = get16(in.content, 3);
    info.components = in.content[5];
    info.progressive = is_progressive(in.code);
    if (in.content.size() < fixed + per_component * info.components) return false;
    for (size_t i = 0; i < std::min<size_t>(info.components, std::size(info.sampling)); ++i)
        info.sampling[i] = in.content[fixed + per_component * i + 1];
    return info.width > 0 && info.height > 0 && info.components > 0;
}

// The standard Huffman tables (T.81, K.3): number of codes of each length 1..16, then the values.
constexpr uint8_t luma_dc[] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0,  0, 0, 0, 0, 0,  //
                               0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};

constexpr uint8_t chroma_dc[] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1,  0, 0, 0, 0, 0,  //
                                 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};

constexpr uint8_t luma_ac[] = {
    0,    2,    1,    3,    3,    2,    4,    3,    5,    5,    4,    4,    0,    0,    1,    0x7d,  //
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

constexpr uint8_t chroma_ac[] = {
    0,    2,    1,    2,    4,    4,    3,    4,    7,    5,    4,    4,    0,    1,    2,    0x77,  //
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

// The example quantisation tables (T.81, K.1 and K.2), row by row.
constexpr uint8_t luma_quantisers[64] = {
    16, 11, 10, 16, 24,  40,  51,  61,   //
    12, 12, 14, 19, 26,  58,  60,  55,   //
    14, 13, 16, 24, 40,  57,  69,  56,   //
    14, 17, 22, 29, 51,  87,  80,  62,   //
    18, 22, 37, 56, 68,  109, 103, 77,   //
    24, 35, 55, 64, 81,  104, 113, 92,   //
    49, 64, 78, 87, 103, 121, 120, 101,  //
    72, 92, 95, 98, 112, 100, 103, 99,
};

constexpr uint8_t chroma_quantisers[64] = {
    17, 18, 24, 47, 99, 99, 99, 99,  //
    18, 21, 26, 66, 99, 99, 99, 99,  //
    24, 26, 56, 99, 99, 99, 99, 99,  //
    47, 66, 99, 99, 99, 99, 99, 99,  //
    99, 99, 99, 99, 99, 99, 99, 99,  //
    99, 99, 99, 99, 99, 99, 99, 99,  //
    99, 99, 99, 99, 99, 99, 99, 99,  //
    99, 99, 99, 99, 99, 99, 99, 99,
};

/// Row-by-row place of each coefficient in zigzag order (T.81, figure 5).
constexpr uint8_t zigzag[64] = {
    0,  1,  8,  16, 9,  2,  3,  10,  //
    17, 24, 32, 25, 18, 11, 4,  5,   //
    12, 19, 26, 33, 40, 48, 41, 34,  //
    27, 20, 13, 6,  7,  14, 21, 28,  //
    35, 42, 49, 56, 57, 50, 43, 36,  //
    29, 22, 15, 23, 30, 37, 44, 51,  //
    58, 59, 52, 45, 38, 31, 39, 46,  //
    53, 60, 61, 54, 47, 55, 62, 63,
};

constexpr size_t table_size = 64;
constexpr uint32_t components = 3;

/// Marker and length of a segment with `size` bytes of content.
void begin_segment(av::writer& out, marker code, size_t size) noexcept {
    out.u8(0xff);
    out.u8(code);
    out.u16(static_cast<uint32_t>(size + 2));
}

void write_quantisation(av::writer& out, uint32_t id, bytes table) noexcept {
    begin_segment(out, dqt, 1 + table.size());
    out.u8(id);
    out.bytes(table);
}

void write_huffman(av::writer& out, uint32_t class_and_id, bytes table) noexcept {
    begin_segment(out, dht, 1 + table.size());
    out.u8(class_and_id);
    out.bytes(table);
}

void write_frame_header(av::writer& out, uint32_t width, uint32_t height, uint8_t luma_sampling) noexcept {
    begin_segment(out, sof0, 6 + 3 * components);
    out.u8(8);  // bits of a sample
    out.u16(height);
    out.u16(width);
    out.u8(components);
    for (uint32_t i = 0; i < components; ++i) {
        out.u8(i);
        out.u8(i == 0 ? luma_sampling : 0x11);
        out.u8(i == 0 ? 0 : 1);  // quantisation table
    }
}

void write_scan_header(av::writer& out) noexcept {
    begin_segment(out, sos, 4 + 2 * components);
    out.u8(components);
    for (uint32_t i = 0; i < components; ++i) {
        out.u8(i);
        out.u8(i == 0 ? 0x00 : 0x11);  // Huffman tables, DC and AC
    }
    out.u8(0);
    out.u8(63);
    out.u8(0);
}

/// One coefficient of a table scaled for Q (RFC 2435, 4.2: 50 leaves it as it is).
uint8_t scaled(uint32_t value, uint32_t q) noexcept {
    const uint32_t percent = q < 50 ? 5000 / q : 200 - 2 * q;
    return static_cast<uint8_t>(std::clamp((value * percent + 50) / 100, 1U, 255U));
}

}  // namespace

int jpeg_inspect(std::span<const uint8_t> data, jpeg_info_t* out) noexcept {
    if (!out || data.size() < 2 || data[0] != 0xff || data[1] != soi) return 0;
    jpeg_info_t info{};
    bool found = false;
    data = data.subspan(2);
    for (segment in{}; next_segment(data, in) && in.code != sos && in.code != eoi;) {
        if (in.code == dri && in.content.size() >= 2) info.restart_interval = get16(in.content, 0);
        if (found || !is_frame_header(in.code)) continue;
        if (!read_frame_header(in, info)) return 0;
        found = true;
    }
    if (found) *out = info;
    return found;
}

uint32_t jpeg_rtp_header(buf_t* out, uint32_t type, uint32_t width, uint32_t height, uint32_t restart,
                         std::span<const uint8_t> tables, const char* file, int line) noexcept {
    constexpr uint8_t luma_samplings[] = {0x21, 0x22};
    constexpr uint32_t longest = 0xffff;
    if (!out || type >= std::size(luma_samplings) || tables.size() < table_size || restart > longest) return 0;
    if (width == 0 || width > longest || height == 0 || height > longest) return 0;
    const bytes luma = tables.first(table_size);
    const bytes chroma = tables.size() < 2 * table_size ? luma : tables.subspan(table_size, table_size);

    av::writer header(out, file, line);
    header.reserve(1024);
    header.u16(0xff00U | soi);
    write_quantisation(header, 0, luma);
    write_quantisation(header, 1, chroma);
    if (restart > 0) {
        begin_segment(header, dri, 2);
        header.u16(restart);
    }
    write_frame_header(header, width, height, luma_samplings[type]);
    write_huffman(header, 0x00, luma_dc);
    write_huffman(header, 0x10, luma_ac);
    write_huffman(header, 0x01, chroma_dc);
    write_huffman(header, 0x11, chroma_ac);
    write_scan_header(header);
    return header.commit();
}

int jpeg_rtp_tables(uint32_t q, uint8_t out[128]) noexcept {
    if (!out || q < 1 || q > 99) return 0;
    for (size_t i = 0; i < table_size; ++i) {
        out[i] = scaled(luma_quantisers[zigzag[i]], q);
        out[table_size + i] = scaled(chroma_quantisers[zigzag[i]], q);
    }
    return 1;
}
