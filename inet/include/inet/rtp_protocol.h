/// RTP packetizer and depacketizer (RFC 3550), and conversions between the library's clock and NTP time. Media frames
/// become RTP packets, with a sender report every two seconds of media time. Received packets become frames, with
/// receiver reports. An object uses no socket. The owner gives it received packets, and gets through rtp::IRtp every
/// packet to send and all received media.
///
/// An object, its tracks and its handler belong to one thread, the network thread of the owner. No packet is longer
/// than rtp::packet_size bytes, and none is kept. After set-up, pack() allocates nothing, except that "META" makes a
/// text.
///
///   format   on the wire
///   "H264"   single NAL unit packets and FU-A (RFC 6184). The parameter sets of an access unit go first. Delimiters
///            and SEI are left out. The marker bit ends every NAL unit
///   "JPEG"   payload type 26 (RFC 2435) with its quantisation tables in band. Above 2040 pixels either way, the whole
///            file in a header extension
///   "PCMU"   pieces of at most 1388 bytes, each with the marker bit
///   "PCMA"   the same, with Rtp::set_all_formats()
///   "mp4a"   AAC, with Rtp::set_all_formats(): an access unit in a packet, or in pieces of at most 1384 bytes, behind
///            one AU header of 13 bits size and 3 bits index (RFC 3640, 3.3.6), with the marker bit on the last. An
///            access unit above 8191 bytes is not sent
///   "META"   sent like "UNIV". A report (net_analytics_is_report()) is converted by net_analytics_convert(). One that
///            names no object is not sent. Anything else is a document, which is sent unchanged: of a meta_t always, of
///            a frame_t with Rtp::set_all_formats()
///   "UNIV"   pieces of at most 1388 bytes, the marker bit on the last
///
///   format   what event 3 brings of received packets
///   "H264"   a NAL unit without start code, from a single NAL unit packet or from FU-A. Aggregation packets (types 24
///            to 27) come unchanged. Types 29 to 31 are dropped
///   "JPEG"   a picture in pieces, one for each packet. The first has the header that RTP leaves out, the last (marker)
///            has EOI. Or the pieces of a file in header extensions, with SOI before the first. Quantisation tables, by
///            their Q: 1 to 99, RFC 2435, appendix A; from 128 on, those in the packets; 128 to 254 without tables in
///            the packets, the last ones received with that Q. A picture whose tables are missing is left out
///   "PCMU"   the payload of one packet
///   "PCMA"   the same
///   "G726"   the same
///   "mp4a"   the bytes behind the AU headers of one packet (RFC 3640, 3.2.1). With trak_t::au_size_bits, each access
///            unit alone, put together from its pieces, with the time that its place in the packet gives it
///   "META"   a document, ended by the marker bit
///
/// Received bytes are not trusted. Bounds for one peer:
///     trak_t::frame, trak_t::fua   rtp::max_frame bytes each; a longer frame is given up whole
/// Once both have grown, receiving allocates nothing.
///
/// Packets are not reordered. A track that is received over UDP needs an rtp::Reorder (inet/rtp_reorder.h) in front.
#pragma once

#include "avc/frame.h"
#include "core/api.h"
#include "core/buf.h"
#include "core/log.h"

#include <cstdint>

/// The NTP time (seconds since 1900-01-01 modulo 2^32 in the high half, fraction of 2^-32 s, truncated, in the low
/// half) of microseconds since 1970-01-01. Any thread.
/// @param sec   receives the seconds since 1970, not 1900, modulo 2^32; may be null
/// @param frac  receives the fraction; may be null
INET_API uint64_t time_core_to_ntp(uint64_t us, unsigned* sec, unsigned* frac) noexcept;

/// Microseconds since 1970-01-01 of an NTP time, truncated. NTP seconds below those of 1970 belong to the next NTP era,
/// which begins in 2036. Any thread.
INET_API uint64_t time_ntp_to_core(unsigned sec, unsigned frac) noexcept;

