#include "rtmp/amf.h"

#include "core/time.h"
#include "inet/rtmp_amf.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace inet::rtmp {

namespace amf {

tm time_of(double milliseconds) noexcept {
    constexpr double year_0 = -62167219200;
    constexpr double year_10000 = 253402300800;
    const double seconds = std::isnan(milliseconds) ? 0 : std::clamp(milliseconds / 1000.0, year_0, year_10000 - 1);
    const auto whole = static_cast<int64_t>(seconds);
    tm fields{};
    fields.tm_year = 70;
    fields.tm_mday = 1 + static_cast<int>(whole / 86400);
    fields.tm_sec = static_cast<int>(whole % 86400);  // a Variant carries fields over
    return fields;
}

double milliseconds_of(const tm& utc) noexcept { return static_cast<double>(core_timegm(&utc)) * 1000.0; }

std::string_view name_of(const Variant::Entry& entry, name_room_t& room) noexcept {
    if (!entry.IsIndex()) return entry.Key();
    std::memcpy(room, index_prefix.data(), index_prefix.size());
    const auto end = std::to_chars(room + index_prefix.size(), room + sizeof(room), entry.Index());
    return {room, static_cast<size_t>(end.ptr - room)};
}

}  // namespace amf

namespace {

using amf::budget_t;
using amf::input_t;
using amf::max_nesting;
using amf::output_t;

enum marker_t : uint8_t {
    marker_number = 0x00,
    marker_bool = 0x01,
    marker_string = 0x02,
    marker_object = 0x03,
    marker_null = 0x05,
    marker_undefined = 0x06,
    marker_mixed_array = 0x08,
    marker_end = 0x09,
    marker_array = 0x0A,
    marker_date = 0x0B,
    marker_long_string = 0x0C,
    marker_typed_object = 0x10,
    marker_amf3 = 0x11,
};

// --- Names that are written first ---

constexpr std::string_view first_names[] = {
    "app",          "flashVer",    "fmsVer",        "swfUrl",     "tcUrl",        "fpad",         "capabilities",
    "audioCodecs",  "videoCodecs", "videoFunction", "pageUrl",    "level",        "code",         "description",
    "details",      "clientid",    "duration",      "width",      "height",       "videorate",    "framerate",
    "videocodecid", "audiorate",   "audiorate",     "audiodelay", "audiocodecid", "canSeekToEnd", "creationdate",
};
constexpr uint32_t first_count = std::size(first_names);

// Where a name stands in a table of 128 places, by its length and two characters; the next free place when another name
// is there.
constexpr uint32_t first_place(std::string_view name) noexcept {
    return (static_cast<unsigned char>(name.front()) * 5U + static_cast<unsigned char>(name.back()) * 3U +
            static_cast<uint32_t>(name.size()) * 11U) %
           128;
}

constexpr std::array<uint8_t, 128> first_ranks = [] {
    std::array<uint8_t, 128> ranks{};
    ranks.fill(first_count);
    for (uint8_t i = 0; i < first_count; ++i) {
        uint32_t at = first_place(first_names[i]);
        while (ranks[at] < first_count)
            at = (at + 1) % 128;
        ranks[at] = i;
    }
    return ranks;
}();

// Place of a name among those that are written first; first_count for any other.
uint32_t rank_of(std::string_view name) noexcept {
    if (name.empty()) return first_count;
    for (uint32_t at = first_place(name); first_ranks[at] < first_count; at = (at + 1) % 128) {
        if (first_names[first_ranks[at]] == name) return first_ranks[at];
    }
    return first_count;
}

// --- Reading ---

class reader_t {
public:
    reader_t(input_t& in, budget_t& budget, uint32_t nesting) noexcept : in_(in), budget_(budget), nesting_(nesting) {}

    bool value(Variant& out) {
        if (!in_.has(1) || !budget_.take(1, 0)) return false;
        switch (in_.u8()) {
            case marker_number:
                return number(out);
            case marker_bool:
                return boolean(out);
            case marker_string:
                return short_string(out);
            case marker_object:
                return object(out);
            case marker_null:
                return null(out);
            case marker_undefined:
                return undefined(out);
            case marker_mixed_array:
                return mixed_array(out);
            case marker_array:
                return array(out);
            case marker_date:
                return timestamp(out);
            case marker_long_string:
                return long_string(out);
            case marker_amf3:
                return amf3(out);
            default:
                return false;
        }
    }

