// H.264 from the network: the splitter, parameter sets, and what frames and MP4 make of them.
#include "fuzz.h"

#include "avc/fcc.h"
#include "avc/mp4.h"
#include "common/h264.h"

namespace {

void split(std::span<const uint8_t> stream) {
    const uint8_t* last = stream.data();
    auto rest = stream;
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
        require(nal.data() >= last + 3 && nal.back() != 0);
        last = nal.data() + nal.size();
        require(last <= stream.data() + stream.size());
        h264_starts_access_unit(nal);
    }
}

void wrap(std::span<const uint8_t> stream) {
    av::frame_t* frames[] = {
        avc_frame_create(av::fcc_h264, 0, stream.data(), static_cast<uint32_t>(stream.size()), CORE_HERE), nullptr};
    if (!frames[0]) return;
    buf_t out;
    const int init = av_mp4_init(&out, frames[0], CORE_HERE);
    const uint32_t before = out.length;
    const int moof = av_mp4_moof(&out, frames, 0, 40000, 1, CORE_HERE);
    require((init == 1) == (before > 0) && (moof == 1) == (out.length > before) && (moof == 1 || fuzz::starved));
    core_buf_free(&out);
    avc_frame_need(frames[0]);
}

}  // namespace

void fuzz_target(std::span<const uint8_t> input) {
    split(input);
    for (const auto nal : {input, h264_find(input, h264_sps)}) {
        h264_info_t info{};
        h264_parse_sps(nal, &info);
        require(info.width <= 16384 && info.height <= 16384 && (info.width > 0) == (info.height > 0));
        h264_slice_t slice;
        h264_parse_slice(h264_first_slice(input), info, &slice);
        require(info.chroma_format <= 3 && info.bit_depth <= 14 && info.bit_depth_chroma <= 14);
    }
    wrap(input);
}
