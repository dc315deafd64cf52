/// Version texts.
#pragma once

#include "core/api.h"

/// Forms a version text from a build date and time in the form of __DATE__ and __TIME__: "Nov 25 2015" and "15:47:30"
/// give "2015.11.25.154730". At most 31 bytes and a terminator go into `out`. @return out; empty when a text has
/// another form.
INET_API const char* core_get_version(const char* date, const char* time, char out[32]) noexcept;
