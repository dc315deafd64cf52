#include "xml/characters.h"
#include "xml/namespaces.h"
#include "xml/tree.h"

#include "core/text.h"

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

namespace common::xml {

namespace {

constexpr size_t deepest = 128;
constexpr size_t most_attributes = 256;

struct qualified_name {
    std::string_view whole, prefix, local;
};

struct found_attribute {
    qualified_name name;
    const char* value;
    size_t length;

    /// The prefix that it declares; null when it is no declaration.
    const std::string_view* declares() const noexcept {
        if (name.whole == "xmlns") return &name.prefix;
        return name.prefix == "xmlns" ? &name.local : nullptr;
    }
};

/// The place of a namespace's URI, 0 for none, and a name in it.
using expanded_name = std::pair<uintptr_t, std::string_view>;

/// An element whose end has not been read. What it gathers lies on stacks from these places on.
struct open_element {
    node* element;
    std::string_view name;
    size_t first_child;
    size_t first_character;
    size_t namespaces_before;
};

constexpr struct {
    std::string_view name;
    char character;
} entities[] = {{"lt;", '<'}, {"gt;", '>'}, {"amp;", '&'}, {"quot;", '"'}, {"apos;", '\''}};

bool equals_ignoring_case(std::string_view a, std::string_view lower) noexcept {
    return std::ranges::equal(a, lower,
                              [](char x, char y) { return (x >= 'A' && x <= 'Z' ? x + ('a' - 'A') : x) == y; });
}

/// Every reading function returns false at the first fault, which stands at `at_`.
class reader {
public:
    reader(std::string_view text, prefixes known, document* out)
        : at_(text.data()), end_(text.data() + text.size()), known_(known), tree_(*out), namespaces_(out) {
        characters_.reserve(1024);
        children_.reserve(32);
        open_.reserve(16);
        found_.reserve(16);
        names_.reserve(16);
    }

    bool read_document() {
        skip("\xef\xbb\xbf");
        if (!read_declaration() || !read_misc()) return false;
        if (at_ == end_ || *at_ != '<') return fail("root element expected");
        if (!read_start_tag(&tree_)) return false;
        while (!open_.empty())
            if (!read_content()) return false;
        close_children(&tree_, 0);
        if (!read_misc()) return false;
        return at_ == end_ || fail("text after the root element");
    }

    refusal why(const char* text) const noexcept { return {reason_, static_cast<size_t>(at_ - text)}; }

private:
    bool fail(const char* reason) noexcept {
        reason_ = reason;
        return false;
    }

    bool fail_at(const char* place, const char* reason) noexcept {
        at_ = place;
        return fail(reason);
    }

    std::string_view rest() const noexcept { return {at_, static_cast<size_t>(end_ - at_)}; }

    bool skip(std::string_view literal) noexcept {
        if (!rest().starts_with(literal)) return false;
        at_ += literal.size();
        return true;
    }

    bool skip_blanks() noexcept {
        const char* const first = at_;
        while (at_ < end_ && has_trait(*at_, blank))
            ++at_;
        return at_ > first;
    }

    // Prolog (section 2.8) -------------------------------------------------------------------------------------------

    bool read_declaration() noexcept {
        constexpr std::string_view start = "<?xml";
        if (!rest().starts_with(start) || rest().size() == start.size() || !has_trait(at_[start.size()], blank))
            return true;
        at_ += start.size();
        std::string_view version, encoding, standalone;
        if (!read_pseudo("version", &version) || !read_pseudo("encoding", &encoding) ||
            !read_pseudo("standalone", &standalone))
            return false;
        const std::string_view minor = version.substr(std::min<size_t>(version.size(), 2));
        if (!version.starts_with("1.") || minor.empty() || minor.find_first_not_of("0123456789") != minor.npos)
            return fail("version 1.0 expected");
        if (encoding.data() && !equals_ignoring_case(encoding, "utf-8")) return fail("encoding other than UTF-8");
        if (standalone.data() && standalone != "yes" && standalone != "no")
            return fail("standalone yes or no expected");
        skip_blanks();
        return skip("?>") || fail("?> expected");
    }

