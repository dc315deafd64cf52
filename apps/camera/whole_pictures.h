// Which frames may go to a player that does not keep up.
#pragma once

#include "avc/fcc.h"
#include "avc/frame.h"

namespace camera {

/// Pictures go whole or not at all, and behind one that was left out none goes up to the next key picture: they build
/// on it.
class whole_pictures {
public:
    /// The player knows nothing of what came before, and begins with a key picture.
    void begin() { waits_for_key_ = false; }
    /// Pictures were left out.
    void leave_out() { waits_for_key_ = true; }

    /// Calls `send` for a frame that may go, which answers whether it went. @return false for a picture that did not
    template <class Send>
    bool pass(const av::frame_t& frame, Send send) {
        const bool picture = fcc_is_video(frame.fcc) != 0;
        const bool sent = !(picture && waits_for_key_ && !frame.key) && send();
        if (picture) waits_for_key_ = !sent;
        return sent || !picture;
    }

private:
    bool waits_for_key_ = false;
};

}  // namespace camera
