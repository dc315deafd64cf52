#include "core/param.h"

#include <cstring>

const param_t* param_find(const param_t* params, const char* key) noexcept {
    if (!params || !key) return nullptr;
    for (; params->type != param_end; ++params)
        if (params->key && std::strcmp(params->key, key) == 0) return params;
    return nullptr;
}

const char* param_get_text(const param_t* params, const char* key) noexcept {
    const param_t* found = param_find(params, key);
    return found && found->type == param_text ? found->text : nullptr;
}

int64_t param_get_integer(const param_t* params, const char* key, int64_t missing) noexcept {
    const param_t* found = param_find(params, key);
    return found && found->type == param_integer ? found->integer : missing;
}
