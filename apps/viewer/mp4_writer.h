// H.264 pictures as fragmented MP4.
#pragma once

#include "frame_ptr.h"
#include "writer.h"

#include "core/buf.h"

#include <fstream>
#include <vector>

namespace viewer {

/// Every fragment is in the file as soon as it is complete: after one second, before a key picture, or with 4 MiB.
/// Times on the track always advance, whatever the frames say. The parameter sets of an MP4 track are fixed, so the
/// file ends, with a message, when the stream changes them.
class mp4_writer final : public writer {
public:
    using writer::writer;
    ~mp4_writer() override;

    bool open() override;
    bool takes(uint32_t fcc) const override;
    bool write(const av::frame_t& frame) override;
    bool flush() override;
    bool finish() override;

private:
    bool begin(const av::frame_t& key);
    uint64_t next_time(uint64_t told);
    bool write_fragment(uint64_t end);
    bool put(buf_t& bytes);

    std::ofstream file_;
    buf_t start_;     ///< the init segment of this stream
    buf_t fragment_;  ///< keeps its capacity
    std::vector<apps::frame_ptr> held_;
    uint64_t held_bytes_ = 0;
    uint64_t told_ = 0;   ///< time of the last picture as it came
    uint64_t last_ = 0;   ///< and as it is written
    uint64_t shift_ = 0;  ///< between the two since the clock of the stream was set
    uint64_t step_ = 40'000;
    uint64_t base_ = 0;
    uint32_t sequence_ = 0;
    bool ended_ = false;
};

}  // namespace viewer
