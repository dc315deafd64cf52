/// A value whose kind is known at run time: what RTMP carries as command arguments, metadata and shared objects. A map
/// holds entries under texts and indexes. A Variant belongs to one thread at a time. Copies are independent of each
/// other. A move takes constant time.
///
/// Keys. The index 7 and the text "__index__value__7" are one key. Entries stand in ascending order: texts by their
/// bytes, and all indexes, by number, in the place of "__index__value__" among the texts. An entry that is put behind
/// all others takes constant time, elsewhere time linear in the entries. A reference to an entry's value is valid
/// until that entry is removed or the map is replaced.
///
/// When memory is out, the value that should have been kept is of the kind `lost`. A map that could not take an entry
/// is lost as a whole. References into it then lead to a value that ignores assignments. The serializers refuse a lost
/// value.
#pragma once

#include "core/api.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>

/// Kinds of a Variant. The codes are those that the serializers distinguish.
enum variant_type_t : uint8_t {
    variant_lost = 0,
    variant_null = 1,
    variant_undefined = 2,
    variant_bool = 3,
    variant_int8 = 4,
    variant_int16 = 5,
    variant_int32 = 6,
    variant_int64 = 7,
    variant_uint8 = 8,
    variant_uint16 = 9,
    variant_uint32 = 10,
    variant_uint64 = 11,
    variant_double = 12,
    variant_timestamp = 14,
    variant_date = 15,
    variant_time = 16,
    variant_string = 17,
    variant_typed_map = 18,
    variant_map = 19,
    variant_byte_array = 20,
};

class INET_API Variant {
public:
    class Entry;
    class map_t;
    struct key_t;

    template <class T>
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = T*;
        using reference = T&;

        Iterator() noexcept = default;
        explicit Iterator(Entry* const* at) noexcept : at_(at) {}
        T& operator*() const noexcept { return **at_; }
        T* operator->() const noexcept { return *at_; }
        Iterator& operator++() noexcept {
            ++at_;
            return *this;
        }
        Iterator operator++(int) noexcept { return Iterator(at_++); }
        bool operator==(const Iterator&) const noexcept = default;

    private:
        Entry* const* at_ = nullptr;
    };

    /// Null.
    Variant() noexcept : type_(variant_null), array_(false), length_(0), number_(0) {}
    Variant(const Variant& other) noexcept;
    Variant(Variant&& other) noexcept;
    Variant& operator=(const Variant& other) noexcept;
    /// The other one is null afterwards.
    Variant& operator=(Variant&& other) noexcept;
    ~Variant() {
        if (holds_memory()) Reset();
    }

    /// A bool or a number; 64-bit integers keep 53 bits.
    template <class T>
    requires std::is_arithmetic_v<T> Variant& operator=(T value) noexcept {
        return set_number(number_type<T>(), static_cast<double>(value));
    }
    /// A string of any bytes, at most 2^32 - 1 of them.
    Variant& operator=(std::string_view text) noexcept;
    Variant& operator=(const char* text) noexcept { return *this = std::string_view(text ? text : ""); }
    /// A timestamp in UTC, in whole seconds. Fields out of range carry over.
    Variant& operator=(const tm& utc) noexcept;

    variant_type_t Type() const noexcept { return type_; }
    bool IsMap() const noexcept { return type_ == variant_map || type_ == variant_typed_map; }
    bool IsNumber() const noexcept { return type_ >= variant_int8 && type_ <= variant_double; }

    /// true for a bool that is, and for a number other than 0.
    explicit operator bool() const noexcept;
    /// A number; 0 or 1 of a bool; 0 of anything else.
    explicit operator double() const noexcept;
    /// The same, cut to the range of the type.
    explicit operator uint32_t() const noexcept;
    /// The bytes of a string or byte array, valid until the value changes; empty for anything else.
    explicit operator std::string_view() const noexcept;
    explicit operator std::string() const { return std::string(static_cast<std::string_view>(*this)); }
    /// UTC. 1970-01-01 for anything but the three kinds of time.
    explicit operator tm() const noexcept;

    bool operator==(std::string_view text) const noexcept;
    bool operator==(const char* text) const noexcept { return *this == std::string_view(text ? text : ""); }

    /// The value under a key. A missing entry is made, and is null. Anything but a map becomes an empty map first.
    Variant& operator[](std::string_view key) noexcept;
    Variant& operator[](uint32_t index) noexcept;
    /// The same for reading: null where there is no such entry.
    const Variant& operator[](std::string_view key) const noexcept;
    const Variant& operator[](uint32_t index) const noexcept;

    /// For readers of many entries: appends one without a look at those that are there, which takes constant time. It
    /// is null. Until Settle() only Append() and Share() may be called, and values of entries be changed. Settle() puts
    /// the entries in order and keeps the last one of each key. @return null when memory is out: the map is lost then.
    Variant* Append(std::string_view key) noexcept;
    Variant* Append(uint32_t index) noexcept;
    void Settle() noexcept;
    /// A copy in constant time that shares the entries until either side changes. No reference into this value may be
    /// used to change it afterwards.
    Variant Share() noexcept;

    /// Without regard to the case of A-Z unless `case_sensitive`.
    bool HasKey(std::string_view key, bool case_sensitive = true) const noexcept;
    void RemoveKey(std::string_view key) noexcept;
    void RemoveAt(uint32_t index) noexcept;

    /// Entries; 0 for anything but a map.
    uint32_t MapSize() const noexcept;
    /// Entries whose keys are 0, 1, 2 and so on without a gap.
    uint32_t MapDenseSize() const noexcept;

    /// Whether a map is marked as an array. Setting it makes anything but a map an empty map first.
    bool IsArray() const noexcept { return IsMap() && array_; }
    void IsArray(bool array) noexcept;
    /// Makes a string a byte array, or the other way round. Anything else is left alone.
    void IsByteArray(bool bytes) noexcept;
    /// Makes a null value undefined.
    void SetUndefined() noexcept;

    /// Class name of a typed map, valid until it changes; else empty.
    std::string_view GetTypeName() const noexcept;
    /// Makes a map a typed one. Anything but a map becomes an empty map first.
    void SetTypeName(std::string_view name) noexcept;

    /// Back to null.
    void Reset() noexcept;

    /// The entries in order. A loop may change their values, but may not add or remove entries.
    Iterator<Entry> begin() noexcept { return Iterator<Entry>(first()); }
    Iterator<Entry> end() noexcept { return Iterator<Entry>(first() + MapSize()); }
    Iterator<const Entry> begin() const noexcept { return Iterator<const Entry>(peek()); }
    Iterator<const Entry> end() const noexcept { return Iterator<const Entry>(peek() + MapSize()); }

