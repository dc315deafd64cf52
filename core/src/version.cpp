#include "core/version.h"

#include <cstdio>
#include <string_view>

namespace {

constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";

/// 'd' stands for a digit, 'D' for a digit or a blank, 'x' for anything, everything else for itself.
bool has_form(std::string_view text, std::string_view form) noexcept {
    if (text.size() != form.size()) return false;
    for (size_t i = 0; i < form.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        const char f = form[i];
        const bool fits = f == 'x' || (f == 'd' && digit) || (f == 'D' && (digit || text[i] == ' ')) || f == text[i];
        if (!fits) return false;
    }
    return true;
}

}  // namespace

const char* core_get_version(const char* date, const char* time, char out[32]) noexcept {
    if (!out) return nullptr;
    out[0] = 0;
    if (!date || !time || !has_form(date, "xxx Dd dddd") || !has_form(time, "dd:dd:dd")) return out;
    const size_t at = months.find({date, 3});
    if (at == std::string_view::npos || at % 3 != 0) return out;
    const char tens = date[4] == ' ' ? '0' : date[4];
    const auto month = static_cast<unsigned char>(at / 3 + 1);
    std::snprintf(out, 32, "%.4s.%02hhu.%c%c.%.2s%.2s%.2s", date + 7, month, tens, date[5], time, time + 3, time + 6);
    return out;
}
