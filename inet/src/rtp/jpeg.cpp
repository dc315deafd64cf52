// JPEG (RFC 2435) both ways, and whole files in a header extension for pictures that its header cannot describe.
#include "avc/jpeg.h"

#include "rtp/depacketizer.h"
#include "rtp/packetizer.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace rtp {

// What stands before the piece of the scan in every packet (RFC 2435, 3.1 and 3.1.7).
struct jpeg_header_t {
    uint32_t offset;
    uint8_t type;
    uint8_t q;
    uint32_t width, height;
    uint16_t restart;
};

}  // namespace rtp

namespace {

using bytes_t = std::span<const uint8_t>;
using rtp::get16;

constexpr uint32_t max_side = 2040;  // 255 blocks of 8
constexpr size_t table_size = 64;
constexpr uint8_t q_in_band = 255;
constexpr uint8_t restart_types = 64;

constexpr uint32_t large_header_size = rtp::header_size + 6;
constexpr size_t large_piece = 1372;
constexpr size_t large_last_piece = 1373;

constexpr uint8_t sof0 = 0xC0;
constexpr uint8_t sos = 0xDA;
constexpr uint8_t dqt = 0xDB;
constexpr uint8_t dri = 0xDD;

struct segment_t {
    uint8_t marker;
    bytes_t body;  // behind the length
};

// What RFC 2435 sends of a picture.
struct picture_t {
    bytes_t scan;
    bytes_t luma, chroma;  // quantisation tables, empty when not found
    uint8_t type = 0;
    uint8_t width = 0, height = 0;  // in blocks of 8
    uint16_t restart = 0;
    const char* complaint = nullptr;  // why scanning stopped before the scan data
};

// RST, SOI and EOI stand alone; what is below SOF0 is stuffing or reserved.
bool has_segment(uint8_t marker) noexcept {
    return marker >= sof0 && marker != 0xFF && (marker < 0xD0 || marker > 0xD9);
}

// Takes the next segment off the front. Segments are skipped whole: a thumbnail inside one has markers of its own.
std::optional<segment_t> next_segment(bytes_t& rest) noexcept {
    while (rest.size() >= 4) {
        if (rest[0] != 0xFF || !has_segment(rest[1])) {
            rest = rest.subspan(1);
            continue;
        }
        const size_t length = get16(rest, 2);
        if (length < 2 || length > rest.size() - 2) break;
        const segment_t segment{rest[1], rest.subspan(4, length - 2)};
        rest = rest.subspan(2 + length);
        return segment;
    }
    return std::nullopt;
}

void read_table(picture_t& picture, bytes_t table) noexcept {
    if (table[0] == 0) picture.luma = table.subspan(1, table_size);
    if (table[0] == 1) picture.chroma = table.subspan(1, table_size);
}

void read_dqt(picture_t& picture, bytes_t body) noexcept {
    constexpr size_t entry = 1 + table_size;
    if (!body.empty() && body[0] > 15) {
        picture.complaint = "rtp pack jpeg: Only 8 bit quant table are supported. Aborted!";
        return;
    }
    if (body.size() != entry && body.size() != 2 * entry) return;
    read_table(picture, body.first(entry));
    if (body.size() > entry) read_table(picture, body.subspan(entry));
}

void read_sof0(picture_t& picture, bytes_t body) noexcept {
    // Precision, height, width, count, then three bytes a component with the sampling in the middle.
    if (body.size() < 15 || body[10] != 0x11 || body[13] != 0x11) {
        picture.complaint = "Only 1x1 chroma blocks are supported. Aborted!";
        return;
    }
    picture.height = static_cast<uint8_t>(get16(body, 1) / 8);
    picture.width = static_cast<uint8_t>(get16(body, 3) / 8);
    picture.type = static_cast<uint8_t>(body[7] - 0x21);
}

bytes_t without_eoi(bytes_t scan) noexcept {
    for (size_t end = scan.size(); end >= 2; --end) {
        if (scan[end - 2] == 0xFF && scan[end - 1] == 0xD9) return scan.first(end - 2);
    }
    return scan;
}

// Without a start of scan the whole file is taken for scan data.
picture_t read_picture(bytes_t jpeg) noexcept {
    picture_t picture;
    picture.scan = jpeg;
    bytes_t rest = jpeg;
    while (const auto segment = next_segment(rest)) {
        if (segment->marker == dqt) read_dqt(picture, segment->body);
        if (segment->marker == sof0) read_sof0(picture, segment->body);
        if (segment->marker == dri && segment->body.size() >= 2) picture.restart = get16(segment->body, 0);
        if (segment->marker == sos) picture.scan = rest;
        if (segment->marker == sos || picture.complaint) break;
    }
    picture.scan = without_eoi(picture.scan);
    if (picture.restart) picture.type = static_cast<uint8_t>(picture.type + restart_types);
    return picture;
}

uint8_t* put_tables(uint8_t* out, const picture_t& picture) noexcept {
    *out++ = 0;
    *out++ = 0;
    out = rtp::put16(out, 2 * table_size);
    const bytes_t chroma = picture.chroma.empty() ? picture.luma : picture.chroma;
    std::memcpy(out, picture.luma.data(), table_size);
    std::memcpy(out + table_size, chroma.data(), table_size);
    return out + 2 * table_size;
}

// The headers of RFC 2435 that stand before the piece of the scan at `offset`.
uint8_t* put_headers(uint8_t* out, const picture_t& picture, size_t offset) noexcept {
    out = rtp::put32(out, static_cast<uint32_t>(offset));
    *out++ = picture.type;
    *out++ = q_in_band;
    *out++ = picture.width;
    *out++ = picture.height;
    if (picture.restart) {
        out = rtp::put16(out, picture.restart);
        out = rtp::put16(out, 0xFFFF);  // whole intervals, none counted (3.1.7)
    }
    return offset == 0 && !picture.luma.empty() ? put_tables(out, picture) : out;
}

// Received

using bytes_t = std::span<const uint8_t>;

constexpr size_t main_header_size = 8;
constexpr size_t restart_header_size = 4;
constexpr size_t table_header_size = 4;
constexpr uint8_t first_q_in_band = 128;  // from here on the tables travel with the picture (4.2)
constexpr uint32_t header_room = 1024;
constexpr uint8_t soi[] = {0xFF, 0xD8};
constexpr uint8_t eoi[] = {0xFF, 0xD9};

// Takes the headers off the payload.
std::optional<rtp::jpeg_header_t> read_header(bytes_t& payload) noexcept {
    if (payload.size() < main_header_size) return std::nullopt;
    rtp::jpeg_header_t header{
        .offset = rtp::get32(payload, 0) & 0xFFFFFF,
        .type = payload[4],
        .q = payload[5],
        .width = uint32_t{payload[6]} * 8,
        .height = uint32_t{payload[7]} * 8,
        .restart = 0,
    };
    payload = payload.subspan(main_header_size);
    if (header.type & restart_types) {
        if (payload.size() < restart_header_size) return std::nullopt;
        header.type &= static_cast<uint8_t>(~restart_types);
        header.restart = rtp::get16(payload, 0);
        payload = payload.subspan(restart_header_size);
    }
    return header;
}

}  // namespace

