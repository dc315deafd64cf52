#include "rtmp/session.h"
#include "scan.h"

#include "common/digest.h"
#include "core/memory.h"
#include "core/owned.h"
#include "core/time.h"
#include "inet/net_uri.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string>

namespace inet::rtmp {

namespace {

/// Of three texts, one behind the other.
core::owned_text md5_in_base64(std::string_view first, std::string_view second, std::string_view third) noexcept {
    const auto size = [](std::string_view text) { return static_cast<int>(text.size()); };
    const core::owned_text all(core_sprintf(CORE_HERE, "%.*s%.*s%.*s", size(first), first.data(), size(second),
                                            second.data(), size(third), third.data()));
    if (!all) return nullptr;
    uint8_t sum[16];
    common_md5_bytes(all.get(), std::string_view(all.get()).size(), sum);
    return core::owned_text(b64(sum, sizeof sum, CORE_HERE));
}

}  // namespace

char* login_response(const char* user, std::string_view salt, const char* password, std::string_view challenge,
                     std::string_view own, const char* file, int line) noexcept {
    if (!user || !password) return nullptr;
    const core::owned_text secret = md5_in_base64(user, salt, password);
    const core::owned_text response = secret ? md5_in_base64(secret.get(), challenge, own) : nullptr;
    return response ? core_strdup(response.get(), file, line) : nullptr;
}

namespace login {

namespace {

constexpr uint32_t lifetime = 60;  // seconds for which a challenge may be answered
constexpr size_t time_digits = 8;
constexpr size_t seal_bytes = 16;
constexpr size_t longest_user = 128;

struct secret_t {
    secret_t() noexcept { common_random(bytes, sizeof bytes); }
    uint8_t bytes[32];
};

using hex_t = core::owned_text;

/// The beginning of the HMAC of a text with the secret of this process, as hexadecimal text.
hex_t seal(std::string_view text, size_t size) noexcept {
    const secret_t& secret = core::process_wide<secret_t>();
    uint8_t digest[32];
    HMACsha256(secret.bytes, sizeof secret.bytes, text.data(), text.size(), digest);
    return hex_t(core_strhex(digest, static_cast<uint32_t>(size), CORE_HERE));
}

uint32_t seconds() noexcept { return static_cast<uint32_t>(core_timer() / 1000000); }

/// A challenge: the time, and its seal.
hex_t challenge_of(uint32_t time) noexcept {
    char digits[time_digits + 1];
    std::snprintf(digits, sizeof digits, "%08x", static_cast<unsigned>(time));
    const hex_t sealed = seal(digits, seal_bytes);
    return hex_t(sealed ? core_sprintf(CORE_HERE, "%s%s", digits, sealed.get()) : nullptr);
}

bool is_fresh(std::string_view challenge) noexcept {
    if (challenge.size() != time_digits + 2 * seal_bytes) return false;
    uint32_t time = 0;
    std::from_chars(challenge.data(), challenge.data() + time_digits, time, 16);
    const hex_t made = challenge_of(time);
    return made && scan::same_secret(challenge, made.get()) && seconds() - time <= lifetime;
}

hex_t salt_of(std::string_view user) noexcept {
    const hex_t text(core_sprintf(CORE_HERE, "salt of %.*s", static_cast<int>(user.size()), user.data()));
    return text ? seal(text.get(), 8) : nullptr;
}

/// The value of a parameter behind any '?' of the name; null without it.
core::owned_text parameter(std::string_view app, std::string_view name) noexcept {
    while (!app.empty()) {
        const std::string_view element = app.substr(0, app.find_first_of("?&"));
        app.remove_prefix(std::min(element.size() + 1, app.size()));
        const scan::pair each = scan::split(element, '=');
        if (each.key == name && each.has_value)
            return core::owned_text(
                uri_decode_part(each.value.data(), each.value.data() + each.value.size(), CORE_HERE));
    }
    return nullptr;
}

}  // namespace

result_t check(std::string_view app, const char* user, const char* password,
               std::span<char, 512> description) noexcept {
    const auto refuse = [&](const char* what, const core::owned_text& how) {
        std::snprintf(description.data(), description.size(), "[ AccessManager.Reject ] : [ %s ] : %s", what,
                      scan::text(how.get()).data());
        return result_t::refused;
    };
    const core::owned_text mode = parameter(app, "authmod"), name = parameter(app, "user");
    if (!mode || !name || scan::text(mode.get()) != "adobe" || scan::text(name.get()).size() > longest_user)
        return refuse("code=403 need auth; authmod=adobe", nullptr);
    const core::owned_text challenge = parameter(app, "opaque"), of_player = parameter(app, "challenge");
    const core::owned_text given = parameter(app, "response");
    if (!challenge || !of_player || !given || !is_fresh(challenge.get())) {
        const hex_t fresh = challenge_of(seconds()), salt = salt_of(name.get());
        return refuse("authmod=adobe", core::owned_text(core_sprintf(
                                           CORE_HERE, "?reason=needauth&user=%s&salt=%s&challenge=%s&opaque=%s",
                                           name.get(), scan::text(salt.get()).data(), scan::text(fresh.get()).data(),
                                           scan::text(fresh.get()).data())));
    }
    const hex_t salt = user ? salt_of(user) : nullptr;
    const core::owned_text expected(
        salt ? login_response(user, salt.get(), password, challenge.get(), of_player.get(), CORE_HERE) : nullptr);
    const bool is_user = user && scan::same_secret(name.get(), user);
    if (expected && scan::same_secret(given.get(), expected.get()) && is_user) return result_t::passed;
    return refuse("authmod=adobe",
                  core::owned_text(core_sprintf(CORE_HERE, "?reason=authfailed&opaque=%s", challenge.get())));
}

}  // namespace login

}  // namespace inet::rtmp
