// The modules that play files: what a subscriber of their track gets is what went into the file.
#include "support/fault.h"
#include "support/files.h"
#include "support/frames.h"
#include "support/log_keeper.h"
#include "support/network_thread.h"
#include "support/scratch.h"

#include "avc/access_units.h"
#include "avc/fcc.h"
#include "common/h264.h"
#include "core/owned.h"
#include "core/profile.h"
#include "core/time.h"
#include "inet/net_graph.h"
#include "media/intake.h"
#include "media/recorder.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <string>
#include <vector>

namespace {

using graph_t = core::owned<net::Graph, net::Graph::destroy>;
using frame_t = core::owned<av::frame_t, avc_frame_need>;
using bus_t = core::owned<profile_ctx, profile_close>;

constexpr uint64_t base = 1'795'343'477'042'000;  // 2026-11-22 10:31:17.042
constexpr uint64_t step = 40'000;

/// NAL units behind each other, each with a mark; delimiters are left out.
std::string nals(const av::frame_t& frame) {
    std::string out;
    std::span<const uint8_t> rest(frame.data, frame.size);
    for (auto nal = h264_next_nal(rest); !nal.empty(); nal = h264_next_nal(rest)) {
        if (h264_nal_type(nal) != h264_aud) out += "|" + std::string(nal.begin(), nal.end());
    }
    return out;
}

std::vector<frame_t> load_clip() {
    std::vector<frame_t> frames;
    std::string bytes = test::read_file(INET_CLIP);
    av::AccessUnits units(CORE_HERE);
    const auto keep = [](void* arg, buffer_t unit) {
        auto& all = *static_cast<std::vector<frame_t>*>(arg);
        all.emplace_back(avc_frame_create(av::fcc_h264, base + all.size() * step, unit.data, unit.size, CORE_HERE));
    };
    units.take({reinterpret_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(bytes.size())}, keep, &frames);
    units.end(keep, &frames);
    return frames;
}

/// What comes on a track, up to `most` frames: then it holds the module back until it is let go.
class listener {
public:
    explicit listener(size_t most = SIZE_MAX) : most_(most) {
        profile_.reset(core_profile_open2("a_b_c_video", this, on_profile, CORE_HERE));
    }
    ~listener() {
        let_go();
        profile_.reset();
    }
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    /// Waits for the end, or for the frames.
    bool wait() {
        std::unique_lock guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(60), [this] { return ended_ || frames.size() >= most_; });
    }
    void let_go() {
        const std::lock_guard guard(lock_);
        free_ = true;
        changed_.notify_all();
    }

    std::vector<frame_t> frames;
    int64_t code = 1;
    int64_t loud_samples = 0;

private:
    static void on_profile(void* arg, profile_ctx*, profile_event_t event, const param_t* params) {
        auto& self = *static_cast<listener*>(arg);
        if (event == profile_put) self.take(params);
    }
    void take(const param_t* params) {
        std::unique_lock guard(lock_);
        if (av::frame_t* frame = avc_frame_parse(params, CORE_HERE); frame && frame->fcc != av::fcc_h264) {
            loud_samples += frame->rate == 8000 && frame->channels == 1 && frame->bits == 16
                                ? std::count(frame->data, frame->data + frame->size, 0x7d)  // of 0x7d7c
                                : 0;
            avc_frame_need(frame);
        } else if (frame) {
            if (frames.size() < most_)
                frames.emplace_back(frame);
            else
                avc_frame_need(frame);
        } else {
            code = param_get_integer(params, "end", 1);
            ended_ = true;
        }
        changed_.notify_all();
        if (frames.size() >= most_) changed_.wait(guard, [this] { return free_; });
    }

    std::mutex lock_;
    std::condition_variable changed_;
    size_t most_;
    bool ended_ = false;
    bool free_ = false;
    bus_t profile_;
};

const net::cinfo_t__ node{"a", "b", "c", "video", nullptr};

