// Input that ends where its block ends, so that AddressSanitizer sees the first byte read behind it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace test {

/// A copy of bytes in a block of exactly their size, without a terminator.
class exact_bytes {
public:
    explicit exact_bytes(std::string_view bytes) : data_(new char[bytes.size()]), size_(bytes.size()) {
        std::ranges::copy(bytes, data_.get());
    }
    char* data() const { return data_.get(); }
    unsigned size() const { return static_cast<unsigned>(size_); }

private:
    std::unique_ptr<char[]> data_;
    size_t size_;
};

/// The same as a text, its terminator being the last byte of the block.
struct exact_text : exact_bytes {
    explicit exact_text(std::string_view text) : exact_bytes(std::string(text) += '\0') {}
    char* get() const { return data(); }
};

}  // namespace test
