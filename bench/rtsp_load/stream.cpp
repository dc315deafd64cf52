#include "stream.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string_view>
#include <utility>

namespace load {
namespace {

constexpr size_t rtp_header = 12;
constexpr size_t longest_response = 64u << 10;
enum nal : uint8_t { idr = 5, sps = 7, stap_a = 24, fu_a = 28 };

/// The packet carries a piece of a key picture, or the parameter sets that stand before one.
bool is_key(bytes head) {
    if (head.size() < rtp_header + 4) return false;
    const auto type = [head](size_t at) { return static_cast<uint8_t>(head[rtp_header + at] & 31); };
    uint8_t found = type(0);
    if (found == fu_a) found = type(1);
    if (found == stap_a) found = type(3);
    return found == idr || found == sps;
}

uint32_t big_endian(bytes from, size_t at, size_t count) {
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i)
        value = value << 8 | from[at + i];
    return value;
}

bool same_letter(char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

}  // namespace

int64_t clock_now() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

void video_stream::take(bytes head, size_t length, int64_t now, bool measuring) {
    if (head.size() < rtp_header || head[0] >> 6 != 2) return;
    const uint32_t timestamp = big_endian(head, 4, 4);
    take_sequence(static_cast<uint16_t>(big_endian(head, 2, 2)), measuring);
    if (!begun_) {
        begun_ = true;
        first_timestamp_ = timestamp_ = timestamp;
        first_arrival_ = now;
    }
    if (timestamp != timestamp_) finish_picture(timestamp, measuring);
    timestamp_ = timestamp;
    arrival_ = now;
    key_ = key_ || is_key(head);
    if (!measuring) return;
    bytes_taken += length;
    ++packets;
}

void video_stream::take_sequence(uint16_t sequence, bool measuring) {
    const auto step = static_cast<int16_t>(sequence - next_sequence_);
    if (begun_ && measuring) {
        // One that comes late was counted as lost before.
        if (step > 0) lost += static_cast<uint64_t>(step);
        if (step < 0 && lost > 0) --lost;
    }
    if (!begun_ || step >= 0) next_sequence_ = static_cast<uint16_t>(sequence + 1);
}

void video_stream::finish_picture(uint32_t next, bool measuring) {
    if (!first_picture_ && key_) first_picture_ = arrival_;
    key_ = false;
    if (!measuring) return;
    const auto step = static_cast<int32_t>(next - timestamp_);
    const auto passed = static_cast<int32_t>(timestamp_ - first_timestamp_);
    ++pictures;
    // The steps of a clock that was rounded differ by some ticks.
    if (step > 0) missing += (static_cast<uint32_t>(step) + ticks_ / 2) / ticks_ - 1;
    transit.push_back(static_cast<int32_t>(arrival_ - first_arrival_ - int64_t{passed} * 100 / 9));
}

bool interleaved_stream::feed(bytes in) {
    while (!in.empty()) {
        if (skip_) {
            const size_t count = std::min(skip_, in.size());
            skip_ -= count;
            in = in.subspan(count);
        } else if (!text_.empty() || (filled_ == 0 && in.front() != '$')) {
            if (!take_text(in)) return false;
        } else {
            take_head(in);
        }
    }
    return true;
}

void interleaved_stream::take_head(bytes& in) {
    const auto length = [this] { return big_endian(head_, 2, 2); };
    size_t wanted = filled_ < 4 ? 4 : 4 + std::min<size_t>(length(), head_size);
    const size_t count = std::min(wanted - filled_, in.size());
    std::memcpy(&head_[filled_], in.data(), count);
    filled_ += count;
    in = in.subspan(count);
    if (filled_ < 4) return;
    wanted = 4 + std::min<size_t>(length(), head_size);
    if (filled_ < wanted) return;
    on_packet(head_[1], bytes(head_).subspan(4, wanted - 4), length());
    skip_ = length() - (wanted - 4);
    filled_ = 0;
}

bool interleaved_stream::take_text(bytes& in) {
    // A byte at a time up to the end of the header: responses are few.
    while (!in.empty() && !header_ended_) {
        text_.push_back(static_cast<char>(in.front()));
        in = in.subspan(1);
        header_ended_ = text_.ends_with("\r\n\r\n");
        if (text_.size() > longest_response) return false;
        if (!header_ended_) continue;
        const std::string length = header_value(text_, "Content-Length");
        std::from_chars(length.data(), length.data() + length.size(), body_);
        if (body_ > longest_response) return false;
    }
    const size_t here = std::min(body_, in.size());
    text_.append(reinterpret_cast<const char*>(in.data()), here);
    in = in.subspan(here);
    body_ -= here;
    if (!header_ended_ || body_) return true;
    header_ended_ = false;
    on_response(std::exchange(text_, {}));
    return true;
}

std::string header_value(const std::string& response, std::string_view name) {
    for (size_t line = response.find("\r\n"); line != std::string::npos; line = response.find("\r\n", line + 2)) {
        const std::string_view rest = std::string_view(response).substr(line + 2);
        if (rest.starts_with("\r\n")) break;
        if (rest.size() <= name.size() || rest[name.size()] != ':') continue;
        if (!std::equal(name.begin(), name.end(), rest.begin(), same_letter)) continue;
        std::string_view value = rest.substr(name.size() + 1);
        value = value.substr(0, value.find("\r\n"));
        value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
        return std::string(value);
    }
    return {};
}

}  // namespace load
