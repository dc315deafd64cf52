// The object table shares its values with what was read (Variant::Share()), so that a reference costs neither time nor
// memory. It is paid for all the same: by the values, texts and levels that it stands for, since whoever walks the
// result meets them each time.
#include "rtmp/amf.h"

#include "inet/rtmp_amf.h"

#include <algorithm>

namespace inet::rtmp {

namespace {

using amf::budget_t;
using amf::input_t;
using amf::max_nesting;
using amf::output_t;

enum marker_t : uint8_t {
    marker_undefined = 0x00,
    marker_null = 0x01,
    marker_false = 0x02,
    marker_true = 0x03,
    marker_integer = 0x04,
    marker_double = 0x05,
    marker_string = 0x06,
    marker_xml_document = 0x07,
    marker_date = 0x08,
    marker_array = 0x09,
    marker_object = 0x0A,
    marker_xml = 0x0B,
    marker_byte_array = 0x0C,
};

constexpr uint32_t max_u29 = 0x1FFFFFFF;
constexpr uint32_t inline_dynamic_object = 0x0B;
constexpr std::string_view sealed_key = "____traits____";
constexpr std::string_view collection = "flex.messaging.io.ArrayCollection";

bool read_u29(input_t& in, uint32_t& value) noexcept {
    value = 0;
    for (int i = 0; i < 3; ++i) {
        if (!in.has(1)) return false;
        const uint8_t byte = in.u8();
        value = value << 7 | (byte & 0x7FU);
        if (byte < 0x80) return true;
    }
    if (!in.has(1)) return false;
    value = value << 8 | in.u8();
    return true;
}

bool write_u29(output_t& out, uint64_t value) noexcept {
    const auto more = [value](int shift) { return static_cast<uint8_t>(0x80 | ((value >> shift) & 0x7F)); };
    if (value < 0x80) return out.u8(static_cast<uint8_t>(value));
    if (value < 0x4000) return out.u8(more(7)) && out.u8(value & 0x7F);
    if (value < 0x200000) return out.u8(more(14)) && out.u8(more(7)) && out.u8(value & 0x7F);
    return value <= max_u29 && out.u8(more(22)) && out.u8(more(15)) && out.u8(more(8)) && out.u8(value & 0xFF);
}

// What a value stands for, beside itself.
struct weight_t {
    uint32_t values = 0;
    uint32_t texts = 0;
    uint32_t levels = 0;
};

struct object_t {
    Variant value;
    weight_t weight;
};

constexpr size_t first_room = 16;  // entries of a table

// Many texts, one behind the other: most are short, and are never asked for again.
class texts_t {
public:
    size_t size() const noexcept { return ends_.size(); }
    // Valid until the next one is added.
    std::string_view operator[](size_t index) const noexcept {
        const uint32_t begin = index == 0 ? 0 : ends_[index - 1];
        return std::string_view(bytes_).substr(begin, ends_[index] - begin);
    }
    // Their sum is bounded by tables_t::take(). `more` bytes may follow: room is made once for most reads.
    void add(std::string_view text, size_t more) {
        const size_t before = bytes_.size();
        if (text.size() > bytes_.capacity() - before) bytes_.reserve(before + std::max(before, text.size() + more));
        if (ends_.empty()) ends_.reserve(first_room);
        ends_.push_back(static_cast<uint32_t>(before + text.size()));
        bytes_.append(text);  // does not throw: there is room
    }

private:
    core::string bytes_;
    core::vector<uint32_t> ends_;
};

struct traits_t {
    core::string class_name;
    bool dynamic = false;
    texts_t names;
};

}  // namespace

class AMF3Serializer::tables_t {
public:
    // Whether so much more may be held.
    bool take(size_t texts) noexcept { return bounds_.take(1, texts); }

    core::vector<object_t> objects;
    core::vector<traits_t> traits;
    texts_t strings;
    texts_t byte_arrays;

