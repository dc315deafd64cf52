/// An RTP sender (RFC 3550): one stream of H.264, packed for any number of handlers. Every packet is handed
/// over as a header part and a payload part. The payload is not copied: it points into the caller's frame. An object
/// uses no socket and receives nothing. rtp::Rtp (inet/rtp_protocol.h) is for other formats, several streams and
/// receiving.
///
/// Packets and reports are those of rtp::Rtp for "H264", but for these:
///     payload type      97, with the marker bit on the last packet of each NAL unit
///     sender report     every 2 s of media time, before the packets of its frame
///     its packet count  the next sequence number, one more than the packets sent
///
/// Memory: 1400 bytes and the list of handlers. pack() allocates nothing.
///
/// An object and its handlers belong to one thread.
#pragma once

#include "core/api.h"
#include "core/buf.h"
#include "core/log.h"

#include <cstdint>

namespace net::rtp {

class Rtp;

/// What a handler is called for.
enum rtp_event_e : int {
    event_rtp = 0,   ///< an RTP packet is ready: `header`, then `payload`
    event_rtcp = 1,  ///< a sender report is ready: `header` alone
};

/// Takes what an Rtp has ready. The bytes are valid until the call returns: a handler sends or copies them before. From
/// inside, it may read the object and call set_handler(): the new handler then gets this event, too. It may not call
/// pack() or pack_rtcp(), nor assign to or delete the object.
class INET_API IRtp {
public:
    virtual void on_rtp_event(Rtp* rtp, rtp_event_e event) noexcept = 0;

protected:
    ~IRtp() = default;
};

class INET_API Rtp {
public:
    IRtp** handlers = nullptr;  ///< null-terminated array in the order of set_handler(), not owned; null for none
    log_ctx* log;               ///< the log named "rtp"; null when it could not be opened: nothing is logged then
    buffer_t buffer;            ///< where headers are built
    int32_t id = 0;             ///< number of the owner, at the start of every log line
    buffer_t header;            ///< 12 or 14 bytes of an RTP packet, or 28 of a sender report
    buffer_t payload;           ///< in the frame that is being packed; null for a sender report
    double clock_rate = 0;      ///< 90000 from the first frame on
    uint32_t ssrc = 0;          ///< set by the owner
    uint32_t seq = 1;           ///< sequence number of the next packet, its low 16 bits
    uint64_t time = 0;          ///< microseconds since 1970-01-01 of the current frame
    uint32_t rtp_time = 0;      ///< RTP timestamp of it
    uint64_t next_rtcp = 0;     ///< frame time from which the next report is due
    uint32_t octets = 0;        ///< bytes of the packets handed over, headers included

    /// When memory is out, `buffer.data` is null and the object packs nothing.
    /// `file` and `line` name what the object allocates; the text is valid until the object and its copies end.
    Rtp(const char* file, int line) noexcept;
    virtual ~Rtp();

    /// A copy has the same values and handlers. It has a buffer of its own, in which `header` lies if it lay in that of
    /// the other. When memory is out, handlers or `buffer.data` are missing in it.
    Rtp(const Rtp& other) noexcept;
    Rtp& operator=(const Rtp& other) noexcept;

    /// @return null when memory is out. End it with `delete`.
    static Rtp* create(const char* file, int line) noexcept;
    /// For objects of create(), and for those of derived classes that are made with core::create().
    static void operator delete(void* block) noexcept;

    /// Adds a handler behind the others; one that is added twice is called twice. Handlers cannot be removed: they live
    /// as long as the object packs. Null is ignored. Without memory the list stays as it was.
    void set_handler(IRtp* handler) noexcept;

    /// Calls every handler, in order.
    void call_event(rtp_event_e event) noexcept;

    /// Sends an access unit (ITU-T H.264, Annex B), after a sender report when `time_us` has come to `next_rtcp`. The
    /// report is also sent when the frame is not:
    ///   - An `fcc` other than "H264" and "h264" is logged as unknown.
    ///   - A frame without a NAL unit is passed over in silence. Null is one.
    /// @param frame    any number of bytes
    /// @param time_us  microseconds since 1970-01-01
    void pack(unsigned fcc, buffer_t frame, uint64_t time_us) noexcept;

    /// Sends a sender report of 28 bytes (RFC 3550, 6.4.1), and sets `next_rtcp` to 2 s after it. Its RTP
    /// time is NTP seconds since 1900 times `clock_rate`: 0 before the first frame.
    void pack_rtcp(uint64_t time_us) noexcept;

private:
    bool pack_h264(buffer_t frame, uint64_t time_us) noexcept;
    void hand_over(uint32_t header_size, buffer_t bytes, rtp_event_e event) noexcept;

    const char* file_;
    int line_;
};

}  // namespace net::rtp