    /// A part of the declaration, if it is the one that stands next.
    bool read_pseudo(std::string_view name, std::string_view* value) noexcept {
        const bool apart = skip_blanks();
        if (!rest().starts_with(name)) {
            if (apart) --at_;  // a blank for the next one
            return true;
        }
        if (!apart) return fail("blank expected");
        at_ += name.size();
        char quote = 0;
        if (!read_equals_and_quote(&quote)) return false;
        const size_t length = rest().find(quote);
        if (length == std::string_view::npos) return fail("value without an end");
        *value = rest().substr(0, length);
        at_ += length + 1;
        return true;
    }

    bool read_equals_and_quote(char* quote) noexcept {
        skip_blanks();
        if (!skip("=")) return fail("= expected");
        skip_blanks();
        if (at_ == end_ || (*at_ != '"' && *at_ != '\'')) return fail("quote expected");
        *quote = *at_++;
        return true;
    }

    /// What may stand beside the root element.
    bool read_misc() {
        for (;;) {
            skip_blanks();
            if (!rest().starts_with("<?") && !rest().starts_with("<!")) return true;
            if (!(at_[1] == '?' ? read_instruction() : read_comment())) return false;
        }
    }

    bool read_instruction() {
        at_ += 2;
        const char* const first = at_;
        std::string_view target;
        if (!read_name(&target)) return false;
        if (equals_ignoring_case(target, "xml")) return fail_at(first, "misplaced XML declaration");
        if (skip("?>")) return true;
        if (!skip_blanks()) return fail("blank expected");
        return read_until("?>", plain_in_instruction, false);
    }

    bool read_comment() {
        if (rest().starts_with("<!DOCTYPE")) return fail("DOCTYPE is not allowed");
        if (!skip("<!--")) return fail("comment expected");
        if (!read_until("--", plain_in_comment, false)) return false;
        return skip(">") || fail("-- in a comment");
    }

    /// Takes characters up to and with `end`, kept in `characters_` on demand.
    bool read_until(std::string_view end, trait where, bool keep) {
        for (;;) {
            if (!read_plain(where, keep)) return false;
            if (skip(end)) return true;
            if (*at_ != end[0]) return fail("character that is not allowed");
            if (keep) characters_.push_back(*at_);
            ++at_;
        }
    }

    // Elements (section 3) -------------------------------------------------------------------------------------------

    bool read_content() {
        if (at_ == end_) return fail("element without an end");
        if (*at_ != '<') return read_text();
        if (at_ + 1 == end_) return fail("name expected");
        switch (at_[1]) {
            case '/':
                return read_end_tag();
            case '?':
                return read_instruction();
            case '!':
                return rest().starts_with("<![") ? read_cdata() : read_comment();
            default:
                return read_start_tag(open_.back().element);
        }
    }

    bool read_start_tag(node* parent) {
        if (open_.size() == deepest) return fail("nested too deep");
        const char* const start = at_++;
        qualified_name name;
        if (!read_qualified_name(&name)) return false;
        auto* const element = tree_.memory.make<node>();
        element->parent = parent;
        children_.push_back(element);
        open_.push_back({element, name.whole, children_.size(), characters_.size(), namespaces_.count()});

        bool is_empty = false;
        if (!read_attributes(&is_empty)) return false;
        if (!declare_namespaces(element)) return fail_at(start, reason_);
        if (!resolve(name.prefix, &element->space)) return fail_at(start, reason_);
        element->name = tree_.memory.copy(name.local);
        if (!make_attributes(element)) return fail_at(start, reason_);
        if (is_empty) close_element();
        return true;
    }

    bool read_end_tag() {
        const char* const start = at_;
        at_ += 2;
        if (!skip(open_.back().name)) return fail_at(start, "another end tag expected");
        skip_blanks();
        if (!skip(">")) return fail("> expected");
        close_element();
        return true;
    }

    void close_element() {
        const open_element closed = open_.back();
        open_.pop_back();
        const std::string_view text(characters_.data() + closed.first_character,
                                    characters_.size() - closed.first_character);
        if (!text.empty()) closed.element->content = tree_.memory.copy(text);
        closed.element->content_length = static_cast<uint32_t>(text.size());
        characters_.resize(closed.first_character);
        close_children(closed.element, closed.first_child);
        namespaces_.shrink(closed.namespaces_before);
    }

    /// The children that lie on the stack from `first` on become the element's own.
    void close_children(node* element, size_t first) {
        const auto count = static_cast<uint32_t>(children_.size() - first);
        element->child_count = count;
        if (count > 0) element->children = tree_.memory.make_array<node*>(count);
        for (uint32_t i = 0; i < count; ++i) {
            element->children[i] = children_[first + i];
            element->children[i]->index = i;
        }
        children_.resize(first);
    }

