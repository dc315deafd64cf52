// A track that DASH serves: its place in the registry, a clock that is moved by hand, a directory for the files.
#pragma once

#include "net_dash/contexts.h"
#include "support/frames.h"
#include "support/scratch.h"

#include "avc/fcc.h"
#include "core/time.h"
#include "inet/inet.h"
#include "inet/net_dash.h"
#include "inet/net_tab.h"

#include <atomic>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>
#include <vector>

namespace test {

constexpr uint64_t dash_base = 1'700'000'000'000'000;

/// The archive of the track, whose pictures the test puts.
struct archive {
    explicit archive(const std::string& context)
        : local(core_profile_open2("plugin_methods_archive", nullptr, answer, CORE_HERE)),
          player(core_profile_open2(("a_b_#_dash_" + context).c_str(), this, play, CORE_HERE)),
          track(profile_open(("a_b_#_dash_" + context + "_d").c_str())) {}
    ~archive() {
        for (profile_ctx* each : {local, player, track})
            profile_close(each);
    }
    archive(const archive&) = delete;
    archive& operator=(const archive&) = delete;

    static void answer(void*, profile_ctx* profile, profile_event_t event, const param_t*) {
        if (event == profile_ask) core_profile_answer(profile, "{\"count\": 1}");
    }
    static void play(void* arg, profile_ctx*, profile_event_t event, const param_t* params) {
        if (event == profile_put)
            static_cast<archive*>(arg)->asked = param_get_text(params, "command") +
                                                std::to_string(param_get_integer(params, "start", 0)) +
                                                param_get_text(params, "speed");
    }

    std::string asked;
    profile_ctx *local, *player, *track;
};

class DashSource : public testing::Test {
protected:
    DashSource() {
        now = dash_base;
        core_time_set_clock([] { return now.load(); });
        std::filesystem::current_path(files_ / "");
        net_init();
        dash_init();
        value_t** row = nullptr;
        for (const auto& [key, value] : {std::pair("id", "cam"),
                                         {"key1", "a"},
                                         {"key2", "b"},
                                         {"key3", "c"},
                                         {"key4", "d"},
                                         {"width", "64"},
                                         {"height", "48"},
                                         {"profile", "77"}})
            row = core_value_put(row, key, value, CORE_HERE);
        tab_put(tab_tracks, "token", row, CORE_HERE);
        core_value_free(row);
        source_ = profile_open("a_b_c_d");
    }
    ~DashSource() override {
        profile_close(source_);
        dash_free();
        net_free();
        core_time_set_clock(nullptr);
        std::filesystem::current_path(std::filesystem::temp_directory_path());
    }

    static uint32_t put(profile_ctx* to, const av::frame_t& frame) {
        const param_t list[] = {{"frame", static_cast<const void*>(&frame)}, {}};
        return core_profile_put(to, list);
    }

    /// Puts pictures, written as their kind and their milliseconds from the base: "K0 p40 p80 K2000". C is a key
    /// picture with other parameter sets than K, S is sound.
    void put(const std::string& pictures, profile_ctx* to = nullptr) {
        using namespace std::string_literals;
        const std::string slices = "\0\0\1\x68\xcb\x83\xcb\x20\0\0\1\x65\x88\x84"s;
        const std::string sets = "\0\0\1\x67\x42\xc0\x0d\xd9\1\x41\xfb\1\x10\0\0\3\0\x10\0\0\3\3\x20\xf1\x42\xa4\x80"s;
        std::istringstream in(pictures);
        double ms = 0;
        for (char kind = 0; in >> kind >> ms;) {
            std::string unit = kind == 'p' ? "\0\0\1\x41\x9a\x84"s : sets + slices;
            if (kind == 'C') unit[6] = 0x14;
            av::frame_t frame = borrowed(kind == 'S' ? av::fcc_mp4a : av::fcc_h264, bytes_of(unit));
            frame.time = dash_base + static_cast<uint64_t>(std::llround(ms * 1000));
            frame.key = kind != 'p';
            now = std::max(now.load(), frame.time);
            put(to ? to : source_, frame);
        }
    }

    /// Key pictures 2 s apart, with one between them.
    void put_seconds(int from, int to) {
        for (int s = from; s < to; s += 2)
            put("K" + std::to_string(s * 1000) + " p" + std::to_string(s * 1000 + 1000));
    }

    static std::string times(net::dash_ctx* ctx) {
        std::string out;
        const net::dash_timeline* pair = net_dash_times(ctx);
        for (; pair && (pair->t || pair->d); ++pair)
            out += std::to_string(pair->t) + '+' + std::to_string(pair->d) + ' ';
        return out;
    }

    static std::string bytes(net::dash_ctx* ctx, const std::string& name) {
        net::dash_share share;
        if (!net_dash_share(ctx, name.c_str(), &share)) return {};
        std::string out(reinterpret_cast<const char*>(share.info.data), share.info.size);
        net_dash_share_release(share.owner);
        return out;
    }

    static std::string manifest(net::dash_ctx* ctx) {
        const core::owned_text text(net_dash_manifest(ctx, CORE_HERE));
        return text ? text.get() : "";
    }

    static inline std::atomic<uint64_t> now;
    scratch files_;
    profile_ctx* source_ = nullptr;
};

}  // namespace test