namespace rtp {

// Sending

void packetizer::pack_jpeg(std::span<const uint8_t> jpeg) noexcept {
    jpeg_info_t info{};
    if (jpeg_inspect(jpeg, &info) && (info.width > max_side || info.height > max_side)) return pack_jpeg_large(jpeg);

    const picture_t picture = read_picture(jpeg);
    if (picture.complaint) {
        core_log_print(rtp_.log, "%s", picture.complaint);
        core_con_printf(1, "%s", picture.complaint);
    }
    for (size_t offset = 0; offset < picture.scan.size();) {
        uint8_t* const start = start_packet(jpeg_pt);
        uint8_t* const out = put_headers(start, picture, offset);
        const auto headers = static_cast<uint32_t>(out - start);
        const auto piece =
            picture.scan.subspan(offset, std::min<size_t>(max_piece - headers, picture.scan.size() - offset));
        std::memcpy(out, piece.data(), piece.size());
        offset += piece.size();
        if (offset == picture.scan.size()) rtp_.packet.data[1] |= marker;
        send_packet(header_size + headers + static_cast<uint32_t>(piece.size()));
    }
}

void packetizer::pack_jpeg_large(std::span<const uint8_t> jpeg) noexcept {
    bytes_t rest = jpeg.subspan(2);  // SOI goes in the extension
    for (bool first = true; !rest.empty(); first = false) {
        const bool last = rest.size() <= large_last_piece;
        const bytes_t piece = last ? rest : rest.first(large_piece);
        rest = rest.subspan(piece.size());
        uint8_t* out = start_packet(last ? jpeg_pt | marker : jpeg_pt);
        rtp_.packet.data[0] |= 0x10;
        const uint32_t profile = first ? 0xFFD8 : 0xFFFF;
        out = put16(put16(out, profile), profile);
        const size_t words = (piece.size() + 3) / 4;
        out = put16(out, static_cast<uint32_t>(words));
        std::memcpy(out, piece.data(), piece.size());
        std::memset(out + piece.size(), 0xFF, 4 * words - piece.size());
        send_packet(static_cast<uint32_t>(large_header_size + 4 * words));
    }
}

// Receiving

void depacketizer::unpack_jpeg(std::span<const uint8_t> payload) noexcept {
    const auto header = read_header(payload);
    if (!header) {
        core_log_print(rtp_.log, "Too short RTP/JPEG packet.");
        return;
    }
    if (header->offset == 0 ? !begin_jpeg(*header, payload) : trak_->skipping) return;
    if (!append(trak_->frame, payload)) return;
    if (trak_->marker && !append(trak_->frame, eoi)) return;
    deliver();
}

// Writes the header of the file, and takes the tables that came with it off the scan. A picture whose tables are not
// known is left out. Q 0, which is reserved, has none, and the scan goes out as it came.
bool depacketizer::begin_jpeg(const jpeg_header_t& header, std::span<const uint8_t>& scan) noexcept {
    buf_t& frame = trak_->frame;
    frame.length = 0;
    trak_->skipping = false;
    trak_->jpeg_seq = trak_->seq;
    if (!core_buf_respace(&frame, header_room, file_, line_)) {
        discard_frame();
        return false;
    }
    uint8_t standard[jpeg_tables_t::room];
    bytes_t tables;
    const bool in_band = header.q >= first_q_in_band;
    if (in_band) {
        tables = take_jpeg_tables(header.q, scan);
    } else if (jpeg_rtp_tables(header.q, standard)) {
        tables = standard;
    }
    if (tables.empty() ? !in_band
                       : jpeg_rtp_header(&frame, header.type, header.width, header.height, header.restart, tables,
                                         file_, line_) != 0) {
        return true;
    }
    discard_frame();
    return false;
}

// RFC 2435, 3.1.8. Without a table those hold that came before with the same Q, unless it is 255, of which each picture
// has its own. Empty when there are none.
std::span<const uint8_t> depacketizer::take_jpeg_tables(uint8_t q, std::span<const uint8_t>& scan) noexcept {
    jpeg_tables_t& known = trak_->jpeg_tables;
    const size_t length = scan.size() < table_header_size ? SIZE_MAX : get16(scan, 2);
    if (length > scan.size() - std::min(table_header_size, scan.size())) {
        core_log_print(rtp_.log, "Too short RTP/JPEG packet.");
        return {};
    }
    if (scan[1] != 0) core_log_print(rtp_.log, "Only 8-bit precision is supported.");
    const bytes_t tables = scan.subspan(table_header_size, length);
    scan = scan.subspan(table_header_size + length);
    if (!tables.empty()) {
        known.q = q;
        known.size = static_cast<uint8_t>(std::min<size_t>(length, jpeg_tables_t::room));
        std::copy_n(tables.begin(), known.size, known.bytes);
    } else if (known.q != q || q == q_in_band) {
        return {};
    }
    return {known.bytes, known.size};
}

// The length is read two bytes before the place where pack_jpeg_large() writes it; each side stays as its peers know
// it.
void depacketizer::unpack_jpeg_large(std::span<const uint8_t> payload) noexcept {
    constexpr size_t prefix = 4;
    if (payload.size() < prefix) return;
    const size_t size = std::min<size_t>(payload.size() - prefix, size_t{4} * get16(payload, 2));
    if (std::ranges::equal(payload.first(2), soi)) {
        trak_->frame.length = 0;
        if (!append(trak_->frame, soi)) return;
    }
    if (append(trak_->frame, payload.subspan(prefix, size))) deliver();
}

}  // namespace rtp
