#include "inet/net_fish.h"

#include "support/fault.h"

#include "core/json.h"
#include "core/owned.h"
#include "inet/net_node.h"

#include <cmath>
#include <functional>

namespace {

using text_t = const char*;
using document = core::owned_text;
using tree = core::owned<json_t, yajl_tree_free>;

struct row_t {
    const char* section;
    const char* type;        ///< with ? for a text of the caller's
    const char* parameters;  ///< "name:level", those that hold one of the caller's texts with a ?
    std::function<char*(const net::cinfo_t__* node, text_t t)> make;
};

constexpr text_t two[] = {"a\"", "\xff", nullptr};
constexpr double bands[] = {-1.0, 0.5, 1.0, 0, 0, 0, 0, INFINITY, NAN};

const row_t rows[] = {
    {"device", "zelt54client:archive", "out:0? ip:0? port:2 rid:0 audio:0",
     [](auto* n, text_t t) { return fish_archive_zelt54(n, t, 1, 2, true, CORE_HERE); }},
    {"archive", "reader", "out:0? arc_key1:0? arc_key2:0? arc_key3:0? ignore_arc_key3:0 subtype:0?",
     [](auto* n, text_t t) { return fish_archive_reader(n, t, t, t, t, CORE_HERE); }},
    {"archive", "media", "out:0? file:0?", [](auto* n, text_t t) { return fish_archive_media(n, t, CORE_HERE); }},
    {"device", "media", "out:0? file:0? video_stream:0 audio_stream:0 fps:1 speed:3",
     [](auto* n, text_t t) { return fish_device_media(n, t, 0, 1, 25, 1, CORE_HERE); }},
    {"device", "media", "out:0? file:0? video_stream:0 audio_stream:0 fps:1 speed:3",
     [](auto* n, text_t t) { return fish_device_media_file(n, t, 0, 1, 25, 1, CORE_HERE); }},
    {"device", "sound:microphone", "out:0? device:0? sampling_rate:0 quality:0 channel:0?",
     [](auto* n, text_t t) { return fish_device_microphone(n, t, two, 8000, 16, t, CORE_HERE); }},
    {"device", "sound:sound_detector", "in:0? out:0? nthresh:0 width:0 height:0 enable:0",
     [](auto* n, text_t) { return fish_device_sound_detect(n, 1, 2, 3, CORE_HERE); }},
    {"device", "sound:sound_mixer", "input:0 out:0? codec:0? sps:1 nch:1 bps:1",
     [](auto* n, text_t t) { return fish_device_sound_mixer(n, t, CORE_HERE); }},
    {"mtime", "text", "in:0? out:0?", [](auto* n, text_t) { return fish_match_time(n, CORE_HERE); }},
    {"synch", "ratchet", "out:0? width:0 height:0 sps:0 nch:0 bps:0",
     [](auto* n, text_t) { return fish_synch_av(n, 1, 2, 3, 4, 5, CORE_HERE); }},
    {"device", "sound:player", "in:0? device:0? volume:0",
     [](auto* n, text_t t) { return fish_device_player(n, t, two, -1, CORE_HERE); }},
    {"device", "sound:equalizer",
     "in:0? out:0? 312,5Hz:0 625Hz:0 937,5Hz:0 1250Hz:0 1562,5Hz:0 1875Hz:0 2187,5Hz:0 2,5kHz:0 20kHz:0",
     [](auto* n, text_t) { return fish_device_equalizer(n, bands, CORE_HERE); }},
    {"device", "rtmp", "out:0? url:0?", [](auto* n, text_t t) { return fish_device_rtmp(n, t, CORE_HERE); }},
    {"device", "http", "out:0? url:0?", [](auto* n, text_t t) { return fish_device_http(n, t, CORE_HERE); }},
    {"device", "rtsp:?", "in:2 out:0? ip:0? port:0 id:0? login:0? password:0? protocol:0?",
     [](auto* n, text_t t) { return fish_device_rtsp(n, t, t, 554, t, t, t, t, CORE_HERE); }},
    {"device", "capture:?",
     "out:0? device:0? Resolution:0? Format:0? FrameRate:1 Brightness:1 Contrast:1 Saturation:1 Sharpness:1",
     [](auto* n, text_t t) { return fish_device_capture(n, t, t, two, t, two, t, nullptr, CORE_HERE); }},
    {"device", "capture:bt878",
     "out:0? device:0? Resolution:1? Format:1? FrameRate:1 Brightness:1 Contrast:1 Saturation:1 Sharpness:1",
     [](auto* n, text_t t) { return fish_device_capture_bt878(n, t, two, t, t, CORE_HERE); }},
    {"device", "render", "in:0?", [](auto* n, text_t) { return fish_device_render(n, CORE_HERE); }},
    {"device", "?",
     "_Key4:2 out:1? in:1? _in_command:2 _out_command:2 PTZ:1 Ip:0? IpPort:1 Login:1 Password:1 Protocol:1 "
     "ProfileName:1?",
     [](auto* n, text_t t) { return fish_device_ipcamera(n, t, t, t, CORE_HERE); }},
    {"device", "zelt54client:realtime", "out:0? ip:0? port:2 rid:0 QueueLen:2 audio:2 login:1? hash_password:2?",
     [](auto* n, text_t t) { return fish_device_zelt54(n, t, 1, 2, t, t, CORE_HERE); }},
    {"decode", "recode:audio", "in:0? out:0?", [](auto* n, text_t) { return fish_decode_audio(n, CORE_HERE); }},
    {"decode", "recode:video", "in:0? out:0?", [](auto* n, text_t) { return fish_decode_video(n, CORE_HERE); }},
    {"encode", "recode:audio", "in:0? out:0? codec:0? sps:1 bps:1 nch:1?",
     [](auto* n, text_t t) { return fish_encode_audio(n, t, 8000, 16, t, CORE_HERE); }},
    {"encode", "recode:video",
     "in:0? out:0? codec:0? width:1 height:1 bitrate:1 fps:1 keyint:1 quality:1 preset:3 profile:3 thread:2",
     [](auto* n, text_t t) { return fish_encode_video(n, t, 1, 2, 3, 4, 5, 6, t, CORE_HERE); }},
    {"encode", "recode:video",
     "in:0? out:0? codec:0? width:1 height:1 bitrate:1 fps:1 keyint:1 quality:1 preset:3 profile:3 thread:2 "
     "proportion:2?",
     [](auto* n, text_t t) { return fish_encode_video2(n, t, 1, 2, 3, 4, 5, 6, t, CORE_HERE); }},
    {"export", "media", "in:0? out:0? path:0? name:0? type:0?",
     [](auto* n, text_t t) { return fish_export_media(n, t, t, t, CORE_HERE); }},
    {"processing", "media", "in:0? out:0? inscription:0?",
     [](auto* n, text_t t) { return fish_text_overlay(n, t, CORE_HERE); }},
    {"web_services", "wshost:host", "port:0 enable_ws_log:1 timeout_sec:0",
     [](auto*, text_t) { return fish_services_wshost(CORE_HERE); }},
    {"server", "http", "port:0 path:0?", [](auto*, text_t t) { return fish_server_http(80, t, CORE_HERE); }},
    {"server", "rtmp", "port:0 priorities:0 techvideo:0",
     [](auto*, text_t) { return fish_server_rtmp(1935, CORE_HERE); }},
    {"server", "rtsp", "port:0 protocol:0 techvideo:0", [](auto*, text_t) { return fish_server_rtsp(554, CORE_HERE); }},
    {"server", "zelt54server", "port:0 locinfo:2 globinfo:2 port30015info:2",
     [](auto*, text_t) { return fish_server_zelt54(1, CORE_HERE); }},
    {"server", "onvif", "port:0", [](auto*, text_t) { return fish_server_wsdd(3702, CORE_HERE); }},
    {"sender", "http", "in:0? id:0? dash:0", [](auto* n, text_t t) { return fish_sender_http(n, t, CORE_HERE); }},
    {"sender", "rtmp", "in:0? id:0? profile:0", [](auto* n, text_t t) { return fish_sender_rtmp(n, t, CORE_HERE); }},
    {"sender", "rtsp", "in:0? id:0? profile:0", [](auto* n, text_t t) { return fish_sender_rtsp(n, t, CORE_HERE); }},
    {"sender", "rtp:?", "in:0? video:ip:0? audio:ip:0?",
     [](auto* n, text_t t) { return fish_sender_rtp(n, t, t, t, CORE_HERE); }},
};

/// As the table writes it.
std::string described(const json_t* parameters, const std::string& given) {
    std::string out;
    for (uint32_t i = 0; i < parameters->count; ++i) {
        const json_member_t& each = parameters->members[i];
        const json_t* value = json_get(&each.value, "_value");
        EXPECT_TRUE(value) << each.name;
        const char* text = json_text(value);
        out += std::string(i ? " " : "") + each.name + ':' +
               std::to_string(json_integer(json_get(&each.value, "_level"), -1));
        if (text && text == given) out += '?';
    }
    return out;
}

// Whatever the caller's texts hold, they come out of the document as they went in.
TEST(Fish, FillsEveryDocumentWithAnyText) {
    // What is no UTF-8 comes out as U+FFFD.
    const std::pair<const char*, const char*> texts[] = {
        {"plain", "plain"},
        {"\",\"x\":{} ${track} \\ \n\x01 \xd1\x84", "\",\"x\":{} ${track} \\ \n\x01 \xd1\x84"},
        {"a\xff\xc3", "a\xef\xbf\xbd\xef\xbf\xbd"}};
    for (const auto& [text, given] : texts) {
        const net::cinfo_t__ who{text, text, text, text, text};
        for (const row_t& row : rows) {
            SCOPED_TRACE(std::string(row.section) + '/' + row.type);
            const document made(row.make(&who, text));
            net::Node node;
            char error[80] = "";
            ASSERT_TRUE(node.parse(made.get(), error, sizeof error)) << error << '\n' << made.get();
            EXPECT_STREQ(node.section(), row.section);
            std::string type = row.type;
            if (const size_t at = type.find('?'); at != std::string::npos) type.replace(at, 1, given);
            EXPECT_EQ(node.type(), type);
            const tree root(yajl_tree_parse(made.get(), nullptr, 0));
            const json_t* section = json_get(root.get(), row.section);
            if (section->type == json_array) section = section->items;
            ASSERT_EQ(section->count, 2U);
            EXPECT_EQ(described(&section->members[1].value, given), row.parameters);
            const bool has_fixed_keys =
                row.type == std::string_view("wshost:host") || row.section == std::string_view("server");
            if (json_get(root.get(), "common") && !has_fixed_keys) {
                EXPECT_STREQ(node.key3(), given);
            }
        }
    }
}

TEST(Fish, WritesChoicesBoundsAndFixedValues) {
    const document microphone(fish_device_microphone(nullptr, "b", two, 8000, 16, "", CORE_HERE));
    EXPECT_NE(
        std::string_view(microphone.get()).find(R"("device": {"_level": 0, "_value": "b", "_values": ["a\"", "�"]})"),
        std::string_view::npos)
        << microphone.get();
    const document equalizer(fish_device_equalizer(nullptr, bands, CORE_HERE));
    for (const char* part : {R"("312,5Hz": {"_level": 0, "_value": -1, "_minvalue": -1.0, "_maxvalue": 1.0})",
                             R"("2,5kHz": {"_level": 0, "_value": 0,)"})
        EXPECT_NE(std::string_view(equalizer.get()).find(part), std::string_view::npos) << equalizer.get();
    const document http(fish_server_http(8080, nullptr, CORE_HERE));
    EXPECT_STREQ(http.get(), R"({
  "common": {"enable": true, "key1": "host", "key2": "server", "key3": "http", "_typeJS": "servers"},
  "server": {
    "_type": {"_level": 0, "_value": "http", "_values": ["http"]},
    "http": {
      "port": {"_level": 0, "_value": 8080, "_minvalue": 1, "_maxvalue": 65535},
      "path": {"_level": 0, "_value": "./temp"}
    }
  }
})");
    const net::cinfo_t__ sound{"a", "b", "c", "", ""};
    const net::cinfo_t__ picture{"d", "e\"", "f", "", ""};
    const net::cinfo_t__ self{"k1", "k2", "k3", "in", "out"};
    const document synchroniser(fish_sinhrofazotron(&self, &sound, &picture, CORE_HERE));
    for (const char* part : {R"("_value": "a_b_c,d_e\"_f,")", R"("_value": "in,")", R"("PINS": [])", R"("logic")"})
        EXPECT_NE(std::string_view(synchroniser.get()).find(part), std::string_view::npos) << synchroniser.get();
    const document writer(fish_archive_writer(&self, CORE_HERE));
    EXPECT_STREQ(writer.get(), "");
    const document common(fish_common("1", "\"", nullptr, "logic", CORE_HERE));
    EXPECT_STREQ(common.get(), R"({
  "common": {"enable": true, "key1": "1", "key2": "\"", "key3": "", "_typeJS": "logic"}
})");
}

TEST(Fish, GivesNothingWithoutMemory) {
    EXPECT_GT(test::fail_each_allocation([] {
                  const document made(fish_device_microphone(nullptr, "b", two, 8000, 16, "", CORE_HERE));
                  net::Node node;
                  node.parse(made.get(), nullptr, 0);
              }),
              3U);
}

}  // namespace
