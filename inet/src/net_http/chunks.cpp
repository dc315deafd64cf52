#include "net_http/chunks.h"

#include "bounded.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace net::http {

namespace {

using bytes = std::span<uint8_t>;

constexpr std::string_view line_end = "\r\n";
constexpr size_t longest_line = 256;
constexpr uint32_t most_trailers = 4096;

std::string_view text_of(bytes in) noexcept { return {reinterpret_cast<const char*>(in.data()), in.size()}; }

/// The line at the front of `text`; nothing when it has no end yet. A CR or LF of its own is no end to some readers and
/// one to others.
struct line_t {
    std::optional<std::string_view> text;
    bool malformed;
};

line_t first_line(std::string_view text, size_t longest) noexcept {
    const std::string_view within = text.substr(0, longest);
    const size_t end = within.find_first_of(line_end);
    if (end == std::string_view::npos) return {std::nullopt, text.size() >= longest};
    const std::string_view found = within.substr(end, 2);
    if (found == line_end) return {text.substr(0, end), false};
    return {std::nullopt, found != "\r" || within.size() == longest};
}

}  // namespace

chunks::result_t chunks::take(bytes& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept {
    full_ = false;
    for (;;) {
        const size_t held = in.size();
        const part_t was = part_;
        result_t result = result_t::end;
        switch (part_) {
            case part_t::size:
                result = take_size(in);
                break;
            case part_t::content:
                result = take_content(in, out, bound, file, line);
                break;
            case part_t::line_end:
                result = take_line_end(in);
                break;
            case part_t::trailer:
                result = take_trailer(in);
                break;
            case part_t::done:
                break;
        }
        if (result != result_t::more || full_) return result;
        if (in.size() == held && part_ == was) return result;
    }
}

chunks::result_t chunks::take_content(bytes& in, buf_t& out, uint32_t bound, const char* file, int line) noexcept {
    const uint64_t there = std::min<uint64_t>({left_, in.size(), bound - std::min(bound, out.length)});
    const auto size = static_cast<uint32_t>(there);
    full_ = !in.empty() && (size == 0 || !bounded::make_room(out, size, bound, file, line));
    if (full_ || size == 0) return result_t::more;
    core_buf_read(&out, in.data(), size);
    in = in.subspan(size);
    left_ -= size;
    if (left_ == 0) part_ = part_t::line_end;
    return result_t::more;
}

chunks::result_t chunks::take_line_end(bytes& in) noexcept {
    const std::string_view text = text_of(in).substr(0, line_end.size());
    if (!line_end.starts_with(text)) return result_t::malformed;
    if (text.size() < line_end.size()) return result_t::more;
    in = in.subspan(line_end.size());
    part_ = part_t::size;
    return result_t::more;
}

// "1a;extension\r\n"
chunks::result_t chunks::take_size(bytes& in) noexcept {
    const line_t line = first_line(text_of(in), longest_line);
    if (line.malformed) return result_t::malformed;
    if (!line.text) return result_t::more;
    std::string_view digits = line.text->substr(0, line.text->find(';'));
    digits = digits.substr(0, digits.find_last_not_of(" \t") + 1);
    const auto [stop, error] = std::from_chars(digits.data(), digits.data() + digits.size(), left_, 16);
    if (error != std::errc() || stop != digits.data() + digits.size()) return result_t::malformed;
    in = in.subspan(line.text->size() + line_end.size());
    part_ = left_ == 0 ? part_t::trailer : part_t::content;
    return result_t::more;
}

chunks::result_t chunks::take_trailer(bytes& in) noexcept {
    const line_t line = first_line(text_of(in), most_trailers - trailers_);
    if (line.malformed) return result_t::malformed;
    if (!line.text) return result_t::more;
    const size_t size = line.text->size() + line_end.size();
    trailers_ += static_cast<uint32_t>(size);
    in = in.subspan(size);
    if (!line.text->empty()) return result_t::more;
    part_ = part_t::done;
    return result_t::end;
}

}  // namespace net::http