    // Whether memory was out while the tables were copied.
    bool lost() const noexcept {
        return std::any_of(objects.begin(), objects.end(),
                           [](const object_t& object) { return object.value.Type() == variant_lost; });
    }

private:
    budget_t bounds_;
};

namespace {

using tables_t = AMF3Serializer::tables_t;

// --- Reading ---

class reader_t {
public:
    reader_t(input_t& in, tables_t& tables, budget_t& budget, uint32_t nesting) noexcept
        : in_(in), tables_(tables), budget_(budget), nesting_(nesting), deepest_(nesting) {}

    bool value(Variant& out) { return in_.has(1) && budget_.take(1, 0) && payload(in_.u8(), out); }

    // A value behind its marker.
    bool payload(uint8_t marker, Variant& out) {
        switch (marker) {
            case marker_undefined:
            case marker_null:
                out.Reset();
                return true;
            case marker_false:
                out = false;
                return true;
            case marker_true:
                out = true;
                return true;
            case marker_integer:
                return integer(out);
            case marker_double:
                return number(out);
            case marker_string:
                return string(out);
            case marker_xml_document:
                return true;
            case marker_date:
                return date(out);
            case marker_array:
                return array(out);
            case marker_object:
                return object(out);
            case marker_byte_array:
                return byte_array(out);
            default:
                return false;
        }
    }

    bool integer(Variant& out) {
        uint32_t value = 0;
        if (!read_u29(in_, value)) return false;
        out = value;
        return true;
    }
    bool number(Variant& out) {
        if (!in_.has(8)) return false;
        out = in_.f64();
        return true;
    }
    bool string(Variant& out) {
        std::string_view text;
        if (!text_of(tables_.strings, text)) return false;
        out = text;
        return out.Type() == variant_string;
    }
    bool byte_array(Variant& out) {
        std::string_view text;
        if (!text_of(tables_.byte_arrays, text)) return false;
        out = text;
        out.IsByteArray(true);
        return out.Type() == variant_byte_array;
    }
    bool date(Variant& out) {
        uint32_t head = 0;
        if (!read_u29(in_, head)) return false;
        if ((head & 1) == 0) return reference(head >> 1, out);
        if (!in_.has(8)) return false;
        out = amf::time_of(in_.f64());
        return add(out, {});
    }
    bool array(Variant& out);
    bool object(Variant& out);

private:
    // Runs `work` one level deeper. `weight` receives what was read meanwhile.
    template <class Work>
    bool nested(weight_t& weight, Work work) {
        if (nesting_ >= max_nesting) return false;
        const budget_t before = budget_;
        const uint32_t deepest = std::exchange(deepest_, ++nesting_);
        const bool good = work();
        --nesting_;
        weight = {before.values - budget_.values, before.texts - budget_.texts, deepest_ - nesting_};
        deepest_ = std::max(deepest, deepest_);
        return good;
    }

    bool reference(uint32_t index, Variant& out) {
        if (index >= tables_.objects.size()) return false;
        object_t& object = tables_.objects[index];
        const weight_t& weight = object.weight;
        if (nesting_ + weight.levels > max_nesting || !budget_.take(weight.values, weight.texts)) return false;
        deepest_ = std::max(deepest_, nesting_ + weight.levels);
        out = object.value.Share();
        return true;
    }
    bool add(Variant& value, const weight_t& weight) {
        if (!tables_.take(0)) return false;
        if (tables_.objects.empty()) tables_.objects.reserve(first_room);
        tables_.objects.push_back({value.Share(), weight});
        return true;
    }

    // A text behind its head, or a reference into its table. It is valid until the next one is read.
    bool text_of(texts_t& table, std::string_view& out) {
        uint32_t head = 0;
        if (!read_u29(in_, head)) return false;
        const uint32_t number = head >> 1;
        if ((head & 1) == 0) {
            if (number >= table.size()) return false;
            out = table[number];
        } else {
            if (!in_.text(number, out)) return false;
            if (number > 0 && !keep(table, out, in_.left())) return false;
        }
        return budget_.take(0, out.size());
    }
    bool keep(texts_t& table, std::string_view text, size_t more) {
        if (!tables_.take(text.size())) return false;
        table.add(text, more);
        return true;
    }

