#include "inet/net_node.h"

#include "core/text.h"
#include "core/text_error.h"

#include <string_view>

namespace net {

namespace {

constexpr size_t longest_document = 1U << 20;

const char* or_empty(const char* text) noexcept { return text ? text : ""; }

/// The first member that does not have this name.
const json_member_t* first_beside(const json_t* object, std::string_view name) noexcept {
    if (!object || object->type != json_object) return nullptr;
    for (const json_member_t* each = object->members; each != object->members + object->count; ++each)
        if (name != each->name) return each;
    return nullptr;
}

}  // namespace

Node::~Node() { yajl_tree_free(root_); }

int Node::parse(const char* json, char* error, size_t error_size) noexcept {
    yajl_tree_free(root_);
    root_ = nullptr;
    parameters_ = nullptr;
    section_ = type_ = "";
    if (!json || core_strlen(json) > longest_document) {
        core::write_error(error, error_size, json ? "too long" : "no document");
        return 0;
    }
    root_ = yajl_tree_parse(json, error, error_size);
    if (!root_) return 0;
    const json_member_t* section = first_beside(root_, "common");
    const json_t* settings = section ? &section->value : nullptr;
    if (settings && settings->type == json_array && settings->count > 0) settings = settings->items;
    const char* type = json_text(json_get(json_get(settings, "_type"), "_value"));
    if (!section || !type) {
        core::write_error(error, error_size, "no section with a type");
        yajl_tree_free(root_);
        root_ = nullptr;
        return 0;
    }
    section_ = section->name;
    type_ = type;
    parameters_ = json_get(settings, type);
    if (const auto* other = parameters_ ? nullptr : first_beside(settings, "_type")) parameters_ = &other->value;
    return 1;
}

const char* Node::common(const char* key) const noexcept {
    return or_empty(json_text(json_get(json_get(root_, "common"), key)));
}

const json_t* Node::value(const char* parameter) const noexcept {
    return json_get(json_get(parameters_, parameter), "_value");
}

const char* Node::text(const char* parameter) const noexcept { return or_empty(json_text(value(parameter))); }

int64_t Node::number(const char* parameter, int64_t missing) const noexcept {
    return json_integer(value(parameter), missing);
}

bool Node::truth(const char* parameter, bool missing) const noexcept {
    const json_t* found = value(parameter);
    if (!found || (found->type != json_true && found->type != json_false)) return missing;
    return found->type == json_true;
}

char* Node::bus_name(const char* track, const char* file, int line) const noexcept {
    return core_sprintf(file, line, "%s_%s_%s%s%s", key1(), key2(), key3(), track ? "_" : "", or_empty(track));
}

}  // namespace net
