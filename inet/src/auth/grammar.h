// The grammar of challenges and of answers to them (RFC 7235, 2.1).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace auth {

inline constexpr std::string_view blanks = " \t";

/// Whether a list has that name among its elements.
bool lists(std::string_view list, std::string_view name) noexcept;

/// The quote that ends a quoted value, which begins here; null when none does, or it has no end.
const char* end_of_quoted(const char* begin) noexcept;
/// Whether nothing but a ',' or the end follows.
bool ends_element(const char* rest) noexcept;

struct parameter_t {
    std::string_view name;
    std::string_view value;
};

/// Reads a working copy, in which quoted values lose their escapes. What it gives points into the copy.
class reader {
public:
    explicit reader(char* text) noexcept : at_(text) {}

    const char* at() const noexcept { return at_; }
    bool ends() const noexcept { return *at_ == '\0'; }
    void step() noexcept { ++at_; }
    void skip(std::string_view characters) noexcept;

    /// Empty when none stands here.
    std::string_view token() noexcept;
    /// A quoted value; not set, and nothing is taken, when there is none or it has no end.
    std::optional<std::string_view> quoted() noexcept;
    /// What stands before the next ',', without the blanks around it.
    std::string_view rest_of_element() noexcept;

    /// One parameter as the grammar has it; not set for anything else.
    std::optional<parameter_t> parameter() noexcept;

private:
    char* at_;
};

}  // namespace auth
