#include "common/xml.h"

#include "xml/characters.h"
#include "xml/tree.h"

#include "core/memory.h"
#include "core/text.h"
#include "core/text_error.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>

namespace {

using common::xml::document;

constexpr size_t largest_text = size_t{64} << 20;

/// The tree's own text, or as much of it as fits `buf`, not ending inside a character.
const char* give(std::string_view text, char* buf, int size, int* len) noexcept {
    size_t length = text.size();
    if (buf) {
        if (size <= 0) return nullptr;
        const auto room = static_cast<size_t>(size) - 1;
        if (length > room) {
            length = room;
            while (length > 0 && (text[length] & 0xc0) == 0x80)
                --length;
        }
        std::memcpy(buf, text.data(), length);
        buf[length] = '\0';
    }
    if (len) *len = static_cast<int>(length);
    return buf ? buf : text.data();
}

node* load(std::string_view whole, common::xml::prefixes known, char* error, unsigned error_size) noexcept {
    core::write_error(error, error_size, "");
    if (!whole.data() || whole.size() > largest_text) {
        core::write_error(error, error_size, whole.data() ? "text too large" : "no text");
        return nullptr;
    }
    // About what a message with many short elements needs: most are read into one block.
    core::owned_object<document> tree(core::create<document>(CORE_HERE, 2 * whole.size()));
    common::xml::refusal why{};
    try {
        if (tree && common::xml::read(whole, known, tree.get(), &why)) return tree.release();
    } catch (const std::bad_alloc&) {
        tree.reset();
    }
    if (tree)
        core::write_text_error(error, error_size, whole, why.offset, why.reason);
    else
        core::write_error(error, error_size, "out of memory");
    return nullptr;
}

constexpr struct {
    char character;
    std::string_view reference;
} references[] = {{'&', "&amp;"},   {'<', "&lt;"},  {'>', "&gt;"},   {'"', "&quot;"},
                  {'\'', "&apos;"}, {'\t', "&#9;"}, {'\n', "&#10;"}, {'\r', "&#13;"}};

/// What stands for the first character of a text that does not stand for itself everywhere.
std::string_view stand_in(std::string_view text, size_t* taken) noexcept {
    *taken = 1;
    for (const auto& [character, reference] : references)
        if (text[0] == character) return reference;
    uint32_t code = 0;
    const size_t size = utf8_decode(text.data(), text.size(), &code);
    *taken = std::max<size_t>(size, 1);
    return size > 0 && common::xml::is_character(code) ? text.substr(0, size) : "\xef\xbf\xbd";
}

/// Hands the pieces of the encoded text to `put`.
template <class Put>
void encode(std::string_view text, Put put) noexcept {
    const auto is_plain = [](char c) { return common::xml::has_trait(c, common::xml::plain_in_value) && c != '>'; };
    while (!text.empty()) {
        const auto plain = static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_plain) - text.begin());
        put(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) return;
        size_t taken = 0;
        put(stand_in(text, &taken));
        text.remove_prefix(taken);
    }
}

}  // namespace

node* roxml_load_buf(const char* text) noexcept {
    const char* const start = text ? text + std::strspn(text, " \t\r\n") : nullptr;
    const std::string_view whole(start, start ? strnlen(start, largest_text + 1) : 0);
    return load(whole, common::xml::prefixes::any, nullptr, 0);
}

node* roxml_load(const char* text, unsigned size, char* error, unsigned error_size) noexcept {
    const std::string_view whole(text, text ? size : 0);
    return load(whole, common::xml::prefixes::declared, error, error_size);
}

void roxml_close(node* n) noexcept {
    if (!n) return;
    while (n->parent)
        n = n->parent;
    core::destroy(static_cast<document*>(n));
}

node* roxml_get_chld(node* n, const char* name, int nth) noexcept {
    if (!n) return nullptr;
    if (!name) return nth >= 0 && static_cast<uint32_t>(nth) < n->child_count ? n->children[nth] : nullptr;
    const auto* const end = n->children + n->child_count;
    auto* const found = std::find_if(n->children, n->children + n->child_count,
                                     [name](const node* child) { return std::strcmp(child->name, name) == 0; });
    return found != end ? *found : nullptr;
}

int roxml_get_chld_nb(node* n) noexcept { return n ? static_cast<int>(n->child_count) : 0; }

const char* roxml_get_name(node* n, char* buf, int size) noexcept {
    return n && n->name ? give(n->name, buf, size, nullptr) : nullptr;
}

const char* roxml_get_content(node* n, char* buf, int size, int* len) noexcept {
    if (len) *len = 0;
    return n && n->content_length > 0 ? give({n->content, n->content_length}, buf, size, len) : nullptr;
}

node* roxml_get_ns(node* n) noexcept { return n ? n->space : nullptr; }

node* roxml_get_content_ns(node* n, char* buf, int size) noexcept {
    if (!roxml_get_content(roxml_get_ns(n), buf, size, nullptr) && buf && size > 0) *buf = '\0';
    return n;
}

const char* roxml_get_attr(node* n, const char* name) noexcept {
    if (!n || !name) return nullptr;
    for (uint32_t i = 0; i < n->attribute_count; ++i)
        if (std::strcmp(n->attributes[i].name, name) == 0) return n->attributes[i].value;
    return nullptr;
}

node* roxml_get_next_sibling(node* n) noexcept {
    // A declaration has a parent, too, but is none of its children.
    const bool is_child = n && n->parent && n == roxml_get_chld(n->parent, nullptr, static_cast<int>(n->index));
    return is_child ? roxml_get_chld(n->parent, nullptr, static_cast<int>(n->index) + 1) : nullptr;
}

char* xml_encode(const char* text, const char* file, int line) noexcept {
    if (!text) return nullptr;
    size_t size = 0;
    encode(text, [&size](std::string_view piece) { size += piece.size(); });
    auto* const result = static_cast<char*>(core_malloc(size + 1, file, line));
    if (!result) return nullptr;
    char* out = result;
    encode(text, [&out](std::string_view piece) { out += piece.copy(out, piece.size()); });
    *out = '\0';
    return result;
}
