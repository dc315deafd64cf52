// Paths of the interface as the wide calls of Windows take them.
#pragma once

#include <cstddef>

namespace core::platform {

/// A UTF-8 path in wide characters. One whose full path is too long for the calls' old bound of 260 characters
/// gets the form that has none.
class wide_path {
public:
    explicit wide_path(const char* path) noexcept;

    /// Null for what is not UTF-8 (no file can have such a name) or above the bound of 4095 characters.
    const wchar_t* get() const noexcept { return text_[0] ? text_ : nullptr; }

    static constexpr size_t room = 4096;

private:
    wchar_t text_[room];
};

}  // namespace core::platform