    // Pairs up to the empty name.
    bool pairs(Variant& out) {
        std::string_view key;
        for (;;) {
            if (!text_of(tables_.strings, key)) return false;
            if (key.empty()) return true;
            Variant* const item = in_.has(1) ? out.Append(key) : nullptr;
            if (!item || !value(*item)) return false;
        }
    }
    bool sealed(size_t traits, Variant& out) {
        const size_t count = tables_.traits[traits].names.size();
        if (count == 0) return true;
        Variant* const members = budget_.take(1, 0) ? out.Append(sealed_key) : nullptr;
        if (!members) return false;
        weight_t weight;
        const bool good = nested(weight, [&] {
            for (size_t i = 0; i < count; ++i) {
                // The table may have moved meanwhile.
                const std::string_view name = tables_.traits[traits].names[i];
                Variant* const item = in_.has(1) ? members->Append(name) : nullptr;
                if (!item || !budget_.take(0, name.size()) || !value(*item)) return false;
            }
            return true;
        });
        members->Settle();
        return good && members->Type() != variant_lost;
    }
    bool new_traits(uint32_t head);
    bool externalizable(Variant& out);

    input_t& in_;
    tables_t& tables_;
    budget_t& budget_;
    uint32_t nesting_;
    uint32_t deepest_;
};

bool reader_t::array(Variant& out) {
    uint32_t head = 0;
    if (!read_u29(in_, head)) return false;
    if ((head & 1) == 0) return reference(head >> 1, out);
    out.IsArray(true);
    weight_t weight;
    const bool good = nested(weight, [&] {
        if (!pairs(out)) return false;
        for (uint32_t i = 0; i < head >> 1; ++i) {
            Variant* const item = in_.has(1) ? out.Append(i) : nullptr;
            if (!item || !value(*item)) return false;
        }
        return true;
    });
    out.Settle();
    return good && out.IsMap() && add(out, weight);
}

bool reader_t::object(Variant& out) {
    uint32_t head = 0;
    if (!read_u29(in_, head)) return false;
    if ((head & 1) == 0) return reference(head >> 1, out);
    if ((head & 7) == 7) return externalizable(out);

    const size_t slot = tables_.objects.size();
    Variant reserved;
    if (!add(reserved, {})) return false;
    size_t traits = head >> 2;
    if ((head & 2) != 0) {
        traits = tables_.traits.size();
        if (!new_traits(head)) return false;
    }
    if (traits >= tables_.traits.size()) return false;
    out.IsArray(false);
    const std::string_view class_name = tables_.traits[traits].class_name;
    if (!budget_.take(0, class_name.size())) return false;
    if (!class_name.empty()) out.SetTypeName(class_name);
    weight_t weight;
    const bool good = nested(weight, [&] {
        const bool dynamic = tables_.traits[traits].dynamic;
        return sealed(traits, out) && (!dynamic || pairs(out));
    });
    out.Settle();
    if (!good || !out.IsMap()) return false;
    weight.texts += static_cast<uint32_t>(out.GetTypeName().size());
    tables_.objects[slot] = {out.Share(), weight};
    return true;
}

bool reader_t::new_traits(uint32_t head) {
    const size_t slot = tables_.traits.size();
    if (!tables_.take(0)) return false;
    tables_.traits.emplace_back();
    traits_t made;
    made.dynamic = (head & 8) != 0;
    std::string_view text;
    if (!text_of(tables_.strings, text) || !tables_.take(text.size())) return false;
    made.class_name = text;
    for (uint32_t i = 0; i < head >> 4; ++i) {
        if (!text_of(tables_.strings, text) || !keep(made.names, text, 0)) return false;
    }
    tables_.traits[slot] = std::move(made);
    return true;
}

// The output keeps the class name only where the value behind it leaves it.
bool reader_t::externalizable(Variant& out) {
    std::string_view class_name;
    if (!text_of(tables_.strings, class_name) || class_name != collection) return false;
    out.Reset();
    out.SetTypeName(collection);
    weight_t weight;
    return nested(weight, [&] { return value(out); }) && out.Type() != variant_lost && add(out, weight);
}

// What was there before stays only where nothing is read.
bool read_value(input_t& in, tables_t& tables, Variant& out, budget_t& budget, uint32_t nesting) {
    if (in.has(1) && in.peek() != marker_xml_document) out.Reset();
    return reader_t(in, tables, budget, nesting).value(out);
}

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
                return out_.u8(static_cast<bool>(value) ? marker_true : marker_false);
            case variant_timestamp:
            case variant_date:
            case variant_time:
                return out_.u8(marker_date) && date(static_cast<tm>(value));
            case variant_string:
                return out_.u8(marker_string) && text(static_cast<std::string_view>(value));
            case variant_map:
                return value.IsArray() ? out_.u8(marker_array) && array(value)
                                       : out_.u8(marker_object) && object(value);
            case variant_byte_array:
                return out_.u8(marker_byte_array) && bytes(value);
            default:
                return value.IsNumber() && out_.u8(marker_double) && number(static_cast<double>(value));
        }
    }

    bool integer(uint32_t value) noexcept { return write_u29(out_, value); }
    bool number(double value) noexcept { return out_.f64(value); }
    bool text(std::string_view text) noexcept {
        return write_u29(out_, 2 * uint64_t{text.size()} + 1) && out_.text(text);
    }
    bool bytes(const Variant& value) noexcept { return text(static_cast<std::string_view>(value)); }
    bool date(const tm& value) noexcept { return out_.u8(1) && out_.f64(amf::milliseconds_of(value)); }

    bool array(const Variant& map) noexcept {
        const uint32_t dense = map.MapDenseSize();
        const auto in_row = [dense](const Variant::Entry& entry) { return entry.IsIndex() && entry.Index() < dense; };
        return nested([&] {
            if (!write_u29(out_, 2 * uint64_t{dense} + 1)) return false;
            for (const auto& entry : map) {
                if (!in_row(entry) && !pair(entry)) return false;
            }
            if (!text("")) return false;
            for (const auto& entry : map) {
                if (in_row(entry) && !value(entry.value)) return false;
            }
            return true;
        });
    }
    bool object(const Variant& map) noexcept {
        return nested([&] {
            if (!out_.u8(inline_dynamic_object) || !text("")) return false;
            for (const auto& entry : map) {
                if (!pair(entry)) return false;
            }
            return text("");
        });
    }

