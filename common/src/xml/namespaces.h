// The namespace declarations in force while a text is read (Namespaces in XML 1.0).
#pragma once

#include "xml/tree.h"

#include "core/owned.h"

#include <algorithm>
#include <string_view>

namespace common::xml {

class namespaces {
public:
    static constexpr size_t most = 256 + 1;  // and "xml"
    static constexpr std::string_view xml_uri = "http://www.w3.org/XML/1998/namespace";
    static constexpr std::string_view xmlns_uri = "http://www.w3.org/2000/xmlns/";

    /// The prefix "xml" is bound from the start (section 3).
    explicit namespaces(document* tree) : tree_(*tree) { declare(tree, "xml", xml_uri); }

    size_t count() const noexcept { return bindings_.size(); }

    /// Binds a prefix, "" for the default namespace, until the element ends that carries the declaration.
    void declare(node* element, std::string_view prefix, std::string_view uri) {
        auto* const declaration = tree_.memory.make<node>();
        declaration->name = tree_.memory.copy(prefix);
        declaration->parent = element;
        declaration->content = find_equal(uri);
        if (!declaration->content) declaration->content = tree_.memory.copy(uri);
        declaration->content_length = static_cast<uint32_t>(uri.size());
        bindings_.push_back({prefix, declaration});
    }

    /// Takes back what was declared after there were so many.
    void shrink(size_t count) noexcept { bindings_.resize(count, {}); }

    /// The declaration in force for a prefix; null when there is none, or when it takes the default namespace back.
    node* find(std::string_view prefix) const noexcept {
        const auto found = std::find_if(bindings_.rbegin(), bindings_.rend(),
                                        [prefix](const binding& b) { return b.prefix == prefix; });
        return found != bindings_.rend() && found->declaration->content_length > 0 ? found->declaration : nullptr;
    }

private:
    struct binding {
        std::string_view prefix;
        node* declaration;
    };

    /// One text for equal URIs: from then on two are compared as pointers, however long they are.
    const char* find_equal(std::string_view uri) const noexcept {
        for (const auto& [prefix, declaration] : bindings_)
            if (std::string_view(declaration->content, declaration->content_length) == uri) return declaration->content;
        return nullptr;
    }

    document& tree_;
    core::vector<binding> bindings_;
};

}  // namespace common::xml
