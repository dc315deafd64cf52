// The place of a user at a SIP server, as both programs take it: USER[:PASSWORD]@SERVER[:PORT][;tcp]. So may be the
// address that the camera prints: sip:USER@SERVER[:PORT][;transport=tcp].
#pragma once

#include "media/sip.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace apps {

struct sip_address {
    std::string user;
    std::string password;  ///< empty for none
    std::string server;
    uint16_t port = 0;  ///< 0 for the usual one
    bool tcp = false;

    /// Reads a text. The user ends at the first ':', the password at the last '@': both are taken as they are.
    /// A leading "sip:" is no user where the text takes no password, names its transport as an address does, or holds
    /// another ':' before the '@'.
    /// @return false when it is none
    bool parse(std::string_view text, bool takes_password);
};

/// Whether a name can stand in an address.
bool is_sip_name(std::string_view text);

/// Why a call has ended, or an account is not registered, in words.
const char* words_of(media::sip_reason_t reason);

}  // namespace apps
