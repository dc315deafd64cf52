// Where a source is, by its URL.
#pragma once

#include "core/owned.h"

#include <cstdint>

namespace media::fetch {

struct address_t {
    char host[256] = "";
    uint16_t port = 0;
    core::owned_text uri;  ///< with user and password, as protocols take it

    /// @param user, password  instead of those in the URL; null for them
    /// @return false for what cannot be fetched, or when memory is out
    bool set(const char* url, const char* user, const char* password) noexcept;
};

}  // namespace media::fetch