    // Attributes and namespaces --------------------------------------------------------------------------------------

    /// Attributes as they are written, and the end of the tag.
    bool read_attributes(bool* is_empty) {
        found_.clear();
        names_.clear();
        for (;;) {
            const bool apart = skip_blanks();
            if (skip(">")) return true;
            if (skip("/>")) {
                *is_empty = true;
                return true;
            }
            if (!apart) return fail(at_ == end_ ? "tag without an end" : "blank expected");
            if (found_.size() == most_attributes) return fail("too many attributes");
            found_attribute attribute{};
            if (!read_attribute(&attribute)) return false;
            found_.push_back(attribute);
        }
    }

    bool read_attribute(found_attribute* out) {
        const char* const start = at_;
        if (!read_qualified_name(&out->name)) return false;
        if (!is_new({0, out->name.whole})) return fail_at(start, "attribute given twice");
        char quote = 0;
        if (!read_equals_and_quote(&quote)) return false;
        const size_t first = characters_.size();
        if (!read_value(quote)) return false;
        out->length = characters_.size() - first;
        out->value = tree_.memory.copy(std::string_view(characters_.data() + first, out->length));
        characters_.resize(first);
        return true;
    }

    bool read_value(char quote) {
        for (;;) {
            if (!read_plain(plain_in_value, true)) return false;
            const char c = *at_;
            if (c == '&') {
                if (!read_reference()) return false;
                continue;
            }
            if (c != '"' && c != '\'' && c != '\t' && c != '\n') return fail("character that is not allowed");
            ++at_;
            if (c == quote) return true;
            characters_.push_back(has_trait(c, blank) ? ' ' : c);
        }
    }

    bool declare_namespaces(node* element) {
        for (const found_attribute& found : found_) {
            const std::string_view* const prefix = found.declares();
            if (!prefix) continue;
            const std::string_view uri(found.value, found.length);
            if (const char* fault = declaration_fault(*prefix, uri)) return fail(fault);
            if (namespaces_.count() == namespaces::most) return fail("too many namespaces");
            namespaces_.declare(element, *prefix, uri);
        }
        return true;
    }

    /// What is reserved or meaningless (Namespaces in XML 1.0, section 3).
    static const char* declaration_fault(std::string_view prefix, std::string_view uri) noexcept {
        if (prefix == "xmlns" || uri == namespaces::xmlns_uri) return "xmlns may not be bound";
        if ((prefix == "xml") != (uri == namespaces::xml_uri)) return "xml may not be bound anew";
        if (uri.empty() && !prefix.empty()) return "prefix without a namespace";
        return nullptr;
    }

    bool resolve(std::string_view prefix, node** space) noexcept {
        *space = namespaces_.find(prefix);
        return *space || prefix.empty() || known_ == prefixes::any || fail("prefix that was not declared");
    }

    /// Attributes other than declarations, with their namespaces; the default namespace is not for them.
    bool make_attributes(node* element) {
        std::erase_if(found_, [](const found_attribute& found) { return found.declares() != nullptr; });
        if (found_.empty()) return true;
        names_.clear();
        auto* const made = tree_.memory.make_array<attribute>(found_.size());
        for (size_t i = 0; i < found_.size(); ++i) {
            const found_attribute& found = found_[i];
            node* space = nullptr;
            if (!found.name.prefix.empty() && !resolve(found.name.prefix, &space)) return false;
            const char* const uri = space ? space->content : nullptr;
            if (uri && !is_new({reinterpret_cast<uintptr_t>(uri), found.name.local}))
                return fail("attribute given twice");
            made[i] = {tree_.memory.copy(found.name.local), found.value, uri};
        }
        element->attributes = made;
        element->attribute_count = static_cast<uint32_t>(found_.size());
        return true;
    }

    /// Adds a name to those of the tag. @return false when it is one of them
    bool is_new(const expanded_name& name) {
        const auto place = std::lower_bound(names_.begin(), names_.end(), name);
        if (place != names_.end() && *place == name) return false;
        names_.insert(place, name);
        return true;
    }

    // Names ----------------------------------------------------------------------------------------------------------