TEST(Media, PlaysAFileForEver) {
    const auto frames = load_clip();
    const size_t count = frames.size();
    ASSERT_GT(count, 100U);
    listener heard(count + 2);
    const graph_t graph(net::Graph::create(CORE_HERE));
    ASSERT_TRUE(graph->add_device_media(&node, INET_CLIP, 0, 0, 240, 1));
    const uint64_t before = time_now();
    ASSERT_TRUE(graph->start());
    ASSERT_TRUE(heard.wait());
    EXPECT_GE(time_now() - before, (count + 1) * 1'000'000 / 240) << "not faster than it is shown";
    for (size_t i = 0; i < heard.frames.size(); ++i) {
        ASSERT_EQ(nals(*heard.frames[i]), nals(*frames[i % count])) << i;
        EXPECT_EQ(heard.frames[i]->key, frames[i % count]->key);
        EXPECT_NEAR(static_cast<double>(heard.frames[i]->time - heard.frames[0]->time),
                    static_cast<double>(i) * 1e6 / 240, 1);
    }
    heard.let_go();
    EXPECT_TRUE(graph->stop());
    const test::log_keeper errors("error");
    const test::log_keeper console("console");
    EXPECT_FALSE(graph->add_archive_media(&node, "no/such.h264"));
    EXPECT_EQ(errors.lines, "error:module 'media' refuses its settings: cannot read no/such.h264 ");
}

