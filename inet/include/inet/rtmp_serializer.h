/// RTMP messages as trees of values, and their bytes on the wire. A tree is a map with the header of the message under
/// "header" and its content under one key:
///
///   type        key               content
///   1           "chunkSize"       number
///   2           "abortMessage"    number: the chunk stream whose message is given up
///   3           "ack"             number
///   4           "usrCtrl"         "type", "typeString" and the data of the event:
///                                     0, 1, 2, 4   "streamId"
///                                     3            "streamId", "buffLen"; is not written
///                                     6            "ping"; is not written
///                                     7            "pong"
///                                     31, 32       "unknownU32"; is not written
///                                     others       refused both ways
///   5           "winAckSize"      number
///   6           "peerBw"          "value", "kind"
///   15          "flexStreamSend"  "unknownByte", "params" at 0, 1, ...
///   16, 19      "sharedObject"    "name", "version", "persistence", "primitives" at 0, 1, ..., each with "type",
///                                 "strType", "rawLength", "payload". The payload is a map for the types 3, 4 and 11,
///                                 else a byte array; without bytes there is none
///   17, 20      "invoke"          "functionName", "id", "parameters" at 0, 1, ... (missing when there are none),
///                                 "isFlex"
///   18          "notify"          "params" at 0, 1, ...
///   others      refused both ways
///
/// An object belongs to one thread at a time. One message is bounded as one read of inet/rtmp_amf.h is, and its texts
/// by 64 KiB and 16 times its length. A message that is refused leaves the output and the channel as they were.
#pragma once

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/api.h"
#include "inet/rtmp_amf.h"

#include <cstdint>
#include <string>

namespace inet::rtmp {

/// Header of a chunk or message. As a Variant it is a map with these names as keys.
struct INET_API _Header {
    uint32_t channelId = 0;   ///< chunk stream id
    uint32_t headerType = 0;  ///< format of the chunk header, 0 to 3
    uint32_t timestamp = 0;   ///< milliseconds: absolute for format 0, else since the message before
    uint32_t messageLength : 24 = 0;
    uint32_t messageType : 8 = 0;
    uint32_t streamId = 0;  ///< message stream id
    bool isAbsolute = false;

    void ToVariant(Variant& out) const noexcept;
    /// @return false when it is no map or a key is missing; the header is then as before.
    bool FromVariant(const Variant& from) noexcept;
};

/// What was last sent on a chunk stream.
struct _Channel {
    _Header lastHeader;  ///< of the last message; `timestamp` as it was sent. ChunkBuffer() needs its channelId
    uint32_t streamId = UINT32_MAX;  ///< UINT32_MAX before the first message, which thus gets a whole header
    uint32_t absoluteTime = 0;       ///< of the last message
    uint32_t sentBytes = 0;          ///< of the body of the current message; 0 between messages
    double lastTime = 0;             ///< the owner's
};

class INET_API RTMPSerializer {
public:
    RTMPSerializer() noexcept = default;
    RTMPSerializer(const RTMPSerializer& other) noexcept;
    RTMPSerializer& operator=(const RTMPSerializer& other) noexcept;
    virtual ~RTMPSerializer() = default;

    /// Reads the body of a message by `header.messageType`. @return false for an unknown type and a malformed body.
    /// Bytes behind a body of fixed length stay in the buffer.
    bool Deserialize(const _Header& header, IOBuffer& body, Variant& message) noexcept;

    /// Appends a message in chunks of at most `chunkSize` bytes of its body. Sets "header"/"messageLength". A body
    /// without bytes makes no chunk. The header of a chunk:
    ///   - another stream id than the last message of the channel: format 0, the time is absolute
    ///   - "isAbsolute": format 0
    ///   - else format 1; 2 when type and length repeat; 3 when the time since the message before repeats, too
    ///   - chunks that continue a message: format 3
    /// @return false for a tree or type that cannot be written, a channel id above 65,598, and a `chunkSize` of 0.
    bool Serialize(_Channel& channel, Variant& message, IOBuffer& out, uint32_t chunkSize) noexcept;

    /// Cuts a body, whose message header stands in `out` already, into chunks. A chunk that continues begins with one
    /// byte; above channel id 63 with none. `chunkSize` may not be 0: nothing is appended then.
    /// When memory is out, the output stays as it was.
    void ChunkBuffer(IOBuffer& out, IOBuffer& body, uint32_t chunkSize, _Channel& channel) noexcept;

    // Bodies. `message` is the content under the key of the type. Those that read take the body to its end.
    bool SerializeInvoke(IOBuffer& out, const Variant& message) noexcept;
    bool SerializeNotify(IOBuffer& out, const Variant& message) noexcept;
    bool SerializeFlexStreamSend(IOBuffer& out, const Variant& message) noexcept;
    bool SerializeAck(IOBuffer& out, unsigned int value) noexcept;
    bool SerializeUsrCtrl(IOBuffer& out, const Variant& message) noexcept;
    bool SerializeClientBW(IOBuffer& out, const Variant& message) noexcept;
    bool SerializeSharedObject(IOBuffer& out, const Variant& message) noexcept;

    bool DeserializeNotify(IOBuffer& body, Variant& message) noexcept;
    bool DeserializeFlexStreamSend(IOBuffer& body, Variant& message) noexcept;
    /// Skips a byte first when "isFlex" is set in `message`.
    bool DeserializeInvoke(IOBuffer& body, Variant& message) noexcept;
    bool DeserializeUsrCtrl(IOBuffer& body, Variant& message) noexcept;
    bool DeserializePeerBW(IOBuffer& body, Variant& message) noexcept;
    bool DeserializeAbortMessage(IOBuffer& body, Variant& message) noexcept;
    bool DeserializeFlexSharedObject(IOBuffer& body, Variant& message) noexcept;
    bool DeserializeSharedObject(IOBuffer& body, Variant& message) noexcept;

    /// "RM_USRCTRL_TYPE_STREAM_BEGIN" of 0; "#unknownUCT(N)" of an unknown type.
    static std::string GetUserCtrlTypeString(unsigned short type) noexcept;
    /// "SOT_CS_CONNECT" of 1; "#unknownSOP(N)" of an unknown code.
    static std::string GetSOPrimitiveString(unsigned char code) noexcept;

private:
    AMF0Serializer amf0_;
    AMF3Serializer amf3_;
    IOBuffer body_;  // of the message that is being written
};

}  // namespace inet::rtmp