    bool read_qualified_name(qualified_name* out) noexcept {
        const char* const start = at_;
        if (!read_name(&out->local)) return false;
        out->prefix = {};
        if (skip(":")) {
            out->prefix = out->local;
            if (!read_name(&out->local)) return false;
        }
        out->whole = {start, static_cast<size_t>(at_ - start)};
        return true;
    }

    /// A name without a colon.
    bool read_name(std::string_view* out) noexcept {
        const char* const start = at_;
        while (skip_name_character(at_ == start ? starts_name : in_name)) {
        }
        *out = {start, static_cast<size_t>(at_ - start)};
        return !out->empty() || fail("name expected");
    }

    bool skip_name_character(trait wanted) noexcept {
        if (at_ == end_) return false;
        size_t size = has_trait(*at_, wanted);
        if (static_cast<uint8_t>(*at_) >= 0x80) {
            uint32_t code = 0;
            size = utf8_decode(at_, rest().size(), &code);
            if (size == 0 || !is_name_character(code, wanted)) return false;
        }
        at_ += size;
        return size > 0;
    }

    // Text -----------------------------------------------------------------------------------------------------------

    bool read_text() {
        if (!read_plain(plain_in_text, true)) return at_ == end_ ? fail("element without an end") : false;
        if (*at_ == '<') return true;
        if (*at_ == '&') return read_reference();
        if (*at_ != ']') return fail("character that is not allowed");
        if (rest().starts_with("]]>")) return fail("]]> in text");
        characters_.push_back(*at_++);
        return true;
    }

    bool read_cdata() {
        if (!skip("<![CDATA[")) return fail("CDATA expected");
        return read_until("]]>", plain_in_cdata, true);
    }

    /// Takes characters that stand for themselves, line ends made one. @return true when another one follows.
    bool read_plain(trait where, bool keep) {
        for (;;) {
            const char* const first = at_;
            while (at_ < end_ && has_trait(*at_, where))
                ++at_;
            if (keep) characters_.insert(characters_.end(), first, at_);
            if (at_ == end_) return fail("text without an end");
            if (*at_ == '\r')
                read_line_end(where, keep);
            else if (static_cast<uint8_t>(*at_) < 0x80)
                return true;
            else if (!read_utf8(keep))
                return false;
        }
    }

    void read_line_end(trait where, bool keep) {
        ++at_;
        skip("\n");
        if (keep) characters_.push_back(where == plain_in_value ? ' ' : '\n');
    }

    bool read_utf8(bool keep) {
        uint32_t code = 0;
        const size_t size = utf8_decode(at_, rest().size(), &code);
        if (size == 0) return fail("not UTF-8");
        if (!is_character(code)) return fail("character that is not allowed");
        if (keep) characters_.insert(characters_.end(), at_, at_ + size);
        at_ += size;
        return true;
    }

    bool read_reference() {
        const char* const start = at_++;
        if (skip("#")) return read_character_reference(start);
        for (const auto& [name, character] : entities) {
            if (!skip(name)) continue;
            characters_.push_back(character);
            return true;
        }
        return fail_at(start, "unknown entity");
    }

    bool read_character_reference(const char* start) {
        uint32_t code = 0;
        const int base = skip("x") ? 16 : 10;
        const auto [digits_end, error] = std::from_chars(at_, end_, code, base);
        const bool is_number = error == std::errc() && digits_end < end_ && *digits_end == ';';
        if (!is_number || !is_character(code)) return fail_at(start, "reference to no character");
        at_ = digits_end + 1;
        char bytes[4];
        characters_.insert(characters_.end(), bytes, bytes + utf8_encode(code, bytes));
        return true;
    }

    const char* at_;
    const char* const end_;
    const prefixes known_;
    const char* reason_ = "";
    document& tree_;
    namespaces namespaces_;
    core::vector<char> characters_;  ///< text of the open elements, outer ones below
    core::vector<node*> children_;   ///< of the document and the open elements, outer ones below
    core::vector<open_element> open_;
    core::vector<found_attribute> found_;  ///< attributes of the tag that is read
    core::vector<expanded_name> names_;    ///< theirs, sorted: as they are written, then in their namespaces
};

}  // namespace

bool read(std::string_view text, prefixes known, document* out, refusal* why) {
    reader reading(text, known, out);
    if (reading.read_document()) return true;
    *why = reading.why(text.data());
    return false;
}

}  // namespace common::xml
