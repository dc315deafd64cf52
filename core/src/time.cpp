#include "core/time.h"

#include "platform/system.h"

#include "core/memory.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string_view>

namespace {

constexpr uint64_t us_per_second = 1'000'000;
constexpr int64_t seconds_per_day = 86'400;
constexpr int64_t years_in_period = 400;
constexpr int64_t days_in_period = 146'097;

constinit std::atomic<uint64_t (*)()> test_clock = nullptr;
constinit std::atomic<uint64_t> last_now = 0;

uint64_t steady_microseconds() noexcept {
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}

/// Days from 1970-01-01 to the first of a month.
int64_t days_to_month(int64_t years_since_1970, unsigned month) noexcept {
    // The calendar repeats every 400 years of 146097 days; std::chrono::year holds no more than 16 bits.
    const std::chrono::year year(1970 + static_cast<int>(years_since_1970 % years_in_period));
    const auto days = std::chrono::sys_days(year / std::chrono::month(month) / 1).time_since_epoch().count();
    return years_since_1970 / years_in_period * days_in_period + days;
}

/// Writes as far as there is room and counts what there would be.
class pattern_writer {
public:
    pattern_writer(char* out, size_t size) noexcept : out_(out), size_(size) {}

    void put(char c) noexcept {
        if (length_ < size_) out_[length_] = c;
        ++length_;
    }
    void put(std::string_view text) noexcept {
        for (const char c : text)
            put(c);
    }
    void number(int64_t value, int width, char fill = '0') noexcept {
        char digits[20];
        int count = 0;
        do {
            digits[count++] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value);
        for (int i = count; i < width; ++i)
            put(fill);
        while (count)
            put(digits[--count]);
    }
    size_t length() const noexcept { return length_; }

private:
    char* out_;
    size_t size_;
    size_t length_ = 0;
};

constexpr std::string_view day_names[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};
constexpr std::string_view month_names[] = {"January", "February", "March",     "April",   "May",      "June",
                                            "July",    "August",   "September", "October", "November", "December"};

/// A conversion that stands for a longer pattern, as in the C locale.
constexpr struct {
    char conversion;
    const char* pattern;
} composites[] = {
    {'c', "%a %b %e %H:%M:%S %Y"},
    {'D', "%m/%d/%y"},
    {'F', "%Y-%m-%d"},
    {'r', "%I:%M:%S %p"},
    {'R', "%H:%M"},
    {'T', "%H:%M:%S"},
    {'x', "%m/%d/%y"},
    {'X', "%H:%M:%S"},
};

bool is_leap(int64_t year) noexcept { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

struct week_date {
    int64_t year;
    int week;
};

/// ISO 8601: week 1 is the one with the year's first Thursday, weeks start on Monday.
week_date iso_week(const tm& t) noexcept {
    const int64_t year = int64_t{t.tm_year} + 1900;
    const int since_monday = (t.tm_wday + 6) % 7;
    const int thursday = t.tm_yday - since_monday + 3;
    if (thursday < 0) return {year - 1, (thursday + (is_leap(year - 1) ? 366 : 365)) / 7 + 1};
    const int days = is_leap(year) ? 366 : 365;
    if (thursday >= days) return {year + 1, 1};
    return {year, thursday / 7 + 1};
}

void render(pattern_writer& out, const char* pattern, const tm& t, uint64_t us) noexcept;

void convert(pattern_writer& out, char conversion, const tm& t, uint64_t us) noexcept {
    const int64_t year = int64_t{t.tm_year} + 1900;
    const int hour12 = t.tm_hour % 12 == 0 ? 12 : t.tm_hour % 12;
    switch (conversion) {
        case 'a':
            return out.put(day_names[t.tm_wday].substr(0, 3));
        case 'A':
            return out.put(day_names[t.tm_wday]);
        case 'b':
        case 'h':
            return out.put(month_names[t.tm_mon].substr(0, 3));
        case 'B':
            return out.put(month_names[t.tm_mon]);
        case 'C':
            return out.number(year / 100, 2);
        case 'd':
            return out.number(t.tm_mday, 2);
        case 'e':
            return out.number(t.tm_mday, 2, ' ');
        case 'g':
            return out.number(iso_week(t).year % 100, 2);
        case 'G':
            return out.number(iso_week(t).year, 1);
        case 'H':
            return out.number(t.tm_hour, 2);
        case 'I':
            return out.number(hour12, 2);
        case 'j':
            return out.number(t.tm_yday + 1, 3);
        case 'm':
            return out.number(t.tm_mon + 1, 2);
        case 'M':
            return out.number(t.tm_min, 2);
        case 'n':
            return out.put('\n');
        case 'p':
            return out.put(t.tm_hour < 12 ? "AM" : "PM");
        case 's':
            return out.number(static_cast<int64_t>(us % us_per_second / 1000), 3);
        case 'S':
            return out.number(t.tm_sec, 2);
        case 't':
            return out.put('\t');
        case 'u':
            return out.number(t.tm_wday == 0 ? 7 : t.tm_wday, 1);
        case 'U':
            return out.number((t.tm_yday + 7 - t.tm_wday) / 7, 2);
        case 'V':
            return out.number(iso_week(t).week, 2);
        case 'w':
            return out.number(t.tm_wday, 1);
        case 'W':
            return out.number((t.tm_yday + 7 - (t.tm_wday + 6) % 7) / 7, 2);
        case 'y':
            return out.number(year % 100, 2);
        case 'Y':
            return out.number(year, 1);
        case 'z':
            return out.put("+0000");
        case 'Z':
            return out.put("GMT");
        case '%':
            return out.put('%');
        default:
            break;
    }
    for (const auto& composite : composites) {
        if (composite.conversion == conversion) return render(out, composite.pattern, t, us);
    }
    // An unknown conversion shows as it stands, so that the mistake is seen.
    out.put('%');
    out.put(conversion);
}

void render(pattern_writer& out, const char* pattern, const tm& t, uint64_t us) noexcept {
    for (const char* p = pattern; *p; ++p) {
        if (*p == '%' && p[1]) {
            convert(out, *++p, t, us);
        } else {
            out.put(*p);
        }
    }
}

/// @return the length of the whole text, which is cut to `size`.
size_t format(uint64_t us, const char* pattern, char* out, size_t size) noexcept {
    tm fields{};
    core_timeUtc(us, &fields);
    pattern_writer writer(out, size);
    render(writer, pattern, fields, us);
    return writer.length();
}

}  // namespace

uint64_t core_timer() noexcept {
    const auto clock = test_clock.load(std::memory_order_acquire);
    return clock ? clock() : steady_microseconds();
}

uint64_t time_now() noexcept {
    const auto clock = test_clock.load(std::memory_order_acquire);
    const uint64_t now = clock ? clock() : core::platform::utc_now();
    uint64_t last = last_now.load();
    while (now > last) {
        if (last_now.compare_exchange_weak(last, now)) return now;
    }
    return last;
}

uint64_t time_now_local() noexcept {
    const uint64_t now = time_now();
    const int64_t offset = core::platform::local_offset(static_cast<int64_t>(now / us_per_second));
    return now + static_cast<uint64_t>(offset) * us_per_second;
}

int core_timeUtc(uint64_t us, tm* out) noexcept {
    if (!out) return 0;
    const auto seconds = static_cast<int64_t>(us / us_per_second);
    const int64_t days = seconds / seconds_per_day;
    const auto second = static_cast<int>(seconds % seconds_per_day);
    const std::chrono::sys_days in_period{std::chrono::days(days % days_in_period)};
    const std::chrono::year_month_day date(in_period);
    const auto first = std::chrono::sys_days(date.year() / std::chrono::January / 1);
    *out = tm{};
    out->tm_year = static_cast<int>(static_cast<int>(date.year()) + days / days_in_period * years_in_period - 1900);
    out->tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
    out->tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
    out->tm_yday = static_cast<int>((in_period - first).count());
    out->tm_wday = static_cast<int>((days + 4) % 7);  // 1970-01-01 was a Thursday
    out->tm_hour = second / 3600;
    out->tm_min = second / 60 % 60;
    out->tm_sec = second % 60;
    return 1;
}

int64_t core_timegm(const tm* fields) noexcept {
    if (!fields) return 0;
    int64_t year = int64_t{fields->tm_year} - 70;
    int64_t month = fields->tm_mon;
    year += month / 12;
    month %= 12;
    if (month < 0) {
        month += 12;
        --year;
    }
    const int64_t days = days_to_month(year, static_cast<unsigned>(month) + 1) + fields->tm_mday - 1;
    return ((days * 24 + fields->tm_hour) * 60 + fields->tm_min) * 60 + fields->tm_sec;
}

int core_time_from_stamp(const char* text, uint32_t size, uint64_t* us) noexcept {
    constexpr std::string_view forms[] = {"00000000T000000Z", "00000000T000000.000Z"};
    const std::string_view stamp(text, text ? size : 0);
    const auto fits = [&](std::string_view form) {
        return std::ranges::equal(
            stamp, form, [](char c, char in_form) { return in_form == '0' ? c >= '0' && c <= '9' : c == in_form; });
    };
    if (!us || std::ranges::none_of(forms, fits)) return 0;
    const auto number = [&](size_t at, size_t digits) {
        int value = 0;
        for (const char c : stamp.substr(at, digits))
            value = value * 10 + (c - '0');
        return value;
    };
    tm fields{};
    fields.tm_year = number(0, 4) - 1900;
    fields.tm_mon = number(4, 2) - 1;
    fields.tm_mday = number(6, 2);
    fields.tm_hour = number(9, 2);
    fields.tm_min = number(11, 2);
    fields.tm_sec = number(13, 2);
    const int64_t seconds = core_timegm(&fields);
    if (seconds < 0) return 0;
    const int milliseconds = stamp.size() == forms[1].size() ? number(16, 3) : 0;
    *us = static_cast<uint64_t>(seconds) * 1'000'000 + static_cast<uint64_t>(milliseconds) * 1000;
    return 1;
}

char* core_str_from_time(uint64_t us, const char* pattern, const char* file, int line) noexcept {
    if (!pattern) return nullptr;
    const size_t length = format(us, pattern, nullptr, 0);
    const auto text = static_cast<char*>(core_malloc(length + 1, file, line));
    if (!text) return nullptr;
    format(us, pattern, text, length);
    text[length] = 0;
    return text;
}

uint32_t time_format(uint64_t us, const char* pattern, char* out, uint32_t size) noexcept {
    if (!out || size == 0) return 0;
    const size_t length = pattern ? std::min<size_t>(format(us, pattern, out, size - 1), size - 1) : 0;
    out[length] = 0;
    return static_cast<uint32_t>(length);
}

uint64_t time_to_FileTime(uint64_t us) noexcept {
    constexpr uint64_t from_1601_to_1970 = 116'444'736'000'000'000;
    return us * 10 + from_1601_to_1970;
}

void core_time_set_clock(uint64_t (*clock)()) noexcept {
    test_clock.store(clock, std::memory_order_release);
    last_now = 0;
}
