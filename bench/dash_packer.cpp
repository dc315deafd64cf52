// Packs a clip, over and over, as fast as it goes: what bench/compare-dash measures (Linux).
//
//   dash_packer CLIP.h264 SECONDS
//
// The pictures of SECONDS at 25 a second go over the profile bus into a live context, whose files are under ./temp.
// Prints the bytes of the pictures.
#include "avc/access_units.h"
#include "avc/fcc.h"
#include "avc/frame.h"
#include "core/file.h"
#include "core/memory.h"
#include "core/profile.h"
#include "core/value.h"
#include "inet/inet.h"
#include "inet/net_dash.h"
#include "inet/net_tab.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

std::vector<av::frame_t*> pictures_of(const char* path) {
    std::vector<av::frame_t*> pictures;
    size_t size = 0;
    uint8_t* const bytes = core_file_load(path, 256U << 20, &size, CORE_HERE);
    if (!bytes) return pictures;
    const auto add = [](void* arg, buffer_t unit) {
        auto& to = *static_cast<std::vector<av::frame_t*>*>(arg);
        to.push_back(avc_frame_create(av::fcc_h264, 0, unit.data, unit.size, CORE_HERE));
    };
    av::AccessUnits split(CORE_HERE);
    split.take({bytes, static_cast<uint32_t>(size)}, add, &pictures);
    split.end(add, &pictures);
    core_mfree(bytes);
    return pictures;
}

void add_track() {
    value_t** row = core_value_put(nullptr, "id", "clip", CORE_HERE);
    for (const char* key : {"key1", "key2", "key3", "key4"})
        row = core_value_put(row, key, key, CORE_HERE);
    tab_put(tab_tracks, "clip", row, CORE_HERE);
    core_value_free(row);
}

}  // namespace

int main(int argc, char** argv) {
    auto pictures = argc == 3 ? pictures_of(argv[1]) : std::vector<av::frame_t*>();
    if (pictures.empty()) return 1;
    net_init();
    dash_init();
    add_track();
    net::dash_ctx* const context = net_dash_open("clip", 0, 0, CORE_HERE);
    profile_ctx* track = profile_open("key1_key2_key3_key4");
    const auto count = static_cast<uint64_t>(std::atoll(argv[2])) * 25;
    uint64_t bytes = 0;
    for (uint64_t i = 0; i < count; ++i) {
        av::frame_t picture = *pictures[i % pictures.size()];
        picture.time = 1'700'000'000'000'000 + i * 40'000;
        bytes += picture.size;
        const param_t list[] = {{"frame", static_cast<const void*>(&picture)}, {}};
        core_profile_put(track, list);
    }
    const bool packed = net_dash_state(context) == net::dash_ready;
    std::printf("%llu\n", static_cast<unsigned long long>(bytes));
    profile_close(track);
    net_dash_close(context);
    dash_free();
    net_free();
    for (av::frame_t* each : pictures)
        avc_frame_need(each);
    return packed ? 0 : 1;
}
