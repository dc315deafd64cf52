/// Session descriptions (SDP, RFC 4566) read into flat records of media tracks, and the two RTSP header fields that
/// carry the state of a track: Transport and RTP-Info (RFC 2326, 12.39 and 12.33).
///
/// Reading never fails and reports nothing. Unknown lines, attributes and keys are skipped. Malformed ones leave their
/// fields at 0 or null. Only CR LF ends a line. Text after the last CR LF is not read. A number is the decimal digits
/// at the start of a text, after blanks and a '+'. A number that is missing, negative or above 32 bits is 0. Texts for
/// which there is no memory are left out. A text that comes twice replaces the first.
///
/// Bounds for one text:
///     tracks          sdp_max_traks; reading stops before the next
///     track texts     the bytes of the text; an fmtp line counts twice
///     stream entries  sdp_max_rtp_infos
///
/// Two interfaces read one grammar, into records or into an object:
///
///   line                      sdp_parse()                              net::sdp::Sdp
///   m=                        media, port, pt                          the same
///   a=control:                control                                  the same
///   a=framerate:              framerate                                the same
///   a=rtpmap:PT NAME/HZ[/CH]  encoding, clock_rate, channels;          the same
///                             only for the track's own pt
///   a=fmtp:PT KEY=VALUE;..    fmtp, sprop_parameter_sets, config;      packetization_mode, profile_level_id,
///                             only for the track's own pt              sprop_parameter_sets, config
///   c=IN IP4 ADDRESS          connection; before the first m= for      -
///                             all tracks without their own
///
/// Only the first format of an m= line is described. Attributes before the first m= line are skipped. Records and
/// objects belong to one thread at a time.
#pragma once

#include "core/api.h"
#include "core/buf.h"

#include <cstdint>
#include <string_view>

/// Tracks read from one description, stream entries from one RTP-Info.
inline constexpr uint32_t sdp_max_traks = 256;
inline constexpr uint32_t sdp_max_rtp_infos = 256;
/// Characters of the longest address of a c= line, which every track of a session copies; longer ones are left out.
inline constexpr uint32_t sdp_max_address = 255;

namespace net::sdp {

/// One media description. Texts are owned by the record, null until set; numbers 0 until set.
struct trak_t {
    char* media;                 ///< "video", "audio", "application", ...
    char* control;               ///< value of a=control:
    char* encoding;              ///< encoding name of the rtpmap
    uint32_t pt;                 ///< payload type: the first format of m=
    uint32_t port;               ///< port of m=, without "/count"
    uint32_t clock_rate;         ///< Hz
    uint32_t channels;           ///< 0 when the rtpmap has none
    float framerate;             ///< pictures per second
    char* fmtp;                  ///< all parameters of a=fmtp:
    char* connection;            ///< address of c=, with "/ttl" if it has one
    char* sprop_parameter_sets;  ///< key of fmtp, Base64 (RFC 6184, 8.1)
    char* config;                ///< key of fmtp, hexadecimal (RFC 3640, 4.1)
};

struct sdp_t {
    char* text;      ///< null; freed by sdp_free() if an owner puts one here
    void* extra;     ///< the owner's, never touched
    trak_t** traks;  ///< null-terminated array in the order of the text; null for none
};

/// One Transport value.
struct transport_t {
    uint32_t ssrc;         ///< written in hexadecimal
    uint32_t client_port;  ///< first number of client_port= or of interleaved=
    uint32_t server_port;  ///< first number of server_port= or of port=
    uint8_t unicast;       ///< 1 when the token "unicast" is there
    uint8_t multicast;     ///< 1 when the token "multicast" is there
    uint8_t tcp;           ///< 1 when the token "RTP/AVP/TCP" is there
    char* source;
    char* destination;
};

/// One stream of an RTP-Info value, as text; null when missing.
struct rtp_info_s {
    char* url;
    char* seq;
    char* rtptime;
};

/// One media description of an Sdp.
struct media_s {
    char* media;
    char* control;
    uint32_t pt;
    uint32_t port;
    float framerate;
    uint32_t clock_rate;
    uint32_t channels;
    char* encoding;
    uint32_t packetization_mode;  ///< RFC 6184, 8.1
    uint32_t profile_level_id;    ///< the leading decimal digits of the value: 42 for "42e01f"
    char* sprop_parameter_sets;
    char* config;  ///< not released by Sdp::clear(): see Sdp::free_configs()
};

class INET_API Sdp {
public:
    char* text = nullptr;        ///< working copy of the text; null but while parse() runs
    media_s* current = nullptr;  ///< of the last m= line of the last text; null before it, or when memory was out
    media_s** medias = nullptr;  ///< null-terminated array in the order of the text; null for none

