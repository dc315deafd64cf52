#include "inet/net_analytics.h"

#include "analytics/stream_xml.h"
#include "scan.h"

#include "core/buf.h"
#include "core/json.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/time.h"

#include <charconv>
#include <cstdio>
#include <ctime>
#include <initializer_list>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

namespace {

constexpr int64_t rectangle_type = 3;
constexpr double height = 65536;
constexpr char terminator = '\0';

/// A number as it is written, the same in every locale.
class number_text {
public:
    explicit number_text(int64_t value) noexcept { set(std::to_chars(text_, text_ + sizeof(text_), value)); }
    explicit number_text(double value) noexcept {
        set(std::to_chars(text_, text_ + sizeof(text_), value, std::chars_format::fixed, 1));
    }
    operator std::string_view() const noexcept { return {text_, size_}; }

private:
    void set(std::to_chars_result result) noexcept { size_ = static_cast<size_t>(result.ptr - text_); }

    char text_[32];  // the longest is -9223372036854775808.0
    size_t size_ = 0;
};

struct box {
    double left, top, right, bottom;
};

int64_t integer(const json_t* value) noexcept { return value && value->is_integer ? value->integer : 0; }

std::span<const json_t> items(const json_t* value) noexcept {
    if (!value || value->type != json_array) return {};
    return {value->items, value->count};
}

bool is_object(const json_t& value) noexcept { return value.type == json_object; }

/// The box between the first two points, y turned downwards; none for another shape or one without width or height.
std::optional<box> read_box(const json_t& shape) noexcept {
    if (!is_object(shape) || integer(json_get(&shape, "type_graphic")) != rectangle_type) return std::nullopt;
    const auto points = items(json_get(&shape, "points"));
    if (points.size() < 2 || !is_object(points[0]) || !is_object(points[1])) return std::nullopt;
    const int64_t x[] = {integer(json_get(&points[0], "x")), integer(json_get(&points[1], "x"))};
    const int64_t y[] = {integer(json_get(&points[0], "y")), integer(json_get(&points[1], "y"))};
    if (x[0] == x[1] || y[0] == y[1]) return std::nullopt;
    return box{static_cast<double>(x[0]), height - static_cast<double>(y[0]), static_cast<double>(x[1]),
               height - static_cast<double>(y[1])};
}

/// A document that begins with its first object.
class document {
public:
    document(std::string_view time, const char* file, int line) noexcept : time_(time), file_(file), line_(line) {}
    document(const document&) = delete;
    document& operator=(const document&) = delete;
    ~document() { core_buf_free(&text_); }

    void add_report(const json_t& report) noexcept {
        for (const json_t& element : items(json_get(&report, "objects"))) {
            if (!is_object(element)) continue;
            for (const json_member_t& member : std::span(element.members, element.count))
                if (std::string_view(member.name) == "rectangle") add_shape(member.value);
        }
    }

    /// @return the whole as a text for core_mfree(); null when it has no object or memory was out.
    char* finish() noexcept {
        if (text_.length == 0) return nullptr;
        put(analytics::stream_close);
        put(std::string_view(&terminator, 1));
        return complete_ ? reinterpret_cast<char*>(std::exchange(text_, {}).data) : nullptr;
    }

private:
    void add_shape(const json_t& shape) noexcept {
        const std::optional<box> found = read_box(shape);
        if (!found) return;
        if (text_.length == 0) fill(analytics::stream_open, {time_});
        const number_text left(found->left);
        const number_text top(found->top);
        const number_text right(found->right);
        const number_text bottom(found->bottom);
        const int64_t id = integer(json_get(&shape, "id"));
        // Only what carries an id of its own has a centre.
        const number_text x(id != 0 ? (found->left + found->right) / 2 : 0);
        const number_text y(id != 0 ? (found->top + found->bottom) / 2 : 0);
        fill(analytics::object, {number_text(id != 0 ? id : ++counter_), left, top, right, bottom, x, y});
    }

    /// Appends a template with a value in the place of each '%'.
    void fill(std::string_view rest, std::initializer_list<std::string_view> values) noexcept {
        for (const std::string_view value : values) {
            put(scan::take(rest, '%'));
            put(value);
        }
        put(rest);
    }

    void put(std::string_view text) noexcept {
        const auto size = static_cast<uint32_t>(text.size());
        complete_ = complete_ && core_buf_respace(&text_, size, file_, line_) &&
                    core_buf_read(&text_, text.data(), size) == size;
    }

    std::string_view time_;
    const char* file_;
    int line_;
    buf_t text_;
    int64_t counter_ = 0;
    bool complete_ = true;
};

char* convert(const char* json, std::string_view time, const char* file, int line) noexcept {
    if (!json) return nullptr;
    const core::owned<json_t, yajl_tree_free> tree(yajl_tree_parse(json, nullptr, 0));
    document stream(time, file, line);
    for (const json_t& report : items(tree.get()))
        stream.add_report(report);
    return stream.finish();
}

}  // namespace

int net_analytics_is_report(const uint8_t* data, uint32_t size) noexcept {
    constexpr std::string_view blanks = " \t\r\n";
    const std::string_view text(reinterpret_cast<const char*>(data), data ? size : 0);
    const size_t first = text.find_first_not_of(blanks);
    return first != std::string_view::npos && text[first] == '[' ? 1 : 0;
}

char* net_analytics_convert(const char* json, uint64_t time, const char* file, int line) noexcept {
    char text[64];
    const uint32_t size = time_format(time, "%Y-%m-%dT%H:%M:%S.%sZ", text, sizeof(text));
    return convert(json, {text, size}, file, line);
}

char* onvif_convert(const char* json, uint64_t time) noexcept {
    tm utc{};
    char text[64];
    if (!core_timeUtc(time, &utc)) return nullptr;
    const int size =
        std::snprintf(text, sizeof(text), "%d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                      utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(time / 1000 % 1000));
    return convert(json, {text, static_cast<size_t>(size)}, CORE_HERE);
}
