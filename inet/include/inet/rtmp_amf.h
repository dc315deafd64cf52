/// Action Message Format, in which RTMP carries values: AMF0, the encoding of commands, and AMF3, which AMF0 reaches
/// through the marker 0x11. Values are Variants, bytes stand in an IOBuffer. All numbers are big-endian. A serializer
/// belongs to one thread at a time.
///
/// Every call returns false when it failed. After a failed read the cursor stands where the failure was, and the value
/// may be partly filled. After a failed write the buffer ends as it did before. Reads fail:
///     - when the body is too short,
///     - at a marker that the table of the class does not name,
///     - at a reference beyond its table (one to an object that is still being read is null),
///     - above a bound,
///     - when memory is out.
/// Writes fail for a value of a kind that the class does not name (a lost Variant among them), above the nesting, for a
/// name that the encoding cannot carry (AMF0: above 65,535 bytes, AMF3: an empty one), and when memory is out.
///
/// Bounds of one read (a body above one is refused). What is referred to counts each time that it is referred to. An
/// announced count or length reserves nothing: a body that cannot hold it is refused when it ends.
///     nesting   64 levels, references included; the same for writes
///     values    131,072, which with their maps take at most 300 bytes each
///     texts     32 MiB of strings, names and byte arrays
/// Bounds of the four tables of an AMF3Serializer, over all of its reads:
///     entries   131,072, names of members included
///     texts     32 MiB
///
/// ReadX() reads a value without its marker. With `readType` it skips the marker first, and fails at another one.
/// WriteX() writes the marker only with `writeType`.
#pragma once

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/api.h"

#include <cstdint>
#include <ctime>
#include <string_view>

namespace inet::rtmp {

/// marker  read as                                              written for
/// 0x00    double                                               every number, as a double
/// 0x01    bool                                                 bool
/// 0x02    string                                               strings below 65,536 bytes
/// 0x03    map                                                  maps that are no array
/// 0x05    null                                                 null
/// 0x06    undefined                                            undefined
/// 0x08    array: names of digits become indexes; pairs beyond  arrays
///         the count are taken, under their texts
/// 0x0A    array                                                -
/// 0x0B    timestamp in whole seconds; the zone is skipped      the three kinds of time; the zone is 0
/// 0x0C    string                                               strings of 65,536 bytes and more
/// 0x10    refused                                              typed maps
/// 0x11    AMF3, with tables of its own for each value          byte arrays
/// others  refused                                              -
///
/// A later pair of a name replaces an earlier one. Maps are written with the names of commands and metadata first, in
/// the order that other programs use ("app", "flashVer", ... "level", "code", "description" ...), then with the other
/// names in the order of the map. A name that begins with "__index__value__" is written without these 16 characters.
/// A time of day that no calendar from year 0 to 9999 has is cut to that range.
class INET_API AMF0Serializer {
public:
    AMF0Serializer() noexcept = default;
    AMF0Serializer(const AMF0Serializer&) noexcept = default;
    AMF0Serializer& operator=(const AMF0Serializer&) noexcept = default;
    virtual ~AMF0Serializer() = default;

    bool Read(IOBuffer& buffer, Variant& value) noexcept;
    bool Write(IOBuffer& buffer, const Variant& value) noexcept;