    bool null(Variant& out) {
        out.Reset();
        return true;
    }
    bool undefined(Variant& out) {
        out.SetUndefined();
        return true;
    }
    bool amf3(Variant& out) { return amf::read_amf3(in_, out, budget_, nesting_); }
    bool number(Variant& out) {
        if (!in_.has(8)) return false;
        out = in_.f64();
        return true;
    }
    bool boolean(Variant& out) {
        if (!in_.has(1)) return false;
        out = in_.u8() != 0;
        return true;
    }
    bool short_string(Variant& out) {
        std::string_view text;
        return name(text) && keep(text, out);
    }
    bool long_string(Variant& out) {
        std::string_view text;
        return in_.has(4) && in_.text(in_.u32(), text) && budget_.take(0, text.size()) && keep(text, out);
    }
    bool timestamp(Variant& out) {
        if (!in_.has(8)) return false;
        out = amf::time_of(in_.f64());
        if (!in_.has(2)) return false;
        in_.skip(2);  // the zone
        return true;
    }
    bool object(Variant& out) {
        out.Reset();
        out.IsArray(false);
        return nested(out, [&] { return in_.has(3) && pairs(out); });
    }
    bool mixed_array(Variant& out) {
        out.Reset();
        out.IsArray(true);
        return nested(out, [&] {
            if (!in_.has(4)) return false;
            for (uint32_t count = in_.u32(); count > 0; --count) {
                if (!pair(out, true)) return false;
            }
            return in_.has(3) && pairs(out);
        });
    }
    bool array(Variant& out) {
        out.Reset();
        out.IsArray(true);
        return nested(out, [&] {
            if (!in_.has(4)) return false;
            const uint32_t count = in_.u32();
            for (uint32_t i = 0; i < count; ++i) {
                // Without bytes there is no entry, however many were announced.
                Variant* const item = in_.has(1) ? out.Append(i) : nullptr;
                if (!item || !value(*item)) return false;
            }
            return true;
        });
    }

private:
    template <class Work>
    bool nested(Variant& out, Work work) {
        if (nesting_ >= max_nesting) return false;
        ++nesting_;
        const bool good = work();
        --nesting_;
        out.Settle();
        return good && out.Type() != variant_lost;
    }

    // Pairs up to the end of an object.
    bool pairs(Variant& out) {
        while (!(in_.has(3) && in_.peek() == 0 && in_.peek(1) == 0 && in_.peek(2) == marker_end)) {
            if (!pair(out, false)) return false;
        }
        in_.skip(3);
        return true;
    }
    bool pair(Variant& out, bool with_indexes) {
        std::string_view key;
        uint32_t index = 0;
        if (!name(key) || !in_.has(1)) return false;
        Variant* const item = with_indexes && is_index(key, index) ? out.Append(index) : out.Append(key);
        return item && value(*item);
    }
    bool name(std::string_view& out) noexcept {
        return in_.has(2) && in_.text(in_.u16(), out) && budget_.take(0, out.size());
    }
    static bool keep(std::string_view text, Variant& out) noexcept {
        out = text;
        return out.Type() == variant_string;
    }
    // A name of digits alone is an index, as far as an int goes.
    static bool is_index(std::string_view key, uint32_t& index) noexcept {
        const auto end = key.data() + key.size();
        const auto digit = [](char c) { return c >= '0' && c <= '9'; };
        if (key.empty() || !std::all_of(key.begin(), key.end(), digit)) return false;
        const auto result = std::from_chars(key.data(), end, index);
        return result.ec == std::errc() && index <= INT32_MAX;
    }

    input_t& in_;
    budget_t& budget_;
    uint32_t nesting_;
};

// --- Writing ---

class writer_t {
public:
    writer_t(output_t& out, uint32_t nesting) noexcept : out_(out), nesting_(nesting) {}