private:
    template <class Work>
    bool nested(Work work) noexcept {
        if (nesting_ >= max_nesting) return false;
        ++nesting_;
        const bool good = work();
        --nesting_;
        return good;
    }
    // An empty name would end the list.
    bool pair(const Variant::Entry& entry) noexcept {
        amf::name_room_t room;
        const std::string_view name = amf::name_of(entry, room);
        return !name.empty() && text(name) && value(entry.value);
    }

    output_t& out_;
    uint32_t nesting_;
};

// Runs a reader with the tables of a serializer, which are made when they are missing.
template <class Work>
bool read_with(tables_t*& tables, bool broken, IOBuffer& buffer, Work work) noexcept {
    if (broken) return false;
    if (!tables) tables = core::create<tables_t>(CORE_HERE);
    return tables && amf::read_from(buffer, [&](input_t& in) {
               budget_t budget;
               return work(in, budget);
           });
}

template <class Work>
bool write_one(IOBuffer& buffer, bool with_marker, marker_t marker, Work work) noexcept {
    return amf::write_to(buffer, [&](output_t& out) {
        writer_t writer(out, 0);
        return (!with_marker || out.u8(marker)) && work(writer);
    });
}

}  // namespace

namespace amf {

bool read_amf3(input_t& in, Variant& out, budget_t& budget, uint32_t nesting) {
    tables_t tables;
    return read_value(in, tables, out, budget, nesting);
}

bool write_amf3(output_t& out, const Variant& value, uint32_t nesting) noexcept {
    return writer_t(out, nesting).value(value);
}

}  // namespace amf

AMF3Serializer::AMF3Serializer(const AMF3Serializer& other) noexcept : broken_(other.broken_) {
    if (!other.tables_) return;
    tables_ = core::create<tables_t>(CORE_HERE, *other.tables_);
    broken_ |= !tables_ || tables_->lost();
}

