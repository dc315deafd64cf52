#include "sinks.h"

#include "core/text.h"
#include "core/time.h"

#include <cstring>
#include <string_view>

namespace core::log {

namespace {

/// Collects the pieces of a line, so that a usual one is a single system call on an unbuffered file.
class line_writer {
public:
    explicit line_writer(std::FILE* out) noexcept : out_(out) {}
    line_writer(const line_writer&) = delete;
    line_writer& operator=(const line_writer&) = delete;
    ~line_writer() { flush(); }

    void put(std::string_view text) noexcept {
        if (text.size() > sizeof bytes_ - size_) flush();
        if (text.size() > sizeof bytes_) {
            std::fwrite(text.data(), 1, text.size(), out_);
            return;
        }
        std::memcpy(bytes_ + size_, text.data(), text.size());
        size_ += text.size();
    }

private:
    void flush() noexcept {
        if (size_ > 0) std::fwrite(bytes_, 1, size_, out_);
        size_ = 0;
    }

    std::FILE* out_;
    size_t size_ = 0;
    char bytes_[4096];
};

void put_head(line_writer& out, const log_line_t& line) noexcept {
    char time[40];
    out.put({time, time_format(line.time, "%Y-%m-%dT%H:%M:%S.%sZ", time, sizeof time)});
    out.put(" [");
    out.put(line.log);
    out.put("] ");
}

void put_escaped(line_writer& out, uint8_t byte) noexcept {
    constexpr std::string_view digits = "0123456789abcdef";
    out.put("\\x");
    out.put(digits.substr(byte >> 4, 1));
    out.put(digits.substr(byte & 15, 1));
}

/// C0 and C1 controls and DEL; a terminal takes the two-byte C1 forms for escape sequences as well.
constexpr bool is_control(uint32_t code) noexcept { return code < 0x20 || (code >= 0x7f && code < 0xa0); }

void put_harmless(line_writer& out, std::string_view text) noexcept {
    while (!text.empty()) {
        // The line ends of network protocols are line ends, not something to be shown.
        if (text.starts_with("\r\n")) text.remove_prefix(1);
        uint32_t code = 0;
        const size_t valid = utf8_decode(text.data(), text.size(), &code);
        const size_t used = valid ? valid : 1;
        if (valid && code == '\n') {
            out.put("\n    ");
        } else if (valid && (!is_control(code) || code == '\t')) {
            out.put(text.substr(0, used));
        } else {
            for (const char byte : text.substr(0, used))
                put_escaped(out, static_cast<uint8_t>(byte));
        }
        text.remove_prefix(used);
    }
}

}  // namespace

void write_file(void* arg, const log_line_t* line) noexcept {
    line_writer out(static_cast<std::FILE*>(arg));
    put_head(out, *line);
    put_harmless(out, line->text);
    out.put("\n");
}

void write_terminal(void* arg, const log_line_t* line) noexcept {
    constexpr std::string_view colours[] = {"", "\x1b[31m", "\x1b[32m", "\x1b[33m", "\x1b[34m"};
    const auto& terminal = *static_cast<const terminal_t*>(arg);
    const auto code = static_cast<size_t>(line->color);
    const bool coloured = terminal.colour && code > 0 && code < std::size(colours);
    line_writer out(terminal.out);
    if (coloured) out.put(colours[code]);
    put_head(out, *line);
    put_harmless(out, line->text);
    if (coloured) out.put("\x1b[0m");
    out.put("\n");
}

}  // namespace core::log
