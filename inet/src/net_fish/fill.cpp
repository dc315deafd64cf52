#include "net_fish/fill.h"

#include "core/json.h"
#include "core/owned.h"
#include "core/template.h"
#include "core/text.h"

#include <charconv>
#include <cmath>
#include <new>

namespace fish {

namespace {

constexpr char common[] = R"(
  "common": {"enable": true, "key1": "${key1}", "key2": "${key2}", "key3": "${key3}", "_typeJS": "${class}"})";

/// The parameters of a template, and the texts that were made for them.
class values {
public:
    explicit values(core::place where) noexcept : where_(where), params_(where), held_(where) {}

    void add(const field& each) {
        std::visit([&](auto value) { put(each.key, value); }, each.value);
    }

    void put(const char* key, const char* text) { hold(key, escaped(text)); }

    /// A text that is JSON already.
    void hold(const char* key, core::owned_text text) {
        if (!text) throw std::bad_alloc();
        held_.push_back(std::move(text));
        params_.emplace_back(key, static_cast<const char*>(held_.back().get()));
    }

    core::owned_text fill(const char* document) {
        params_.emplace_back();
        core::owned_text made(core_template_parse(document, params_.data(), where_.file, where_.line));
        params_.pop_back();
        return made;
    }

private:
    core::owned_text escaped(const char* text) const {
        return core::owned_text(core_json_encode(text ? text : "", where_.file, where_.line));
    }

    void put(const char* key, int64_t number) { params_.emplace_back(key, number); }

    void put(const char* key, bool truth) { params_.emplace_back(key, truth ? "true" : "false"); }

    void put(const char* key, double number) {
        constexpr size_t longest = 32;
        core::owned_text text(static_cast<char*>(core_calloc(longest, 1, where_.file, where_.line)));
        // JSON has no word for what is not finite.
        if (text) std::to_chars(text.get(), text.get() + longest - 1, std::isfinite(number) ? number : 0.0);
        hold(key, std::move(text));
    }

    void put(const char* key, field::list items) {
        core::string joined(where_);
        for (; items && *items; ++items) {
            const core::owned_text item = escaped(*items);
            if (!item) throw std::bad_alloc();
            if (!joined.empty()) joined += ", ";
            joined += '"';
            joined += item.get();
            joined += '"';
        }
        hold(key, core::owned_text(core_strdup(joined.c_str(), where_.file, where_.line)));
    }

    void put(const char* key, const part& of) {
        values inside(where_);
        inside.put(key, of.text);
        hold(key, inside.fill(of.piece));
    }

    core::place where_;
    core::vector<param_t> params_;
    core::vector<core::owned_text> held_;
};

}  // namespace

char* fill(const char* section, const identity& who, std::initializer_list<field> fields, const char* file,
           int line) noexcept {
    try {
        const core::place where{file, line};
        values all(where);
        for (const field& each :
             {field("key1", who.node.key1), field("key2", who.node.key2), field("key3", who.node.key3),
              field("class", who.settings_class), field("track", who.node.track), field("track2", who.node.track2)})
            all.add(each);
        for (const field& each : fields)
            all.add(each);
        const core::owned_text first = all.fill(who.settings_class ? common : "");
        const core::owned_text second = all.fill(section);
        if (!first || !second) return nullptr;
        const char* const between = *first && *second ? "," : "";
        return core_sprintf(file, line, "{%s%s%s\n}", first.get(), between, second.get());
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace fish