    Sdp() noexcept = default;
    ~Sdp();
    Sdp(const Sdp&) = delete;
    /// Replaces the list by a copy of the other's, member by member; each object owns its texts. The list is empty when
    /// memory is out.
    Sdp& operator=(const Sdp& other) noexcept;

    /// Reads a description; its media are appended to the list. Null is ignored. Nothing is read when memory is out for
    /// the working copy.
    void parse(const char* description) noexcept;
    /// Releases the list and its texts, except `config` of each record.
    void clear() noexcept;
    /// Releases `config` of each record. Call it before clear(), unless another owner took the texts over.
    void free_configs() noexcept;

    /// As sdp_parse_rtp_info().
    rtp_info_s** parse_rtp_info(const char* header_value) noexcept;
    /// Reads ssrc= (hexadecimal) and interleaved= (both channels) of a Transport value. The results of missing keys
    /// stay unchanged. Null pointers are allowed.
    void parse_transport(const char* header_value, unsigned* ssrc, unsigned* channel_a, unsigned* channel_b) noexcept;
    /// Decodes "SPS,PPS" (Base64) into two buffers, without start codes. Without a ',', or when memory is out, both
    /// stay unchanged.
    void parse_sprop_parameter_sets(char* value, buffer_t& sps, buffer_t& pps) noexcept;
    /// Hexadecimal text to bytes, as sdp_parse_config().
    void parse_config(char* value, buffer_t& out) noexcept;

private:
    void parse_media(std::string_view value) noexcept;
    void parse_attribute(std::string_view value) noexcept;
    void parse_rtpmap(std::string_view value) noexcept;
    void parse_fmtp(std::string_view value) noexcept;
};

}  // namespace net::sdp

// `file` and `line` name every allocation. Null records and values are ignored.

/// Reads a description. @return a new record for sdp_free(), with what could be read; null for null, or when memory is
/// out for the record itself.
INET_API net::sdp::sdp_t* sdp_parse(const char* text, const char* file, int line) noexcept;
INET_API void sdp_free(net::sdp::sdp_t* sdp) noexcept;

/// The value of one line, without "m=", "a=", "c=", "rtpmap:PT " and "fmtp:PT ". Values are not changed. They may be
/// texts of the record itself.
INET_API void sdp_parse_media(net::sdp::trak_t* trak, const char* value, const char* file, int line) noexcept;
INET_API void sdp_parse_attribute(net::sdp::trak_t* trak, char* value, const char* file, int line) noexcept;
INET_API void sdp_parse_connection(net::sdp::trak_t* trak, char* value, const char* file, int line) noexcept;
INET_API void sdp_parse_rtpmap(net::sdp::trak_t* trak, char* value, const char* file, int line) noexcept;
INET_API void sdp_parse_fmtp(net::sdp::trak_t* trak, const char* params, const char* file, int line) noexcept;

/// Reads "url=..;seq=..;rtptime=..,url=..". An entry without a known key is kept with null texts. An empty entry ends
/// the list.
/// @return a null-terminated array for sdp_free_rtp_info(); null when there is none.
INET_API net::sdp::rtp_info_s** sdp_parse_rtp_info(const char* header_value, const char* file, int line) noexcept;
INET_API void sdp_free_rtp_info(net::sdp::rtp_info_s** infos) noexcept;

/// Reads "RTP/AVP/TCP;unicast;interleaved=0-1". An empty element ends the list.
/// @return a new record for sdp_free_transport(), zero but for what was read; null only when memory is out.
INET_API net::sdp::transport_t* sdp_parse_transport(const char* header_value, const char* file, int line) noexcept;
INET_API void sdp_free_transport(net::sdp::transport_t* transport) noexcept;

/// Decodes "SPS,PPS" (Base64) and replaces the content of `out` by 00 00 01 SPS 00 00 01 PPS. Without a ',', or when
/// memory is out, `out` stays unchanged.
INET_API void sdp_parse_sprop_parameter_sets(char* value, buf_t* out, const char* file, int line) noexcept;

/// Decodes hexadecimal text and replaces the content of `out`. Blanks and line ends between digits are skipped. Any
/// other character ends the text. An odd last digit is dropped. When there is no byte, or memory is out, `out` stays
/// unchanged.
INET_API void sdp_parse_config(const char* value, buf_t* out, const char* file, int line) noexcept;
