#include "core/json.h"

#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"
#include "core/text_error.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <string_view>
#include <system_error>

namespace {

constexpr size_t largest_text = size_t{64} << 20;
constexpr size_t largest_tree = largest_text;
constexpr size_t deepest = 128;

/// What a byte means outside strings and numbers.
enum class mark : uint8_t { none, blank, quote, open, close, comma, end };

constexpr auto marks = [] {
    std::array<mark, 256> table{};
    for (const char c : {' ', '\t', '\r', '\n'})
        table[static_cast<uint8_t>(c)] = mark::blank;
    for (const char c : {'[', '{'})
        table[static_cast<uint8_t>(c)] = mark::open;
    for (const char c : {']', '}'})
        table[static_cast<uint8_t>(c)] = mark::close;
    table['"'] = mark::quote;
    table[','] = mark::comma;
    table['\0'] = mark::end;
    return table;
}();

/// Bytes that stand for themselves inside a string.
constexpr auto plain = [] {
    std::array<bool, 256> table{};
    for (size_t c = 0x20; c < 0x80; ++c)
        table[c] = c != '"' && c != '\\';
    return table;
}();

/// The letters of short escapes and what they stand for (section 7).
constexpr std::string_view short_escapes = "\"\\/bfnrt";
constexpr std::string_view short_escaped = "\"\\/\b\f\n\r\t";

mark mark_of(char c) noexcept { return marks[static_cast<uint8_t>(c)]; }
bool is_plain(char c) noexcept { return plain[static_cast<uint8_t>(c)]; }
bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

/// The room that a text's values and strings take, found before anything is made: so that the tree is one block and
/// every value is written where it stays. The survey only counts; where the text is malformed it ends, as the reader
/// will.
class survey {
public:
    explicit survey(const char* text) {
        for (const char* at = text; walk(text, at) && !too_large(); ++at) {
        }
    }

    bool too_large() const noexcept { return value_bytes + string_bytes > largest_tree; }

    core::vector<uint32_t> slots;  ///< children of each array and object, in the order in which they open
    size_t value_bytes = 0;
    size_t string_bytes = 0;

private:
    struct open_t {
        size_t index;
        size_t slot_size;
    };

    /// Takes in what stands at `at`. @return false when the survey ends.
    bool walk(const char* text, const char*& at) {
        switch (mark_of(*at)) {
            case mark::quote:
                return skip_string(at);
            case mark::open:
                return open(*at == '{' ? sizeof(json_member_t) : sizeof(json_t));
            case mark::comma:
                return add_slot(follows_value(text, at));
            case mark::close:
                return close(follows_value(text, at));
            case mark::end:
                return false;
            default:
                return true;
        }
    }

    bool skip_string(const char*& at) noexcept {
        const char* const first = at++;
        while (*at != '"' && *at != '\0')
            at += *at == '\\' && at[1] != '\0' ? 2 : 1;
        // The terminator takes the place of one quote. A string without an end counts, too: it is read up to there.
        string_bytes += static_cast<size_t>(at - first);
        return *at == '"';
    }

    bool open(size_t slot_size) {
        if (depth_ == deepest) return false;
        open_[depth_++] = {slots.size(), slot_size};
        slots.push_back(0);
        return add_slot(true);
    }

    bool add_slot(bool well_formed) noexcept {
        if (!well_formed || depth_ == 0) return false;
        ++slots[open_[depth_ - 1].index];
        value_bytes += open_[depth_ - 1].slot_size;
        return true;
    }

    bool close(bool has_children) noexcept {
        if (depth_ == 0) return false;
        const open_t closed = open_[--depth_];
        if (!has_children && slots[closed.index] == 1) {
            slots[closed.index] = 0;
            value_bytes -= closed.slot_size;
        }
        return true;
    }

    /// Whether something other than an opening bracket or a comma stands before `at`: were it not so, commas alone
    /// would claim far more memory than the text has bytes.
    static bool follows_value(const char* text, const char* at) noexcept {
        while (at > text && mark_of(at[-1]) == mark::blank)
            --at;
        if (at == text) return false;
        const mark before = mark_of(at[-1]);
        return before != mark::open && before != mark::comma;
    }