    bool value(const Variant& value) noexcept {
        switch (value.Type()) {
            case variant_null:
                return out_.u8(marker_null);
            case variant_undefined:
                return out_.u8(marker_undefined);
            case variant_bool:
                return out_.u8(marker_bool) && boolean(static_cast<bool>(value));
            case variant_timestamp:
            case variant_date:
            case variant_time:
                return out_.u8(marker_date) && timestamp(static_cast<tm>(value));
            case variant_string:
                return string(static_cast<std::string_view>(value));
            case variant_typed_map:
                return out_.u8(marker_typed_object) && typed_object(value);
            case variant_map:
                return value.IsArray() ? out_.u8(marker_mixed_array) && mixed_array(value)
                                       : out_.u8(marker_object) && object(value);
            case variant_byte_array:
                return out_.u8(marker_amf3) && amf3(value);
            default:
                return value.IsNumber() && out_.u8(marker_number) && number(static_cast<double>(value));
        }
    }

    bool number(double value) noexcept { return out_.f64(value); }
    bool boolean(bool value) noexcept { return out_.u8(value ? 1 : 0); }
    bool amf3(const Variant& value) noexcept { return amf::write_amf3(out_, value, nesting_); }
    bool short_string(std::string_view text) noexcept {
        return text.size() <= UINT16_MAX && out_.u16(static_cast<uint16_t>(text.size())) && out_.text(text);
    }
    bool long_string(std::string_view text) noexcept {
        return text.size() <= UINT32_MAX && out_.u32(static_cast<uint32_t>(text.size())) && out_.text(text);
    }
    bool timestamp(const tm& value) noexcept { return out_.f64(amf::milliseconds_of(value)) && out_.u16(0); }
    bool typed_object(const Variant& value) noexcept { return short_string(value.GetTypeName()) && object(value); }
    bool mixed_array(const Variant& value) noexcept { return out_.u32(value.MapSize()) && object(value); }

    bool object(const Variant& map) noexcept {
        if (nesting_ >= max_nesting) return false;
        ++nesting_;
        const Variant::Entry* first[first_count]{};
        for (const auto& entry : map) {
            const uint32_t rank = rank_of(entry.Key());
            if (rank < first_count) first[rank] = &entry;
        }
        for (const Variant::Entry* entry : first) {
            if (entry && !(short_string(entry->Key()) && value(entry->value))) return false;
        }
        for (const auto& entry : map) {
            if (rank_of(entry.Key()) == first_count && !other(entry)) return false;
        }
        --nesting_;
        return out_.u16(0) && out_.u8(marker_end);
    }

private:
    bool string(std::string_view text) noexcept {
        if (text.size() <= UINT16_MAX) return out_.u8(marker_string) && short_string(text);
        return out_.u8(marker_long_string) && long_string(text);
    }
    bool other(const Variant::Entry& entry) noexcept {
        amf::name_room_t room;
        std::string_view name = amf::name_of(entry, room);
        if (name.starts_with(amf::index_prefix)) name.remove_prefix(amf::index_prefix.size());
        return short_string(name) && value(entry.value);
    }

    output_t& out_;
    uint32_t nesting_;
};

// A reader of one kind of value, behind its marker when that is wanted.
bool read_one(IOBuffer& buffer, Variant& value, bool with_marker, marker_t marker,
              bool (reader_t::*read)(Variant&)) noexcept {
    return amf::read_from(buffer, [&](input_t& in) {
        budget_t budget;
        reader_t reader(in, budget, 0);
        return (!with_marker || in.marker(marker)) && (reader.*read)(value);
    });
}

// A writer of one kind of value, likewise.
template <class Work>
bool write_one(IOBuffer& buffer, bool with_marker, marker_t marker, Work work) noexcept {
    return amf::write_to(buffer, [&](output_t& out) {
        writer_t writer(out, 0);
        return (!with_marker || out.u8(marker)) && work(writer);
    });
}

template <class T, class Read>
bool read_plain(IOBuffer& buffer, Variant& value, Read read) noexcept {
    return amf::read_from(buffer, [&](input_t& in) {
        if (!in.has(sizeof(T))) return false;
        value = static_cast<T>(read(in));
        return true;
    });
}

}  // namespace

namespace amf {

bool read_amf0(input_t& in, Variant& out, budget_t& budget, uint32_t nesting) {
    return reader_t(in, budget, nesting).value(out);
}

bool write_amf0(output_t& out, const Variant& value, uint32_t nesting) noexcept {
    return writer_t(out, nesting).value(value);
}

}  // namespace amf

