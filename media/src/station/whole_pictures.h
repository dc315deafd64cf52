// Which frames may go to a player that does not keep up.
#pragma once

#include "media/stream.h"

namespace media {

/// Pictures go whole or not at all, and behind one that was left out none goes up to the next key picture: they build
/// on it.
class whole_pictures {
public:
    /// The player knows nothing of what came before, and begins with a key picture.
    void begin() noexcept { waits_for_key_ = true; }
    /// Pictures were left out.
    void leave_out() noexcept { waits_for_key_ = true; }

    /// Whether none may go but a key picture.
    bool wait() const noexcept { return waits_for_key_; }

    /// Calls `send` for a frame that may go, which answers whether it went. @return false for a picture that did not
    template <class Send>
    bool pass(const entry_t& entry, Send send) noexcept {
        const bool picture = entry.kind == kind_t::video;
        const bool sent = !(picture && waits_for_key_ && !entry.frame.key) && send();
        if (picture) waits_for_key_ = !sent;
        return sent || !picture;
    }

private:
    bool waits_for_key_ = true;
};

}  // namespace media