AMF3Serializer& AMF3Serializer::operator=(const AMF3Serializer& other) noexcept {
    AMF3Serializer twin(other);
    std::swap(tables_, twin.tables_);
    std::swap(broken_, twin.broken_);
    return *this;
}

AMF3Serializer::~AMF3Serializer() { core::destroy(tables_); }

bool AMF3Serializer::Read(IOBuffer& buffer, Variant& value) noexcept {
    return read_with(tables_, broken_, buffer,
                     [&](input_t& in, budget_t& budget) { return read_value(in, *tables_, value, budget, 0); });
}

bool AMF3Serializer::Write(IOBuffer& buffer, const Variant& value) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return amf::write_amf3(out, value, 0); });
}

bool AMF3Serializer::read_one(IOBuffer& buffer, Variant& value, bool with_marker, uint8_t marker) noexcept {
    return read_with(tables_, broken_, buffer, [&](input_t& in, budget_t& budget) {
        if (with_marker && !in.marker(marker)) return false;
        if (marker != marker_xml_document) value.Reset();
        return reader_t(in, *tables_, budget, 0).payload(marker, value);
    });
}

bool AMF3Serializer::ReadUndefined(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_undefined);
}

bool AMF3Serializer::ReadNull(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_null);
}

bool AMF3Serializer::ReadFalse(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_false);
}

bool AMF3Serializer::ReadTrue(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_true);
}

bool AMF3Serializer::ReadInteger(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_integer);
}

bool AMF3Serializer::ReadDouble(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_double);
}

bool AMF3Serializer::ReadString(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_string);
}

bool AMF3Serializer::ReadXMLDoc(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_xml_document);
}

bool AMF3Serializer::ReadDate(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_date);
}

bool AMF3Serializer::ReadArray(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_array);
}

bool AMF3Serializer::ReadObject(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_object);
}

bool AMF3Serializer::ReadXML(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_xml);
}

bool AMF3Serializer::ReadByteArray(IOBuffer& buffer, Variant& value, bool readType) noexcept {
    return read_one(buffer, value, readType, marker_byte_array);
}

bool AMF3Serializer::WriteUndefined(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_undefined);
}

bool AMF3Serializer::WriteNull(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_null);
}

bool AMF3Serializer::WriteFalse(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_false);
}

bool AMF3Serializer::WriteTrue(IOBuffer& buffer, bool writeType) noexcept {
    return !writeType || buffer.ReadFromByte(marker_true);
}

bool AMF3Serializer::WriteInteger(IOBuffer& buffer, unsigned int value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_integer, [&](writer_t& w) { return w.integer(value); });
}

bool AMF3Serializer::WriteDouble(IOBuffer& buffer, double value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_double, [&](writer_t& w) { return w.number(value); });
}

bool AMF3Serializer::WriteString(IOBuffer& buffer, std::string_view text, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_string, [&](writer_t& w) { return w.text(text); });
}

bool AMF3Serializer::WriteDate(IOBuffer& buffer, const tm& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_date, [&](writer_t& w) { return w.date(value); });
}

bool AMF3Serializer::WriteArray(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_array, [&](writer_t& w) { return value.IsMap() && w.array(value); });
}

bool AMF3Serializer::WriteObject(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_object, [&](writer_t& w) { return value.IsMap() && w.object(value); });
}

bool AMF3Serializer::WriteByteArray(IOBuffer& buffer, const Variant& value, bool writeType) noexcept {
    return write_one(buffer, writeType, marker_byte_array, [&](writer_t& w) { return w.bytes(value); });
}

bool AMF3Serializer::ReadU29(IOBuffer& buffer, unsigned int& value) noexcept {
    return amf::read_from(buffer, [&](input_t& in) { return read_u29(in, value); });
}

bool AMF3Serializer::WriteU29(IOBuffer& buffer, unsigned int value) noexcept {
    return amf::write_to(buffer, [&](output_t& out) { return write_u29(out, value); });
}

}  // namespace inet::rtmp