TEST(Media, KeepsFilesInStepOnTheHostsThread) {
    struct row_t {
        const char* track;
        std::string file;
        uint32_t fcc;
        media::intake intake{};
        media::cursor reader{};
        uint64_t first = 0;
    };
    const std::string folder = std::string(INET_CLIP).substr(0, std::string(INET_CLIP).rfind('/') + 1);
    row_t rows[] = {{"video", INET_CLIP, av::fcc_h264},
                    {"audio", folder + "clip.wav", av::fcc_pcmu},
                    {"stills", folder + "clip_01.jpg\n" + folder + "clip_02.jpg", av::fcc_jpeg}};
    const test::network_thread host;
    const auto on_host = [](void* arg, profile_ctx*, profile_event_t event, const param_t*) {
        EXPECT_TRUE(event != profile_put || !net::net_nt_need_invoke(static_cast<net::nt_ctx*>(arg)));
    };
    const bus_t beside(core_profile_open2("a_b_c_audio", host.nt, on_host, CORE_HERE));
    const graph_t graph(net::Graph::create(CORE_HERE));
    for (row_t& each : rows) {
        const net::cinfo_t__ part{"a", "b", "c", each.track, nullptr};
        ASSERT_TRUE(graph->add_device_media(&part, each.file.c_str(), 0, 0, 240, 1));
        const core::owned<media::stream, media::stream::drop> stream(media::stream::create("live", {}, CORE_HERE));
        media::format_t told;
        ASSERT_TRUE(each.intake.open((std::string("a_b_c_") + each.track).c_str(), *stream, &told));
        EXPECT_EQ(told.fcc, each.fcc);
        ASSERT_TRUE(each.reader.open(*stream, {.any = true}));
    }
    media::entry_t entry;
    const auto read = [&](row_t& from, int count) {
        while (count > 0) {
            const media::read_t found = from.reader.wait(entry, 60'000);
            if (found == media::read_t::nothing) break;
            if (found != media::read_t::frame) continue;
            if (from.first == 0) from.first = entry.frame.time;
            --count;
        }
        return count == 0;
    };
    graph->run_on(host.nt);
    ASSERT_TRUE(graph->start());
    for (row_t& each : rows)
        ASSERT_TRUE(read(each, 2));
    const test::allocation_count allocations;
    for (row_t& each : rows)
        ASSERT_TRUE(read(each, 10));
    EXPECT_EQ(allocations.value(), 0U) << "set up, it allocates nothing";
    EXPECT_EQ(rows[1].first, rows[0].first);
    EXPECT_EQ(rows[2].first, rows[0].first);
    EXPECT_TRUE(graph->stop());
}

/// Records pictures, and for each of them 40 ms of sound, to a file.
void record(const std::string& path, const std::vector<frame_t>& frames, size_t begin, size_t end) {
    media::recorder film;
    ASSERT_TRUE(film.add(path.c_str()));
    film.declare({.fcc = av::fcc_h264});
    film.declare({.fcc = av::fcc_pcmu, .rate = 8000, .channels = 1});
    const std::vector<uint8_t> loud(320, 0x80);
    for (size_t i = begin; i < end; ++i) {
        ASSERT_TRUE(film.take(*frames[i]));
        ASSERT_TRUE(film.take(test::borrowed(av::fcc_pcmu, loud, frames[i]->time)));
    }
    ASSERT_TRUE(film.finish());
}

void on_archive(void* arg, profile_ctx* profile, profile_event_t event, const param_t* params) {
    if (event != profile_ask) return;
    const bool wants_folder = std::strcmp(param_get_text(params, "method"), "directory") == 0;
    core_profile_answer(profile, wants_folder ? static_cast<std::string*>(arg)->c_str() : "true");
}

TEST(Reader, PlaysARecordingBitForBit) {
    const auto frames = load_clip();
    size_t second_key = 1;
    while (!frames[second_key]->key)
        ++second_key;
    size_t third_key = second_key + 1;
    while (!frames[third_key]->key)
        ++third_key;
    const test::scratch folder;
    // Two files; the second one says that it begins before the first one ends. Others are not of the recording.
    record(folder / "yard-20261122T103117.042Z.mp4", frames, 0, third_key);
    const uint64_t second_file = frames[third_key]->time;
    char name[64];
    time_format(second_file - 500, "yard-%Y%m%dT%H%M%S.%sZ.mp4", name, sizeof name);
    record(folder / name, frames, third_key, frames.size());
    test::write_file(folder / "yard-20261122T103118.000Z.mp4", test::bytes_of("no film"));
    test::write_file(folder / "yard-1-20261122T103116.000Z.mp4", test::bytes_of("of another stream"));

    std::string answer = "{\"directory\": \"" + (folder / "") + "\"}";
    std::replace(answer.begin(), answer.end(), '\\', '/');
    const bus_t archive(core_profile_open2("plugin_methods_archive", &answer, on_archive, CORE_HERE));
    const bus_t control(core_profile_open("a_b_c", CORE_HERE));
    const test::log_keeper errors("error");
    const graph_t graph(net::Graph::create(CORE_HERE));
    ASSERT_TRUE(graph->add_archive(&node, "yard"));
    ASSERT_TRUE(graph->start());
    {
        // From the key picture before the wanted time on, up to the end.
        listener heard;
        EXPECT_EQ(core_archive_play(control.get(), frames[second_key]->time + 100'000, 100000.0), 1U);
        ASSERT_TRUE(heard.wait());
        EXPECT_EQ(heard.code, 0);
        ASSERT_EQ(heard.frames.size(), frames.size() - second_key);
        for (size_t i = 0; i < heard.frames.size(); ++i) {
            const av::frame_t& was = *frames[second_key + i];
            ASSERT_EQ(nals(*heard.frames[i]), nals(was)) << i;
            EXPECT_NEAR(static_cast<double>(heard.frames[i]->time), static_cast<double>(was.time), 1000) << i;
            EXPECT_EQ(heard.frames[i]->key, was.key);
            EXPECT_EQ(heard.frames[i]->width, frames[0]->width);
        }
        EXPECT_NEAR(static_cast<double>(heard.loud_samples), 320.0 * static_cast<double>(frames.size() - second_key),
                    640);
        EXPECT_NE(errors.lines.find("yard-20261122T103118.000Z.mp4 cannot be read"), std::string::npos) << errors.lines;
    }
    {
        listener heard;
        core_archive_play(control.get(), base + 3'600'000'000, 100000.0);
        ASSERT_TRUE(heard.wait());
        EXPECT_EQ(heard.code, -13) << "nothing was recorded then";
    }
    {
        // A subscriber holds the module back; a new order ends the old one.
        listener heard(2);
        core_archive_play(control.get(), 0, 100000.0);
        ASSERT_TRUE(heard.wait());
        core_archive_play(control.get(), second_file, 100000.0);
        heard.let_go();
    }
    EXPECT_TRUE(graph->stop());
    const test::log_keeper console("console");
    for (const char* escape : {"../yard", ".yard", "a/b", "", "a\\b"}) {
        EXPECT_FALSE(graph->add_archive_reader(&node, "", escape, "", "")) << escape;
    }
}

}  // namespace
