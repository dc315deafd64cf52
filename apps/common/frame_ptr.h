// Owner of a frame record.
#pragma once

#include "avc/frame.h"

#include <memory>

namespace apps {

struct frame_deleter {
    void operator()(av::frame_t* frame) const { avc_frame_need(frame); }
};
using frame_ptr = std::unique_ptr<av::frame_t, frame_deleter>;

}  // namespace apps
