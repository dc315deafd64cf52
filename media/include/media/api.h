/// Export macro of the media library, and the reason of a failed call.
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

/// Why a call failed, as text for people; "" when it succeeded.
struct failure_t {
    char text[256] = "";
};

/// Formats a reason into `error`, cut to its size. A null `error` is ignored.
INET_PRINTF(2, 3) MEDIA_API void tell(failure_t* error, const char* format, ...) noexcept;

}  // namespace media
