/// What the media library exports, and how its calls tell why they failed.
#pragma once

#include "core/api.h"

#if defined(_WIN32) && defined(MEDIA_SHARED_BUILD)
#define MEDIA_API __declspec(dllexport)
#elif defined(_WIN32) && defined(MEDIA_SHARED)
#define MEDIA_API __declspec(dllimport)
#elif defined(_WIN32)
#define MEDIA_API
#else
/// Marks a function or class as part of the exported interface; everything else stays inside the shared library.
#define MEDIA_API __attribute__((visibility("default")))
#endif

namespace media {

/// Why a call failed, in words for people; "" when it did not.
struct failure_t {
    char text[256] = "";
};

/// Fills an error, cut to its room; a null error is ignored.
INET_PRINTF(2, 3) MEDIA_API void tell(failure_t* error, const char* format, ...) noexcept;

}  // namespace media