namespace rtp {

/// The RTP timestamp (RFC 3550, 5.1) of microseconds since 1970-01-01 on a clock of `clock_rate` Hz: truncated, modulo
/// 2^32. It is exact for whole rates at any length of stream. It is 0 for a rate outside 0 up to 2^32. Any thread.
INET_API uint32_t timestamp(uint64_t us, double clock_rate) noexcept;

/// Bytes of the longest packet, headers included.
inline constexpr uint32_t packet_size = 1400;

/// Bytes of the longest frame that is put together from received packets.
inline constexpr uint32_t max_frame = 8U << 20;

/// What the handler is called for.
struct event_t {
    enum enum_t : int {
        packet = 0,   ///< one RTP packet is ready in Rtp::packet
        packets = 1,  ///< all packets of a frame that was cut before are ready in Rtp::cut
        rtcp = 2,     ///< one RTCP packet is ready in Rtp::packet
        frame = 3,    ///< received media data is ready in Rtp::current->frame
    };
};

/// The clock behind the RTP time in sender reports.
enum class report_clock_t : uint8_t {
    ntp,      ///< NTP seconds since 1900 times the clock rate
    packets,  ///< the timestamps of the packets: receivers need it to keep tracks in step (RFC 3550, 6.4.1)
};

/// One stream, made by Rtp::add_trak(). Valid until Rtp::close().
struct trak_t {
    uint8_t active;      ///< 1 when frames are packed; set by the owner once the stream is set up. Received packets are
                         ///< taken in any case
    uint8_t pt;          ///< RTP payload type; JPEG is sent as 26 in any case
    uint16_t seq;        ///< sent: the next sequence number. Received: the last one, 0 for none yet. The owner may set
                         ///< it to the number announced for the next packet
    uint32_t fcc;        ///< payload format (avc/fcc.h)
    uint32_t ssrc;       ///< sent: of our packets, set by the owner. Received: of the last packet
    uint32_t rtp_time;   ///< RTP timestamp of the current frame
    double clock_rate;   ///< RTP clock in Hz, 0 up to 2^32, set by the owner
    uint64_t time;       ///< microseconds since 1970-01-01 of the current frame. Received: the value that the owner
                         ///< sets, advanced by the timestamps in whole milliseconds. For exact intervals, and for
                         ///< pictures that are not in the order of their times, read `rtp_time`
    uint64_t next_rtcp;  ///< frame time from which the next report is due; 0 at first, so the first frame brings one
    uint32_t packets;    ///< RTP packets sent
    uint32_t octets;     ///< bytes of them, RTP headers included
    buf_t frame;         ///< received: bytes of the frame being delivered
    buf_t fua;           ///< received: FU-A being put together
    uint8_t nal_type;    ///< received: H.264 NAL unit type of `frame`
    uint8_t nal_nri;     ///< received: NRI of that NAL unit, 0 to 3
    uint32_t lsr_sec;    ///< NTP seconds of the last sender report received
    uint32_t lsr_frac;   ///< NTP fraction of that report
    uint16_t jpeg_seq;   ///< received: sequence number of the first packet of the JPEG frame

    // Received: true counts (those of a receiver report are fixed). All begin at 0 when the track is made.
    uint32_t received;   ///< packets taken
    uint32_t lost;       ///< sequence numbers passed over (RFC 3550, A.3: expected less received). It grows before the
                         ///< first data behind a gap is handed over: a picture is whole when `lost` is the same at its
                         ///< start and at its end
    uint32_t late;       ///< packets dropped for an old or repeated number; they stay counted as lost
    uint32_t discarded;  ///< frames given up: past max_frame, out of memory, JPEG of unknown type or without its tables
    uint32_t restarts;   ///< steps of the numbers too wide for loss or disorder; the frame in progress is given up
    uint32_t jitter;     ///< interarrival jitter in clock ticks (RFC 3550, A.8); needs Rtp::set_arrival()
    uint8_t marker;      ///< 1 when the packet that ends the current data had the marker bit
    uint8_t bye;         ///< 1 when the sender said BYE (RFC 3550, 6.6) and no packet has been taken since

    // Received "mp4a" (RFC 3640, 4.1), set by the owner, each at most 32.
    uint8_t au_size_bits;   ///< sizeLength; 0: access units are not told apart
    uint8_t au_index_bits;  ///< indexLength
    uint8_t au_delta_bits;  ///< indexDeltaLength. Interleaved units come in the order in which they were sent
};

class Rtp;
class Packets;

/// Takes what an Rtp has ready. The data is valid until the call returns. From inside, the owner may read the object
/// and call set_packet_room(). It may not call close(), destroy(), or a function that packs or unpacks.
class INET_API IRtp {
public:
    virtual void on_rtp_event(Rtp* rtp, event_t::enum_t event) noexcept = 0;

protected:
    ~IRtp() = default;
};

class INET_API Rtp {
public:
    int32_t id = 0;             ///< number of the owner, at the start of every log line
    uint64_t start_time = 0;    ///< the smallest frame time ever packed; 0 for none
    buf_t packet;               ///< the outgoing packet: `length` bytes at `data`
    trak_t* current = nullptr;  ///< the track of the current packet or frame
    IRtp* handler = nullptr;    ///< not owned; without one, packets are counted and dropped
    log_ctx* log;               ///< the log named "rtp"; null when it could not be opened: nothing is logged then
    trak_t** traks = nullptr;   ///< null-terminated array; null when there is no track
    Packets* cut = nullptr;     ///< event `packets`: the frame that was cut before; else null

