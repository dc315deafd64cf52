#include "onvif/gate.h"

#include "common/digest.h"
#include "common/xml.h"
#include "core/buf.h"
#include "core/time.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

namespace media::onvif_calls {

namespace {

constexpr uint64_t lifetime = 300'000'000;
constexpr size_t digest_size = 20;

/// Without the blanks around it, which layout may have brought.
std::string_view text_of(node* parent, const char* name) noexcept {
    constexpr const char* blanks = " \t\r\n";
    int size = 0;
    const char* found = roxml_get_content(roxml_get_chld(parent, name, 0), nullptr, 0, &size);
    std::string_view text = found ? std::string_view(found, static_cast<size_t>(size)) : std::string_view();
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

core::vector<uint8_t> decoded(std::string_view text) {
    buf_t bytes{};
    const struct ending {
        buf_t& of;
        ~ending() { core_buf_free(&of); }
    } last{bytes};
    const uint32_t size = b64_decode(text.data(), text.size(), &bytes, CORE_HERE);
    core::vector<uint8_t> out;
    if (size > 0) out.assign(bytes.data, bytes.data + size);
    return out;
}

/// What a time is ahead of UTC, in microseconds; a time without a zone is taken for UTC.
bool read_zone(std::string_view text, int64_t& out) noexcept {
    out = 0;
    if (text.empty() || text == "Z") return true;
    int hours = 0;
    int minutes = 0;
    if (text.size() != 6 || (text[0] != '+' && text[0] != '-') || text[3] != ':') return false;
    const bool read = std::from_chars(text.data() + 1, text.data() + 3, hours).ptr == text.data() + 3 &&
                      std::from_chars(text.data() + 4, text.data() + 6, minutes).ptr == text.data() + 6;
    out = (text[0] == '-' ? -1 : 1) * (int64_t{hours} * 60 + minutes) * 60'000'000;
    return read && hours >= 0 && minutes >= 0;
}

}  // namespace

bool read_time(std::string_view text, uint64_t& out) noexcept {
    constexpr size_t to_seconds = 19;
    if (text.size() < to_seconds || text[4] != '-' || text[7] != '-' || text[13] != ':' || text[16] != ':')
        return false;
    char stamp[to_seconds + 1];
    uint32_t size = 0;
    for (const char c : text.substr(0, to_seconds))
        if (c != '-' && c != ':') stamp[size++] = c;
    stamp[size++] = 'Z';
    text.remove_prefix(to_seconds);
    if (text.starts_with('.')) text.remove_prefix(std::min(text.find_first_not_of("0123456789", 1), text.size()));
    int64_t ahead = 0;
    uint64_t local = 0;
    if (!read_zone(text, ahead) || !core_time_from_stamp(stamp, size, &local)) return false;
    out = local - static_cast<uint64_t>(ahead);
    return true;
}

token_gate::result_t token_gate::judge(node* header) noexcept {
    node* const token = roxml_get_chld(roxml_get_chld(header, "Security", 0), "UsernameToken", 0);
    if (!token) return result_t::absent;
    const std::string_view created = text_of(token, "Created");
    used_t which{};
    const uint64_t now = time_now();
    if (text_of(token, "Username") != user_ || !read_time(created, which.created)) return result_t::refused;
    if (std::max(now, which.created) - std::min(now, which.created) > lifetime) return result_t::refused;
    try {
        return is_right(token, created, which.nonce) && serves(which) ? result_t::passes : result_t::refused;
    } catch (const std::bad_alloc&) {
        return result_t::refused;
    }
}

/// Base64 of SHA-1 of nonce, time and password. The time taken does not depend on how much of it is right.
bool token_gate::is_right(node* token, std::string_view created, uint64_t& nonce) const {
    node* const password = roxml_get_chld(token, "Password", 0);
    const char* type = roxml_get_attr(password, "Type");
    if (!type || !std::string_view(type).ends_with("#PasswordDigest")) return false;
    core::vector<uint8_t> bytes = decoded(text_of(token, "Nonce"));
    const core::vector<uint8_t> told = decoded(text_of(token, "Password"));
    if (bytes.empty() || told.size() != digest_size) return false;
    uint8_t hash[32];
    common_sha256(bytes.data(), bytes.size(), hash);
    std::memcpy(&nonce, hash, sizeof nonce);
    bytes.insert(bytes.end(), created.begin(), created.end());
    bytes.insert(bytes.end(), password_, password_ + std::strlen(password_));
    common_sha1(bytes.data(), bytes.size(), hash);
    uint8_t differs = 0;
    for (size_t i = 0; i < digest_size; ++i)
        differs |= static_cast<uint8_t>(told[i] ^ hash[i]);
    return differs == 0;
}

/// Only who knows the password comes here.
bool token_gate::serves(used_t token) {
    const std::lock_guard held(lock_);
    const uint64_t oldest = time_now() - lifetime;
    std::erase_if(used_, [&](const used_t& each) { return each.created < oldest; });
    const auto same = [&](const used_t& each) { return each.nonce == token.nonce; };
    if (token.created <= floor_ || std::ranges::any_of(used_, same)) return false;
    if (used_.size() == most) {
        const auto first = std::ranges::min_element(used_, {}, &used_t::created);
        floor_ = std::max(floor_, first->created);
        *first = token;
        return true;
    }
    used_.push_back(token);
    return true;
}

}  // namespace media::onvif_calls
