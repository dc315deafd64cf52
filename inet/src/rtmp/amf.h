// What the readers and writers of both encodings share: bounds, bytes in, bytes out. Readers throw std::bad_alloc;
// guarded() turns it into a failure.
#pragma once

#include "common/iobuffer.h"
#include "common/variant.h"
#include "core/owned.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <span>
#include <string_view>

namespace inet::rtmp::amf {

inline constexpr uint32_t max_nesting = 64;

// What one message may still make us hold.
struct budget_t {
    uint32_t values = 131072;
    uint32_t texts = 32U << 20;

    bool take(uint32_t more_values, uint64_t more_texts) noexcept {
        if (more_values > values || more_texts > texts) return false;
        values -= more_values;
        texts -= static_cast<uint32_t>(more_texts);
        return true;
    }
    // Of a whole message: its references repeat its texts within reason.
    static budget_t of_message(size_t length) noexcept {
        budget_t budget;
        budget.texts = static_cast<uint32_t>(std::min<uint64_t>(budget.texts, 65536 + uint64_t{16} * length));
        return budget;
    }
};

class input_t {
public:
    explicit input_t(std::span<const uint8_t> bytes) noexcept
        : start_(bytes.data()), at_(start_), end_(start_ + bytes.size()) {}

    size_t left() const noexcept { return static_cast<size_t>(end_ - at_); }
    uint32_t used() const noexcept { return static_cast<uint32_t>(at_ - start_); }
    bool has(size_t n) const noexcept { return left() >= n; }
    uint8_t peek(size_t ahead = 0) const noexcept { return at_[ahead]; }
    void skip(size_t n) noexcept { at_ += n; }

    // These need the bytes to be there.
    uint8_t u8() noexcept { return *at_++; }
    uint16_t u16() noexcept { return static_cast<uint16_t>(number<2>()); }
    uint32_t u32() noexcept { return static_cast<uint32_t>(number<4>()); }
    double f64() noexcept { return std::bit_cast<double>(number<8>()); }

    bool text(size_t length, std::string_view& out) noexcept {
        if (!has(length)) return false;
        out = {reinterpret_cast<const char*>(at_), length};
        at_ += length;
        return true;
    }
    // Skips a byte; false when another one is next.
    bool marker(uint8_t wanted) noexcept {
        if (!has(1) || *at_ != wanted) return false;
        ++at_;
        return true;
    }

private:
    template <int bytes>
    uint64_t number() noexcept {
        uint64_t value = 0;
        for (int i = 0; i < bytes; ++i)
            value = value << 8 | at_[i];
        at_ += bytes;
        return value;
    }

    const uint8_t* start_;
    const uint8_t* at_;
    const uint8_t* end_;
};

// Appends to a buffer, which gets to know the bytes when all is written.
class output_t {
public:
    explicit output_t(IOBuffer& buffer) noexcept : buffer_(buffer), before_(buffer.Size()) {}

    // Keeps what was written, or drops all of it.
    bool finish(bool good) noexcept {
        publish();
        if (good && !failed_) return true;
        buffer_.Truncate(before_);
        return false;
    }

    bool u8(uint8_t value) noexcept { return number<1>(value); }
    bool u16(uint16_t value) noexcept { return number<2>(value); }
    bool u32(uint32_t value) noexcept { return number<4>(value); }
    bool f64(double value) noexcept { return number<8>(std::bit_cast<uint64_t>(value)); }
    bool text(std::string_view text) noexcept {
        if (!room(text.size())) return false;
        if (!text.empty()) std::memcpy(at_, text.data(), text.size());
        at_ += text.size();
        return true;
    }

private:
    template <int bytes>
    bool number(uint64_t value) noexcept {
        if (!room(bytes)) return false;
        for (int i = 0; i < bytes; ++i)
            at_[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
        at_ += bytes;
        return true;
    }
    bool room(size_t n) noexcept { return n <= static_cast<size_t>(end_ - at_) || grow(n); }
    bool grow(size_t n) noexcept {
        publish();
        // As much again as there is, so that many small pieces are asked for seldom.
        const uint64_t wanted = std::max<uint64_t>({n, 256, buffer_.Size()});
        start_ = wanted <= UINT32_MAX ? buffer_.Reserve(static_cast<uint32_t>(wanted)) : nullptr;
        at_ = start_;
        end_ = start_ ? start_ + wanted : nullptr;
        failed_ |= start_ == nullptr;
        return start_ != nullptr;
    }
    void publish() noexcept {
        buffer_.Publish(static_cast<uint32_t>(at_ - start_));
        start_ = at_;
    }

    IOBuffer& buffer_;
    uint32_t before_;
    bool failed_ = false;
    uint8_t* start_ = nullptr;
    uint8_t* at_ = nullptr;
    uint8_t* end_ = nullptr;
};

template <class Work>
bool guarded(Work work) noexcept {
    try {
        return work();
    } catch (...) {
        return false;
    }
}

// Runs a reader over a buffer, whose cursor then stands where the reader came to.
template <class Work>
bool read_from(IOBuffer& buffer, Work work) noexcept {
    input_t in(buffer.Readable());
    const bool good = guarded([&] { return work(in); });
    buffer.Ignore(in.used());
    return good;
}

template <class Work>
bool write_to(IOBuffer& buffer, Work work) noexcept {
    output_t out(buffer);
    return out.finish(guarded([&] { return work(out); }));
}

// Times as milliseconds since 1970-01-01 UTC. Those that no calendar from year 0 to 9999 has are cut to that range.
tm time_of(double milliseconds) noexcept;
double milliseconds_of(const tm& utc) noexcept;

// "__index__value__7": what an index is called where names are texts.
inline constexpr std::string_view index_prefix = "__index__value__";
using name_room_t = char[32];
std::string_view name_of(const Variant::Entry& entry, name_room_t& room) noexcept;

// One value with its marker. `nesting` counts the maps and arrays around it.
bool read_amf0(input_t& in, Variant& out, budget_t& budget, uint32_t nesting);
bool write_amf0(output_t& out, const Variant& value, uint32_t nesting) noexcept;
// AMF3 with tables of its own.
bool read_amf3(input_t& in, Variant& out, budget_t& budget, uint32_t nesting);
bool write_amf3(output_t& out, const Variant& value, uint32_t nesting) noexcept;

}  // namespace inet::rtmp::amf
