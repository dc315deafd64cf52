/// Text templates with ${name} places.
#pragma once

#include "core/api.h"
#include "core/param.h"

/// Copies a template. Each `${key}` is replaced by the entry of that name: a text as it is, an integer in decimal, a
/// missing or null value by nothing. A "${" without its "}" is copied unchanged. Values are not searched for `${key}`
/// again.
/// @param params  ends at an entry of type 0; null is an empty list
/// @return a new text, for the caller to release with core_mfree(); null for a null template or when memory is out.
/// Any thread.
INET_API char* core_template_parse(const char* text, const param_t* params, const char* file, int line) noexcept;
