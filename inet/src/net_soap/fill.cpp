#include "net_soap/fill.h"

#include "common/xml.h"
#include "core/owned.h"
#include "core/param.h"
#include "core/template.h"

#include <array>
#include <cassert>

namespace soap {

char* fill(const char* document, std::initializer_list<field> fields, const char* file, int line) noexcept {
    assert(fields.size() <= most_fields);
    std::array<param_t, most_fields + 1> params;
    std::array<core::owned_text, most_fields> encoded;
    size_t count = 0;
    for (const field& each : fields) {
        core::owned_text& own = encoded[count];
        param_t& param = params[count++];
        if (each.kind == field::kind_t::number) {
            param = {each.key, each.number};
            continue;
        }
        if (each.kind == field::kind_t::text && each.text) {
            own.reset(xml_encode(each.text, file, line));
            if (!own) return nullptr;
        }
        param = {each.key, own ? static_cast<const char*>(own.get()) : each.text};
    }
    return core_template_parse(document, params.data(), file, line);
}

}  // namespace soap
