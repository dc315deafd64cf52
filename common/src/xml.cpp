#include "common/xml.h"

#include "xml/tree.h"

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

}  // namespace

node* roxml_load_buf(const char* text) noexcept {
    return text ? roxml_load(text, static_cast<unsigned>(strnlen(text, largest_text + 1)), nullptr, 0) : nullptr;
}

node* roxml_load(const char* text, unsigned size, char* error, unsigned error_size) noexcept {
    core::write_error(error, error_size, "");
    if (!text || size > largest_text) {
        core::write_error(error, error_size, text ? "text too large" : "no text");
        return nullptr;
    }
    const std::string_view whole(text, size);
    // About what a message with many short elements needs: most are read into one block.
    core::owned_object<document> tree(core::create<document>(CORE_HERE, 2 * whole.size()));
    common::xml::refusal why{};
    try {
        if (tree && common::xml::read(whole, tree.get(), &why)) return tree.release();
    } catch (const std::bad_alloc&) {
        tree.reset();
    }
    if (tree)
        core::write_text_error(error, error_size, whole, why.offset, why.reason);
    else
        core::write_error(error, error_size, "out of memory");
    return nullptr;
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
    node* const space = roxml_get_ns(n);
    if (!roxml_get_content(space, buf, size, nullptr) && buf && size > 0) *buf = '\0';
    return space;
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