    std::array<open_t, deepest> open_;
    size_t depth_ = 0;
};

/// Reads a text into the block that its survey measured. Every reading function returns false at the first fault, which
/// stands at `at()`.
class reader {
public:
    reader(std::string_view text, const survey& found, std::byte* values, char* strings) noexcept
        : at_(text.data()), end_(text.data() + text.size()), slots_(found.slots), values_(values), strings_(strings) {}

    bool read(json_t* root) noexcept {
        skip_blanks();
        if (!read_value(root, 0)) return false;
        skip_blanks();
        return at_ == end_ || fail("text after the value");
    }

    const char* at() const noexcept { return at_; }
    const char* reason() const noexcept { return reason_; }

private:
    bool fail(const char* reason) noexcept {
        reason_ = reason;
        return false;
    }

    void skip_blanks() noexcept {
        while (mark_of(*at_) == mark::blank)
            ++at_;
    }

    /// Skips a character and the blanks around it. @return false when another one stands there.
    bool skip(char c) noexcept {
        skip_blanks();
        if (*at_ != c) return false;
        ++at_;
        skip_blanks();
        return true;
    }

    bool read_value(json_t* out, size_t depth) noexcept {
        *out = {};
        switch (*at_) {
            case '{':
                return read_object(out, depth);
            case '[':
                return read_array(out, depth);
            case '"':
                out->type = json_string;
                return read_string(&out->text, &out->length);
            case 't':
                return read_literal(out, "true", json_true);
            case 'f':
                return read_literal(out, "false", json_false);
            case 'n':
                return read_literal(out, "null", json_null);
            default:
                return read_number(out);
        }
    }

    bool read_literal(json_t* out, std::string_view literal, json_type_t type) noexcept {
        out->type = type;
        if (std::strncmp(at_, literal.data(), literal.size()) != 0) return fail("value expected");
        at_ += literal.size();
        return true;
    }

    bool read_array(json_t* out, size_t depth) noexcept {
        json_t* items = nullptr;
        const auto read_item = [&](json_t* item) { return read_value(item, depth + 1); };
        if (!read_children(depth, "comma or ] expected", ']', &items, &out->count, read_item)) return false;
        out->type = json_array;
        out->items = items;
        return true;
    }

    bool read_object(json_t* out, size_t depth) noexcept {
        json_member_t* members = nullptr;
        const auto read_member = [&](json_member_t* member) {
            if (*at_ != '"') return fail("name expected");
            size_t length = 0;
            if (!read_string(&member->name, &length)) return false;
            return skip(':') ? read_value(&member->value, depth + 1) : fail("colon expected");
        };
        if (!read_children(depth, "comma or } expected", '}', &members, &out->count, read_member)) return false;
        out->type = json_object;
        out->members = members;
        return true;
    }

    /// Reads what stands between two brackets into the slots that the survey counted for it.
    template <class Child, class Read>
    bool read_children(size_t depth, const char* expected, char close, Child** children, uint32_t* count,
                       Read read_child) noexcept {
        if (depth == deepest) return fail("nested too deep");
        ++at_;
        skip_blanks();
        const uint32_t slots = slots_[opened_++];
        *children = reinterpret_cast<Child*>(values_);
        values_ += slots * sizeof(Child);
        if (*at_ == close) return skip_close();
        do {
            if (*count == slots) return fail("value expected");
            if (!read_child(::new (*children + *count) Child)) return false;
            ++*count;
        } while (skip(','));
        return *at_ == close ? skip_close() : fail(expected);
    }

    bool skip_close() noexcept {
        ++at_;
        return true;
    }

    bool read_string(const char** text, size_t* length) noexcept {
        char* const start = strings_;
        char* out = start;
        ++at_;
        while (*at_ != '"') {
            if (is_plain(*at_))
                copy_plain(out);
            else if (!(*at_ == '\\' ? read_escape(out) : read_utf8(out)))
                return false;
        }
        ++at_;
        *out = '\0';
        *text = start;
        *length = static_cast<size_t>(out - start);
        strings_ = out + 1;
        return true;
    }

    void copy_plain(char*& out) noexcept {
        // Through locals: what is written could be the reader's own members, for all the compiler knows.
        const char* from = at_;
        char* to = out;
        while (is_plain(*from))
            *to++ = *from++;
        at_ = from;
        out = to;
    }

