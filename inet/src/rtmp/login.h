// The proof of a password in the application name of connect ("authmod=adobe"): a challenge, and on another connection
// its answer. Nothing is kept of a challenge: it carries its time, under a seal of this process.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace inet::rtmp::login {

enum class result_t : uint8_t { passed, refused };

// Checks the application name of a connect. A null user or password passes nobody. When refused, `description` is
// what the player is told: that it has to prove itself, a challenge for its user, or that the answer is wrong.
result_t check(std::string_view app, const char* user, const char* password, std::span<char, 512> description) noexcept;

}  // namespace inet::rtmp::login
