// The file that a body is written to.
#pragma once

#include "core/file.h"
#include "core/owned.h"

#include <cstdint>
#include <span>

namespace net::http {

/// A name that stays inside its directory on every system.
bool is_plain_name(const char* name) noexcept;

class download {
public:
    /// The texts of `directory` and `name`; complete() tells whether they could be copied.
    download(const char* directory, const char* name) noexcept;
    /// Removes a file that was not finished.
    ~download();
    download(const download&) = delete;
    download& operator=(const download&) = delete;
    bool complete() const noexcept { return path_ && directory_; }

    /// Makes the directory when it is missing, and opens the file. Each returns false when the system refused.
    bool open() noexcept;
    bool write(std::span<const uint8_t> bytes) noexcept;
    bool finish() noexcept;

private:
    core::owned_text directory_;
    core::owned_text path_;
    file_ctx* file_ = nullptr;
};

}  // namespace net::http