    /// When memory is out, `packet.data` is null and the object has no tracks.
    /// `file` and `line` name what the object allocates; the text is valid until the object ends.
    Rtp(const char* file, int line) noexcept;
    /// As destroy(), for an object that is part of another.
    ~Rtp();
    Rtp(const Rtp&) = delete;
    Rtp& operator=(const Rtp&) = delete;

    /// @return null when memory is out. End it with destroy().
    static Rtp* create(const char* file, int line) noexcept;
    /// Closes and releases the object, but not the owner's packet room. Null is ignored.
    static void destroy(Rtp* rtp) noexcept;

    /// Releases every track and empties the list.
    void close() noexcept;

    void set_handler(IRtp* value) noexcept { handler = value; }

    /// Sets where the next packets are built, so that a payload is copied once, to where it is sent from. It holds
    /// until the next call. The next call may come from inside on_rtp_event(), on events 0 and 2.
    /// @param room  packet_size writable bytes of any alignment, valid until the next call; null for the object's own
    void set_packet_room(uint8_t* room) noexcept;

    /// Whether "PCMA", "mp4a" and frames of "META" that hold a document are sent as well; off until set.
    void set_all_formats(bool on) noexcept;

    /// Clock of the RTP time in sender reports; report_clock_t::ntp until set.
    void set_report_clock(report_clock_t clock) noexcept;

    /// The track with that payload type. When there is none, a new one is added at the end of the list, zeroed but for
    /// `pt` and `fcc`. @return the track, valid until close(); null when memory is out.
    trak_t* add_trak(unsigned char pt, unsigned fcc) noexcept;
    /// The first track with that payload type or format; null when there is none.
    trak_t* get_trak_pt(unsigned char pt) const noexcept;
    trak_t* get_trak_fcc(unsigned fcc) const noexcept;

    /// Sends a frame on the active track with exactly its fcc. Its packets come first (event 0). A sender report (event
    /// 2) follows when the track's media time has reached next_rtcp. The timestamp is that of the time at which the
    /// frame is shown (av::frame_t::shown_after). Nothing is sent:
    ///   - for null,
    ///   - without such a track,
    ///   - for a format that is not in the table above.
    void pack(const av::frame_t* frame) noexcept;

    /// As pack(), for a frame that was cut before (inet/rtp_packets.h). One event 1 is raised for all of its packets,
    /// none without packets. The packets are valid for this stream until another stream packs them.
    void pack(Packets& packets) noexcept;

    /// As pack(), for a metadata record: "META" or "UNIV". A "META" record is converted when its first character that
    /// is no blank is '['. Any other is a document, which is sent unchanged.
    void pack_meta(const av::meta_t* meta) noexcept;

    /// Sends one sender report (RFC 3550, 6.4.1; 28 bytes, no report block) on the track's current time: event 2.
    void pack_rtcp_sr(trak_t* trak) noexcept;

    /// Takes one received RTP packet for the track of its payload type. Its SSRC becomes the track's. Complete data is
    /// handed over (event 3). A receiver report (event 2) follows when the track's media time has reached next_rtcp,
    /// and at the first packet. Dropped are:
    ///   - what is no RTP of version 2,
    ///   - a payload type without a track,
    ///   - a sequence number equal to the last or below it. When the last is 65000 or above, one up to 100 is newer.
    /// A gap in the numbers empties `frame` and `fua`. A header extension counts as payload; "JPEG" reads it.
    void unpack_rtp(buffer_t packet) noexcept;

    /// Takes one received RTCP packet, single or compound. Its first packet may have any type. When the SSRC of that
    /// first packet is that of a track:
    ///   - the NTP time is kept, read at its place in a sender report,
    ///   - a BYE of that SSRC anywhere in the compound sets trak_t::bye,
    ///   - a receiver report is sent at once (event 2).
    void unpack_rtc(buffer_t packet) noexcept;

    /// Sets the arrival time of the next packets, for the jitter. It is in microseconds of any steady clock, such as
    /// core_timer(). One value may serve all packets of one read. 0, as at the start, is not known.
    void set_arrival(uint64_t us) noexcept;

    /// Whether header extensions of received packets are left out of the payload, but for those that bring pieces of a
    /// JPEG file; off until set.
    void skip_extensions(bool on) noexcept;

    /// Hands over the current track's `frame` (event 3) when it is not empty, then empties it.
    void call_frame() noexcept;

    /// Sends one receiver report (RFC 3550, 6.4.2; 32 bytes, one block of fixed content but for SSRC, sequence number
    /// and LSR): event 2.
    void pack_rtcp_rr(trak_t* trak) noexcept;

private:
    class insides;
    insides* insides_;
};

}  // namespace rtp
