// A header that was received, read in place: its record points into one copy of the bytes, whose room is used again.
#pragma once

#include "core/owned.h"
#include "inet/net_http_header.h"

#include <string_view>

namespace net::http {

class head {
public:
    head(const char* file, int line) noexcept;
    ~head() { core_buf_free(&text_); }
    head(const head&) = delete;
    head& operator=(const head&) = delete;

    /// Reads as http_header_parse() does, `start` and behind it `rest`. The record belongs to this object, is not to be
    /// changed, and is valid until the next call. @return null when memory is out
    header_s* read(std::string_view start, std::string_view rest = {}) noexcept;

    // What is found, for cut_block().
    bool status(uint32_t number) noexcept;
    bool method(char* text) noexcept;
    bool uri(char* text) noexcept;
    void protocol(const char* text) noexcept { header_.protocol = text; }
    bool field(char* name, char* value) noexcept;

private:
    bool copy(std::string_view start, std::string_view rest) noexcept;

    const char* file_;
    int line_;
    buf_t text_;
    header_s header_;
    core::vector<value_t> pairs_;
    core::vector<value_t*> fields_;  ///< the same, as a list
};

}  // namespace net::http
