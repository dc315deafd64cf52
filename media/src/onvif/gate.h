// Who may call: WS-Security UsernameToken.
#pragma once

#include "core/owned.h"

#include <cstdint>
#include <mutex>
#include <string_view>

struct node;

namespace media::onvif_calls {

/// A token is good for five minutes before and after its time, once. Any thread.
class token_gate {
public:
    enum class result_t : uint8_t { passes, refused, absent };

    /// The texts are valid as long as the gate.
    token_gate(const char* user, const char* password) noexcept : user_(user), password_(password) {}

    /// @param header  of the envelope; may be null
    result_t judge(node* header) noexcept;

private:
    static constexpr size_t most = 16384;

    struct used_t {
        uint64_t nonce;  ///< of its digest
        uint64_t created;
    };

    bool is_right(node* token, std::string_view created, uint64_t& nonce) const;
    bool serves(used_t token);

    const char* user_;
    const char* password_;
    std::mutex lock_;
    core::vector<used_t> used_;
    uint64_t floor_ = 0;  ///< a token must be younger: older ones have been forgotten
};

/// Microseconds since 1970 of a time such as 2026-11-22T10:15:00.25Z, or with +01:00 or nothing in place of the Z. Its
/// fraction is passed over. @return false for another form
bool read_time(std::string_view text, uint64_t& out) noexcept;

}  // namespace media::onvif_calls
