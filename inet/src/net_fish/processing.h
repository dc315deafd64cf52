// Nodes that make one track of another.
#pragma once

namespace fish {

// clang-format off
constexpr char match_time[] = R"(
  "mtime": {
    "_type": {"_level": 0, "_value": "text", "_values": ["text"]},
    "text": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"}
    }
  })";

constexpr char synch_av[] = R"(
  "synch": {
    "_type": {"_level": 0, "_value": "ratchet", "_values": ["ratchet"]},
    "ratchet": {
      "out": {"_level": 0, "_value": "${track}"},
      "width": {"_level": 0, "_value": ${width}},
      "height": {"_level": 0, "_value": ${height}},
      "sps": {"_level": 0, "_value": ${sps}},
      "nch": {"_level": 0, "_value": ${nch}},
      "bps": {"_level": 0, "_value": ${bps}}
    }
  })";

constexpr char decode[] = R"(
  "decode": {
    "_type": {"_level": 0, "_value": "recode:${kind}", "_values": ["recode:${kind}"]},
    "recode:${kind}": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"}
    }
  })";

constexpr char encode_audio[] = R"(
  "encode": {
    "_type": {"_level": 0, "_value": "recode:audio", "_values": ["recode:audio"]},
    "recode:audio": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "codec": {"_level": 0, "_value": "${codec}", "_values": ["pcmu", "pcma", "gsm", "mp4a", "mp3"]},
      "sps": {"_level": 1, "_value": ${sps}, "_values": [0, 8000, 11000, 22050, 44100, 48000, 96000]},
      "bps": {"_level": 1, "_value": ${bps}, "_values": [0, 8, 16, 24]},
      "nch": {"_level": 1, "_value": "${nch}", "_values": [" ", "mono", "stereo"]}
    }
  })";

constexpr char encode_video[] = R"(
  "encode": {
    "_type": {"_level": 0, "_value": "recode:video", "_values": ["recode:video"]},
    "recode:video": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "codec": {"_level": 0, "_value": "${codec}", "_values": ["h264", "mp4v", "jpeg", "zeltm2"]},
      "width": {"_level": 1, "_value": ${width}},
      "height": {"_level": 1, "_value": ${height}},
      "bitrate": {"_level": 1, "_value": ${bitrate}},
      "fps": {"_level": 1, "_value": ${fps}},
      "keyint": {"_level": 1, "_value": ${keyint}},
      "quality": {"_level": 1, "_value": ${quality}, "_minvalue": 0, "_maxvalue": 100},
      "preset": {"_level": 3, "_value": "superfast",
        "_values": ["ultrafast", "superfast", "veryfast", "faster", "fast", "medium", "slow", "slower",
          "veryslow"]},
      "profile": {"_level": 3, "_value": "baseline", "_values": ["baseline", "main", "high"]},
      "thread": {"_level": 2, "_value": false}${proportion}
    }
  })";

constexpr char encode_proportion[] = R"(,
      "proportion": {"_level": 2, "_value": "${proportion}", "_values": ["1:1", "4:3", "16:9"]})";

constexpr char export_media[] = R"(
  "export": {
    "_type": {"_level": 0, "_value": "media", "_values": ["media"]},
    "media": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "path": {"_level": 0, "_value": "${path}"},
      "name": {"_level": 0, "_value": "${name}"},
      "type": {"_level": 0, "_value": "${type}"}
    }
  })";

constexpr char text_overlay[] = R"(
  "processing": {
    "_type": {"_level": 0, "_value": "media", "_values": ["media"]},
    "text:overlay": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "inscription": {"_level": 0, "_value": "${inscription}"}
    }
  })";

constexpr char sinhrofazotron[] = R"(
  "timesynchronization": {
    "_type": {"_level": 0, "_value": "sinhrofazotron", "_values": ["sinhrofazotron"]},
    "sinhrofazotron": {
      "KEY123": {"_level": 0, "_value": "${key1_a}_${key2_a}_${key3_a},${key1_v}_${key2_v}_${key3_v},"},
      "trackIn": {"_level": 0, "_value": "${track},"},
      "trackOut": {"_level": 0, "_value": "${track2},"},
      "PINS": []
    }
  })";
// clang-format on

}  // namespace fish
