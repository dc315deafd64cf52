// The header of an answer, without a block of memory of its own: it points at texts that others keep while it is sent.
#pragma once

#include "core/time.h"
#include "inet/net_http_header.h"

#include <array>
#include <cassert>
#include <charconv>
#include <cstdint>

namespace media::web {

class answer_head {
public:
    answer_head(unsigned status, const char* reason) noexcept {
        header_.protocol = "HTTP/1.1";
        header_.status = status;
        header_.reason = reason;
        header_.fields = list_.data();
    }
    answer_head(const answer_head&) = delete;
    answer_head& operator=(const answer_head&) = delete;

    void put(const char* name, const char* value) noexcept {
        assert(count_ < most);
        pairs_[count_] = {const_cast<char*>(name), const_cast<char*>(value)};
        list_[count_] = &pairs_[count_];
        ++count_;
    }
    void put_length(uint64_t size) noexcept {
        *std::to_chars(length_, length_ + sizeof length_ - 1, size).ptr = '\0';
        put("Content-Length", length_);
    }
    const net::http::header_s& header() const noexcept { return header_; }

private:
    static constexpr size_t most = 10;

    net::http::header_s header_;
    std::array<value_t, most> pairs_;
    std::array<value_t*, most + 1> list_{};
    size_t count_ = 0;
    char length_[24];
};

/// The value of a Date field, made once a second.
class date_text {
public:
    const char* of(uint64_t now) noexcept {
        const uint64_t second = now / 1'000'000;
        if (second != second_) time_format(now, "%a, %d %b %Y %H:%M:%S GMT", text_, sizeof text_);
        second_ = second;
        return text_;
    }

private:
    uint64_t second_ = UINT64_MAX;
    char text_[32] = "";
};

}  // namespace media::web