    bool read_utf8(char*& out) noexcept {
        uint32_t code = 0;
        const size_t size = utf8_decode(at_, static_cast<size_t>(end_ - at_), &code);
        if (at_ == end_) return fail("string without an end");
        if (size == 0) return fail("not UTF-8");
        if (code < 0x20) return fail("control character in a string");
        std::memcpy(out, at_, size);
        out += size;
        at_ += size;
        return true;
    }

    bool read_escape(char*& out) noexcept {
        const char letter = at_[1];
        if (letter == 'u') return read_unicode_escape(out);
        const size_t found = short_escapes.find(letter);
        if (found == std::string_view::npos) return fail("unknown escape");
        *out++ = short_escaped[found];
        at_ += 2;
        return true;
    }

    /// \uXXXX, or two of them for a character above U+FFFF (section 7).
    bool read_unicode_escape(char*& out) noexcept {
        uint32_t code = 0;
        size_t size = 6;
        if (!read_hex4(at_ + 2, &code)) return fail("four hexadecimal digits expected");
        if (code >= 0xdc00 && code <= 0xdfff) return fail("half a surrogate pair");
        if (code >= 0xd800 && code <= 0xdbff) {
            uint32_t low = 0;
            const bool is_pair = at_[6] == '\\' && at_[7] == 'u' && read_hex4(at_ + 8, &low);
            if (!is_pair || low < 0xdc00 || low > 0xdfff) return fail("half a surrogate pair");
            code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
            size = 12;
        }
        out += utf8_encode(code, out);
        at_ += size;
        return true;
    }

    /// The text's terminator is no digit: nothing is read behind it.
    static bool read_hex4(const char* text, uint32_t* value) noexcept {
        size_t digits = 0;
        while (digits < 4 && (is_digit(text[digits]) || ((text[digits] | 0x20) >= 'a' && (text[digits] | 0x20) <= 'f')))
            ++digits;
        return digits == 4 && std::from_chars(text, text + 4, *value, 16).ec == std::errc();
    }

    bool read_number(json_t* out) noexcept {
        const char* const first = at_;
        const char* digit = first + (*first == '-');
        if (!is_digit(*digit)) return fail("value expected");
        const char* last = skip_digits(digit);
        if (*digit == '0' && last > digit + 1) return fail("number with a leading zero");
        bool is_whole = true;
        if (*last == '.') {
            is_whole = false;
            if (!is_digit(*++last)) return fail("digit expected");
            last = skip_digits(last);
        }
        if ((*last | 0x20) == 'e') {
            is_whole = false;
            ++last;
            if (*last == '+' || *last == '-') ++last;
            if (!is_digit(*last)) return fail("digit expected");
            last = skip_digits(last);
        }
        at_ = last;
        convert({first, static_cast<size_t>(last - first)}, is_whole, out);
        return true;
    }

    static const char* skip_digits(const char* at) noexcept {
        while (is_digit(*at))
            ++at;
        return at;
    }

    static void convert(std::string_view text, bool is_whole, json_t* out) noexcept {
        const char* const last = text.data() + text.size();
        out->type = json_number;
        if (is_whole && std::from_chars(text.data(), last, out->integer).ec == std::errc()) {
            out->is_integer = true;
            out->number = text == "-0" ? -0.0 : static_cast<double>(out->integer);
            return;
        }
        const auto [end, error] = std::from_chars(text.data(), last, out->number);
        if (error != std::errc() || std::isinf(out->number)) out->number = out_of_range(text);
        constexpr double limit = 0x1p63;
        out->integer = out->number >= limit    ? std::numeric_limits<int64_t>::max()
                       : out->number <= -limit ? std::numeric_limits<int64_t>::min()
                                               : static_cast<int64_t>(out->number);
    }

    /// What stands for a number that no double is near to: the largest, or zero. Which of the two tells the place of
    /// its first digit other than 0, moved by the exponent.
    static double out_of_range(std::string_view text) noexcept {
        const double sign = text[0] == '-' ? -1 : 1;
        const size_t exponent_at = std::min(text.find_first_of("eE"), text.size());
        const std::string_view digits = text.substr(0, exponent_at);
        const auto point = static_cast<int64_t>(std::min(digits.find('.'), digits.size()));
        const size_t first = digits.find_first_of("123456789");
        if (first == std::string_view::npos) return sign * 0.0;
        const int64_t place = point - static_cast<int64_t>(first);
        constexpr int64_t farthest = int64_t{1} << 40;  // outweighs every digit of the longest text
        int64_t exponent = 0;
        if (exponent_at < text.size()) {
            const bool is_negative = text[exponent_at + 1] == '-';
            const std::string_view power = text.substr(exponent_at + 1 + !is_digit(text[exponent_at + 1]));
            const auto read = std::from_chars(power.data(), power.data() + power.size(), exponent);
            exponent = read.ec == std::errc() ? std::min(exponent, farthest) : farthest;
            if (is_negative) exponent = -exponent;
        }
        return place + exponent > 0 ? sign * std::numeric_limits<double>::max() : sign * 0.0;
    }

