// JPEG payload received (RFC 2435), and files in a header extension.
#include "rtp/packet.h"

#include "avc/jpeg.h"

#include <algorithm>
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

constexpr size_t main_header_size = 8;
constexpr size_t restart_header_size = 4;
constexpr size_t table_header_size = 4;
constexpr uint8_t restart_types = 64;
constexpr uint8_t q_in_band = 128;  // from here on the tables travel with the picture (4.2)
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

void Rtp::unpack_jpeg(std::span<const uint8_t> payload) noexcept {
    const auto header = read_header(payload);
    if (!header) {
        core_log_print(log, "Too short RTP/JPEG packet.");
        return;
    }
    if (header->offset == 0 ? !begin_jpeg(*header, payload) : current->count.skipping) return;
    if (!append(current->frame, payload)) return;
    if (current->marker && !append(current->frame, eoi)) return;
    call_frame();
}

// Writes the header of the file, and takes the tables that came with it off the scan. Without tables there is none and
// the scan goes out as it came.
bool Rtp::begin_jpeg(const jpeg_header_t& header, std::span<const uint8_t>& scan) noexcept {
    buf_t& frame = current->frame;
    frame.length = 0;
    current->count.skipping = false;
    current->jpeg_seq = current->seq;
    if (!core_buf_respace(&frame, header_room, file_, line_)) {
        discard_frame();
        return false;
    }
    uint8_t standard[128];
    bytes_t tables;
    if (header.q >= q_in_band) {
        if (!take_jpeg_tables(scan, tables)) return false;
    } else if (jpeg_rtp_tables(header.q, standard)) {
        tables = standard;
    }
    if (tables.empty() ||
        jpeg_rtp_header(&frame, header.type, header.width, header.height, header.restart, tables, file_, line_)) {
        return true;
    }
    discard_frame();
    return false;
}

// RFC 2435, 3.1.8.
bool Rtp::take_jpeg_tables(std::span<const uint8_t>& scan, std::span<const uint8_t>& tables) noexcept {
    if (scan.size() >= table_header_size) {
        if (scan[1] != 0) core_log_print(log, "Only 8-bit precision is supported.");
        const size_t length = get16(scan, 2);
        if (length == 0) return false;
        if (length <= scan.size() - table_header_size) {
            tables = scan.subspan(table_header_size, length);
            scan = scan.subspan(table_header_size + length);
            return true;
        }
    }
    core_log_print(log, "Too short RTP/JPEG packet.");
    return false;
}

// The length is read two bytes before the place where pack_jpeg_large() writes it; each side stays as its peers know
// it.
void Rtp::unpack_jpeg_large(std::span<const uint8_t> payload) noexcept {
    constexpr size_t prefix = 4;
    if (payload.size() < prefix) return;
    const size_t size = std::min<size_t>(payload.size() - prefix, size_t{4} * get16(payload, 2));
    if (std::ranges::equal(payload.first(2), soi)) {
        current->frame.length = 0;
        if (!append(current->frame, soi)) return;
    }
    if (append(current->frame, payload.subspan(prefix, size))) call_frame();
}

}  // namespace rtp