bool AMF0Serializer::Read(IOBuffer& buffer, Variant& value) noexcept {
    return amf::read_from(buffer, [&](input_t& in) {
        budget_t budget;
        return amf::read_amf0(in, value, budget, 0);
    });
}

bool AMF0Serializer::Write(IOBuffer& buffer, const Variant& value) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return amf::write_amf0(out, value, 0); });
}

bool AMF0Serializer::ReadShortString(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_string, &reader_t::short_string);
}

bool AMF0Serializer::ReadLongString(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_long_string, &reader_t::long_string);
}

bool AMF0Serializer::ReadDouble(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_number, &reader_t::number);
}

bool AMF0Serializer::ReadObject(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_object, &reader_t::object);
}

bool AMF0Serializer::ReadMixedArray(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_mixed_array, &reader_t::mixed_array);
}

bool AMF0Serializer::ReadArray(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_array, &reader_t::array);
}

bool AMF0Serializer::ReadAMF3Object(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_amf3, &reader_t::amf3);
}

bool AMF0Serializer::ReadBoolean(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_bool, &reader_t::boolean);
}

bool AMF0Serializer::ReadTimestamp(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_date, &reader_t::timestamp);
}

bool AMF0Serializer::ReadNull(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_null, &reader_t::null);
}

bool AMF0Serializer::ReadUndefined(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_undefined, &reader_t::undefined);
}

bool AMF0Serializer::WriteShortString(IOBuffer& buffer, std::string_view text, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_string, [&](writer_t& w) { return w.short_string(text); });
}

bool AMF0Serializer::WriteLongString(IOBuffer& buffer, std::string_view text, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_long_string, [&](writer_t& w) { return w.long_string(text); });
}

bool AMF0Serializer::WriteDouble(IOBuffer& buffer, double value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_number, [&](writer_t& w) { return w.number(value); });
}

bool AMF0Serializer::WriteObject(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_object, [&](writer_t& w) { return value.IsMap() && w.object(value); });
}

bool AMF0Serializer::WriteTypedObject(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_typed_object,
                     [&](writer_t& w) { return value.IsMap() && w.typed_object(value); });
}

bool AMF0Serializer::WriteMixedArray(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_mixed_array,
                     [&](writer_t& w) { return value.IsMap() && w.mixed_array(value); });
}

bool AMF0Serializer::WriteAMF3Object(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_amf3, [&](writer_t& w) { return w.amf3(value); });
}

bool AMF0Serializer::WriteBoolean(IOBuffer& buffer, bool value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_bool, [&](writer_t& w) { return w.boolean(value); });
}

bool AMF0Serializer::WriteTimestamp(IOBuffer& buffer, const tm& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_date, [&](writer_t& w) { return w.timestamp(value); });
}

bool AMF0Serializer::WriteNull(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_null);
}

bool AMF0Serializer::WriteUndefined(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_undefined);
}

bool AMF0Serializer::ReadUInt8(IOBuffer& buffer, Variant& value, bool) noexcept {
    return read_plain<uint8_t>(buffer, value, [](input_t& in) { return in.u8(); });
}

bool AMF0Serializer::ReadInt16(IOBuffer& buffer, Variant& value, bool) noexcept {
    return read_plain<int16_t>(buffer, value, [](input_t& in) { return in.u16(); });
}

bool AMF0Serializer::ReadUInt32(IOBuffer& buffer, Variant& value, bool) noexcept {
    return read_plain<uint32_t>(buffer, value, [](input_t& in) { return in.u32(); });
}

bool AMF0Serializer::ReadInt32(IOBuffer& buffer, Variant& value, bool) noexcept {
    return read_plain<int32_t>(buffer, value, [](input_t& in) { return in.u32(); });
}

bool AMF0Serializer::WriteUInt8(IOBuffer& buffer, unsigned char value, bool) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return out.u8(value); });
}

bool AMF0Serializer::WriteInt16(IOBuffer& buffer, short value, bool) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return out.u16(static_cast<uint16_t>(value)); });
}

bool AMF0Serializer::WriteInt32(IOBuffer& buffer, int value, bool) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return out.u32(static_cast<uint32_t>(value)); });
}

}  // namespace inet::rtmp