    const char* at_;
    const char* const end_;
    const core::vector<uint32_t>& slots_;
    size_t opened_ = 0;
    std::byte* values_;
    char* strings_;
    const char* reason_ = "";
};

/// Surveys and reads a text of at most the largest size.
json_t* read_text(std::string_view text, char* error, size_t error_size) {
    constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
    const std::string_view body = text.starts_with(byte_order_mark) ? text.substr(byte_order_mark.size()) : text;
    const survey found(body.data());
    if (found.too_large()) {
        core::write_error(error, error_size, "tree too large");
        return nullptr;
    }
    auto* block =
        static_cast<std::byte*>(core_malloc(sizeof(json_t) + found.value_bytes + found.string_bytes, CORE_HERE));
    if (!block) throw std::bad_alloc();
    core::owned<json_t> root(::new (block) json_t);
    std::byte* const values = block + sizeof(json_t);
    reader reading(body, found, values, reinterpret_cast<char*>(values + found.value_bytes));
    if (reading.read(root.get())) return root.release();
    const auto offset = static_cast<size_t>(reading.at() - text.data());
    core::write_text_error(error, error_size, text, offset, reading.reason());
    return nullptr;
}

/// Escapes a text, counted only when `out` is null.
size_t escape(const char* text, size_t size, char* out) noexcept {
    size_t made = 0;
    const auto put = [&](const char* bytes, size_t count) {
        if (out) std::memcpy(out + made, bytes, count);
        made += count;
    };
    while (size > 0) {
        uint32_t code = 0;
        const size_t read = utf8_decode(text, size, &code);
        const size_t found = read == 1 && *text != '/' ? short_escaped.find(*text) : std::string_view::npos;
        char escaped[8];
        if (read == 0) {
            put(escaped, utf8_encode(0xfffd, escaped));
        } else if (found != std::string_view::npos) {
            const char pair[] = {'\\', short_escapes[found]};
            put(pair, sizeof(pair));
        } else if (code < 0x20) {
            put(escaped, static_cast<size_t>(std::snprintf(escaped, sizeof(escaped), "\\u%04x", code)));
        } else {
            put(text, read);
        }
        text += read ? read : 1;
        size -= read ? read : 1;
    }
    return made;
}

}  // namespace

json_t* yajl_tree_parse(const char* text, char* error, size_t error_size) noexcept {
    core::write_error(error, error_size, "");
    if (!text) {
        core::write_error(error, error_size, "no text");
        return nullptr;
    }
    const void* end = std::memchr(text, '\0', largest_text + 1);
    if (!end) {
        core::write_error(error, error_size, "text too large");
        return nullptr;
    }
    try {
        return read_text({text, static_cast<size_t>(static_cast<const char*>(end) - text)}, error, error_size);
    } catch (const std::bad_alloc&) {
        core::write_error(error, error_size, "out of memory");
        return nullptr;
    }
}

void yajl_tree_free(json_t* root) noexcept { core_mfree(root); }

const json_t* json_get(const json_t* value, const char* name) noexcept {
    if (!value || value->type != json_object || !name) return nullptr;
    for (uint32_t i = 0; i < value->count; ++i)
        if (std::strcmp(value->members[i].name, name) == 0) return &value->members[i].value;
    return nullptr;
}

const char* json_text(const json_t* value) noexcept {
    return value && value->type == json_string ? value->text : nullptr;
}

int64_t json_integer(const json_t* value, int64_t missing) noexcept {
    return value && value->type == json_number ? value->integer : missing;
}

char* core_json_encode(const char* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    const size_t size = std::strlen(text);
    const size_t length = escape(text, size, nullptr);
    auto* result = static_cast<char*>(core_malloc(length + 1, file, line));
    if (!result) return nullptr;
    escape(text, size, result);
    result[length] = '\0';
    return result;
}