private:
    template <class T>
    static constexpr variant_type_t number_type() noexcept {
        if constexpr (std::is_same_v<T, bool>) return variant_bool;
        if constexpr (std::is_floating_point_v<T>) return variant_double;
        constexpr int size = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
        return static_cast<variant_type_t>((std::is_signed_v<T> ? variant_int8 : variant_uint8) + size);
    }
    bool holds_memory() const noexcept {
        return IsMap() || (IsText() && length_ > short_size) || (type_ == variant_lost && length_ != 0);
    }
    bool IsText() const noexcept { return type_ == variant_string || type_ == variant_byte_array; }
    Variant& set_number(variant_type_t type, double value) noexcept;
    void take(Variant& other) noexcept;
    void share(const Variant& other) noexcept;
    Variant& set_text(variant_type_t type, std::string_view text) noexcept;
    void lose() noexcept;
    map_t* own_map() noexcept;
    Variant* append(const key_t& key) noexcept;
    Variant& at(const key_t& key) noexcept;
    const Variant& find(const key_t& key) const noexcept;
    static Variant& sink() noexcept;
    Entry* const* first() noexcept;
    Entry* const* peek() const noexcept;

    static constexpr uint32_t short_size = 16;

    variant_type_t type_;
    bool array_;  // of maps
    uint32_t
        length_;  // of strings and byte arrays: up to short_size the bytes stand in `short_`. Of a lost value: 1 when
                  // it still holds its map, into which references may lead
    union {
        double number_;  // bools, too
        int64_t seconds_;
        char* text_;
        char short_[short_size];
        map_t* map_;
    };
};

/// An entry of a map.
class Variant::Entry {
public:
    Variant value;

    bool IsIndex() const noexcept { return is_index_; }
    /// The key as an index; 0 for a text.
    uint32_t Index() const noexcept { return is_index_ ? number_ : 0; }
    /// The key as a text; empty for an index.
    std::string_view Key() const noexcept {
        return is_index_ ? std::string_view() : std::string_view(reinterpret_cast<const char*>(this + 1), number_);
    }

private:
    friend class Variant::map_t;
    Entry() noexcept = default;
    ~Entry() = default;

    uint32_t number_ = 0;  // the index, or the length of the text, which stands behind the entry
    bool is_index_ = false;
};
