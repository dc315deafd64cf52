#include "core/buf.h"

#include "core/file.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/text.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr uint32_t smallest_growth = 64;

/// Replaces the span's bytes by an owned block.
void take(buffer_t* b, uint8_t* block, uint32_t size) noexcept {
    core_mfree(b->data);
    b->data = block;
    b->size = size;
}

int hex_digit(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// Reads `size` bytes from twice as many digits. @return false at the first that is none.
bool read_hex(const char* text, uint8_t* out, size_t size) noexcept {
    for (size_t i = 0; i < size; ++i) {
        const int high = hex_digit(text[2 * i]);
        const int low = hex_digit(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        out[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

std::string_view view(const buffer_t* b) noexcept {
    if (!b || !b->data) return {};
    return {reinterpret_cast<const char*>(b->data), b->size};
}

}  // namespace

uint32_t core_buf_read(buf_t* buf, const void* src, uint32_t n) noexcept {
    if (!buf || !src || n == 0) return 0;
    // A buffer that grows stays with the line that opened it.
    const char* file = buf->data ? core_mem_file(buf->data) : __FILE__;
    const int line = buf->data ? core_mem_line(buf->data) : __LINE__;
    if (!core_buf_respace(buf, n, file, line) || !buf->data) return 0;
    std::memcpy(buf->data + buf->length, src, n);
    buf->length += n;
    return n;
}

void core_buf_ignore(buf_t* buf, uint32_t n) noexcept {
    if (!buf || !buf->data || n == 0) return;
    const uint32_t dropped = std::min(n, buf->length);
    buf->length -= dropped;
    std::memmove(buf->data, buf->data + dropped, buf->length);
}

int core_buf_respace(buf_t* buf, uint32_t n, const char* file, int line) noexcept {
    if (!buf || n > UINT32_MAX - buf->length) return 0;
    const uint32_t needed = buf->length + n;
    if (needed <= buf->size) return 1;
    const uint32_t grown = buf->size > UINT32_MAX / 2 ? UINT32_MAX : buf->size * 2;
    return core_buf_resize(buf, std::max({needed, grown, smallest_growth}), file, line);
}

int core_buf_resize(buf_t* buf, uint32_t n, const char* file, int line) noexcept {
    if (!buf) return 0;
    if (n == 0) {
        core_buf_free(buf);
        return 1;
    }
    auto* data = static_cast<uint8_t*>(core_realloc(buf->data, n, file, line));
    if (!data) return 0;
    buf->data = data;
    buf->size = n;
    buf->length = std::min(buf->length, n);
    return 1;
}

int core_buf_dump(const buf_t* buf, const char* path) noexcept {
    if (!buf || !path) return 0;
    file_ctx* file = core_fopen(path, "wb", CORE_HERE);
    if (!file) return 0;
    const bool written = core_fwrite(file, buf->data, buf->length) == buf->length;
    return core_fclose(file) && written;
}

void core_buf_free(buf_t* buf) noexcept {
    if (!buf) return;
    core_mfree(buf->data);
    *buf = {};
}

int core_buffer_set(buffer_t* b, const void* data, uint32_t size, const char* file, int line) noexcept {
    if (!b || (!data && size > 0)) return 0;
    if (size == 0) {
        take(b, nullptr, 0);
        return 1;
    }
    auto* block = static_cast<uint8_t*>(core_malloc(size, file, line));
    if (!block) return 0;
    std::memcpy(block, data, size);
    take(b, block, size);
    return 1;
}

int core_buffer_copy(buffer_t* dst, const buffer_t* src, const char* file, int line) noexcept {
    return src ? core_buffer_set(dst, src->data, src->size, file, line) : 0;
}

int buffer_resize(buffer_t* b, uint32_t size, const char* file, int line) noexcept {
    if (!b) return 0;
    if (size == 0) {
        take(b, nullptr, 0);
        return 1;
    }
    auto* block = static_cast<uint8_t*>(core_realloc(b->data, size, file, line));
    if (!block) return 0;
    if (size > b->size) std::memset(block + b->size, 0, size - b->size);
    b->data = block;
    b->size = size;
    return 1;
}

uint8_t* core_buffer_find(const buffer_t* hay, const buffer_t* needle) noexcept {
    const std::string_view sought = view(needle);
    const size_t at = sought.empty() ? std::string_view::npos : view(hay).find(sought);
    return at == std::string_view::npos ? nullptr : hay->data + at;
}

char* core_buffer_hex(const buffer_t* b, const char* file, int line) noexcept {
    if (!b) return nullptr;
    const std::string_view bytes = view(b);
    return core_strhex(bytes.empty() ? "" : bytes.data(), bytes.size(), file, line);
}

int core_buffer_unhex(buffer_t* b, const char* text, const char* file, int line) noexcept {
    const size_t digits = core_strlen(text);
    if (!b || !text || digits % 2 != 0 || digits / 2 > UINT32_MAX) return 0;
    const auto size = static_cast<uint32_t>(digits / 2);
    core::owned<uint8_t> block(static_cast<uint8_t*>(core_malloc(size, file, line)));
    if (!block || !read_hex(text, block.get(), size)) return 0;
    take(b, size > 0 ? block.release() : nullptr, size);
    return 1;
}

void core_buffer_free(buffer_t* b) noexcept {
    if (b) take(b, nullptr, 0);
}
