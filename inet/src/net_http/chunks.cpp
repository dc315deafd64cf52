#include "net_http/chunks.h"

#include "bounded.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace net::http {

namespace {

constexpr size_t longest_line = 256;
constexpr uint32_t most_trailers = 4096;

std::string_view text_of(const buf_t& in) noexcept { return {reinterpret_cast<const char*>(in.data), in.length}; }

}  // namespace

chunks::result_t chunks::take(buf_t& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept {
    full_ = false;
    for (;;) {
        const uint32_t held = in.length;
        const part_t was = part_;
        result_t result = result_t::more;
        if (part_ == part_t::content) {
            const uint64_t there = std::min<uint64_t>({left_, in.length, bound - std::min(bound, out.length)});
            const auto size = static_cast<uint32_t>(there);
            full_ = left_ > 0 && in.length > 0 && (size == 0 || !bounded::make_room(out, size, bound, file, line));
            if (full_) return result_t::more;
            core_buf_read(&out, in.data, size);
            core_buf_ignore(&in, size);
            left_ -= size;
            if (left_ == 0) part_ = part_t::line_end;
        } else if (part_ == part_t::line_end) {
            if (text_of(in).substr(0, 2) != std::string_view("\r\n").substr(0, std::min(in.length, 2U)))
                return result_t::malformed;
            if (in.length >= 2) {
                core_buf_ignore(&in, 2);
                part_ = part_t::size;
            }
        } else {
            result = part_ == part_t::size ? take_size(in) : take_trailer(in);
        }
        if (result != result_t::more) return result;
        if (in.length == held && part_ == was) return result_t::more;
    }
}

// "1a;extension\r\n"
chunks::result_t chunks::take_size(buf_t& in) noexcept {
    const std::string_view text = text_of(in);
    const size_t end = text.substr(0, longest_line).find("\r\n");
    if (end == std::string_view::npos) return text.size() < longest_line ? result_t::more : result_t::malformed;
    std::string_view digits = text.substr(0, std::min(end, text.find(';')));
    while (digits.ends_with(' ') || digits.ends_with('\t'))
        digits.remove_suffix(1);
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), left_, 16);
    if (error != std::errc() || stop != digits.data() + digits.size()) return result_t::malformed;
    core_buf_ignore(&in, static_cast<uint32_t>(end) + 2);
    part_ = left_ == 0 ? part_t::trailer : part_t::content;
    return result_t::more;
}

chunks::result_t chunks::take_trailer(buf_t& in) noexcept {
    const size_t end = text_of(in).substr(0, most_trailers).find("\r\n");
    if (end == std::string_view::npos) return in.length < most_trailers ? result_t::more : result_t::malformed;
    trailers_ += static_cast<uint32_t>(end) + 2;
    core_buf_ignore(&in, static_cast<uint32_t>(end) + 2);
    if (end == 0) return result_t::end;
    return trailers_ <= most_trailers ? result_t::more : result_t::malformed;
}

}  // namespace net::http
