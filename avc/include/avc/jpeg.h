/// Inspection of JPEG pictures, and the header that RTP leaves out (RFC 2435, appendix B). Any thread.
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>
#include <span>

/// What the headers of a JPEG picture say.
struct jpeg_info_t {
    uint32_t width;
    uint32_t height;
    uint32_t components;
    uint8_t sampling[3];        ///< of the first three: horizontal factor in the high half, vertical in the low; else 0
    uint32_t restart_interval;  ///< 0 without DRI
    bool progressive;
};

/// Reads the headers up to the start of the scan. @return 1, or 0 when the data is no JPEG or ends before a frame
/// header.
INET_API int jpeg_inspect(std::span<const uint8_t> data, jpeg_info_t* out) noexcept;

/// Appends a whole JPEG header (SOI up to and with SOS) for scan data received by RTP (RFC 2435, 4.1 and appendix B).
/// @param type     0 for 4:2:2, 1 for 4:2:0 (bit 64 taken off)
/// @param width    pixels, as is height
/// @param restart  restart interval, 0 for none
/// @param tables   quantisation tables in zigzag order, 64 bytes each; with one it serves luma and chroma
/// @return the bytes appended, 0 when the type or the tables are unusable or memory is out
INET_API uint32_t jpeg_rtp_header(buf_t* out, uint32_t type, uint32_t width, uint32_t height, uint32_t restart,
                                  std::span<const uint8_t> tables, const char* file, int line) noexcept;

/// Luma and chroma quantisation tables for a Q of 1..99 (RFC 2435, appendix A), 128 bytes. @return 0 for another Q.
INET_API int jpeg_rtp_tables(uint32_t q, uint8_t out[128]) noexcept;