    bool ReadShortString(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadLongString(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadDouble(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadObject(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadMixedArray(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadArray(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadAMF3Object(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadBoolean(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadTimestamp(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadNull(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadUndefined(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;

    /// A text that is longer than its length field can tell fails.
    bool WriteShortString(IOBuffer& buffer, std::string_view text, bool writeType = true) noexcept;
    bool WriteLongString(IOBuffer& buffer, std::string_view text, bool writeType = true) noexcept;
    bool WriteDouble(IOBuffer& buffer, double value, bool writeType = true) noexcept;
    bool WriteObject(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteTypedObject(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteMixedArray(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteAMF3Object(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteBoolean(IOBuffer& buffer, bool value, bool writeType = true) noexcept;
    bool WriteTimestamp(IOBuffer& buffer, const tm& value, bool writeType = true) noexcept;
    bool WriteNull(IOBuffer& buffer, bool writeType = true) noexcept;
    bool WriteUndefined(IOBuffer& buffer, bool writeType = true) noexcept;

    /// Plain integers without a marker. The last argument has no effect.
    bool ReadUInt8(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadInt16(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadUInt32(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadInt32(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool WriteUInt8(IOBuffer& buffer, unsigned char value, bool writeType = true) noexcept;
    bool WriteInt16(IOBuffer& buffer, short value, bool writeType = true) noexcept;
    bool WriteInt32(IOBuffer& buffer, int value, bool writeType = true) noexcept;
};

/// marker  read as                                              written for
/// 0x00    null                                                 undefined
/// 0x01    null                                                 null
/// 0x02    false                                                false
/// 0x03    true                                                 true
/// 0x04    unsigned integer of 29 bits                          -
/// 0x05    double                                               every number, as a double
/// 0x06    string                                               strings
/// 0x07    nothing: the value stays as it is                    -
/// 0x08    timestamp in whole seconds                           the three kinds of time
/// 0x09    array                                                arrays
/// 0x0A    map; sealed members in its map "____traits____"      maps that are no array, as dynamic objects
/// 0x0B    refused                                              -
/// 0x0C    byte array                                           byte arrays
/// others  refused                                              -
///
/// Values are always written inline. Reading fills four tables, to which later values of the same serializer refer:
/// objects (with arrays and dates), traits, strings, byte arrays. Of externalizable classes only
/// "flex.messaging.io.ArrayCollection" is read. Typed maps are not written.
class INET_API AMF3Serializer {
public:
    AMF3Serializer() noexcept = default;
    /// A copy for which there is no memory fails every call.
    AMF3Serializer(const AMF3Serializer& other) noexcept;
    AMF3Serializer& operator=(const AMF3Serializer& other) noexcept;
    virtual ~AMF3Serializer();

    bool Read(IOBuffer& buffer, Variant& value) noexcept;
    bool Write(IOBuffer& buffer, const Variant& value) noexcept;

    bool ReadUndefined(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadNull(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadFalse(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadTrue(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadInteger(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadDouble(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadString(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadXMLDoc(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadDate(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadArray(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadObject(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadXML(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;
    bool ReadByteArray(IOBuffer& buffer, Variant& value, bool readType = true) noexcept;

    bool WriteUndefined(IOBuffer& buffer, bool writeType = true) noexcept;
    bool WriteNull(IOBuffer& buffer, bool writeType = true) noexcept;
    bool WriteFalse(IOBuffer& buffer, bool writeType = true) noexcept;
    bool WriteTrue(IOBuffer& buffer, bool writeType = true) noexcept;
    /// Fails above 0x1FFFFFFF.
    bool WriteInteger(IOBuffer& buffer, unsigned int value, bool writeType = true) noexcept;
    bool WriteDouble(IOBuffer& buffer, double value, bool writeType = true) noexcept;
    bool WriteString(IOBuffer& buffer, std::string_view text, bool writeType = true) noexcept;
    bool WriteDate(IOBuffer& buffer, const tm& value, bool writeType = true) noexcept;
    bool WriteArray(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteObject(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;
    bool WriteByteArray(IOBuffer& buffer, const Variant& value, bool writeType = true) noexcept;

    /// Integers of 7, 14, 21 or 29 bits in one to four bytes. The fourth byte counts with all its bits.
    static bool ReadU29(IOBuffer& buffer, unsigned int& value) noexcept;
    /// Fails above 0x1FFFFFFF.
    static bool WriteU29(IOBuffer& buffer, unsigned int value) noexcept;

    class tables_t;

private:
    bool read_one(IOBuffer& buffer, Variant& value, bool with_marker, uint8_t marker) noexcept;

    tables_t* tables_ = nullptr;  // made when the first entry comes
    bool broken_ = false;         // a copy that memory was out for
};

}  // namespace inet::rtmp
