// Devices of the module for sound.
#pragma once

namespace fish {

// clang-format off
constexpr char device_microphone[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "sound:microphone", "_values": ["sound:microphone"]},
    "sound:microphone": {
      "out": {"_level": 0, "_value": "${track}"},
      "device": {"_level": 0, "_value": "${device}", "_values": [${devices}]},
      "sampling_rate": {"_level": 0, "_value": ${sampling_rate},
        "_values": [0, 8000, 11025, 16000, 22050, 32000, 44100, 48000, 96000, 192000]},
      "quality": {"_level": 0, "_value": ${quality}, "_values": [0, 8, 16, 32]},
      "channel": {"_level": 0, "_value": "${channel}", "_values": ["", "left", "right"]}
    }
  })";

constexpr char device_sound_detect[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "sound:sound_detector", "_values": ["sound:sound_detector"]},
    "sound:sound_detector": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "nthresh": {"_level": 0, "_value": ${nthresh}},
      "width": {"_level": 0, "_value": ${width}},
      "height": {"_level": 0, "_value": ${height}},
      "enable": {"_level": 0, "_value": false}
    }
  })";

constexpr char device_sound_mixer[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "sound:sound_mixer", "_values": ["sound:sound_mixer"]},
    "sound:sound_mixer": {
      "input": {"_level": 0, "_value": ""},
      "out": {"_level": 0, "_value": "${track}"},
      "codec": {"_level": 0, "_value": "${codec}", "_values": ["pcmu", "pcma", "gsm", "mp4a", "mp3"]},
      "sps": {"_level": 1, "_value": 0, "_values": [0, 8000, 11000, 22050, 44100, 48000, 96000]},
      "nch": {"_level": 1, "_value": " ", "_values": [" ", "mono", "stereo"]},
      "bps": {"_level": 1, "_value": 0, "_values": [0, 8, 16, 24]}
    }
  })";

constexpr char device_player[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "sound:player", "_values": ["sound:player"]},
    "sound:player": {
      "in": {"_level": 0, "_value": "${track}"},
      "device": {"_level": 0, "_value": "${device}", "_values": [${devices}]},
      "volume": {"_level": 0, "_value": ${volume}}
    }
  })";

constexpr char device_equalizer[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "sound:equalizer", "_values": ["sound:equalizer"]},
    "sound:equalizer": {
      "in": {"_level": 0, "_value": "${track}"},
      "out": {"_level": 0, "_value": "${track2}"},
      "312,5Hz": {"_level": 0, "_value": ${band1}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "625Hz": {"_level": 0, "_value": ${band2}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "937,5Hz": {"_level": 0, "_value": ${band3}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "1250Hz": {"_level": 0, "_value": ${band4}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "1562,5Hz": {"_level": 0, "_value": ${band5}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "1875Hz": {"_level": 0, "_value": ${band6}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "2187,5Hz": {"_level": 0, "_value": ${band7}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "2,5kHz": {"_level": 0, "_value": ${band8}, "_minvalue": -1.0, "_maxvalue": 1.0},
      "20kHz": {"_level": 0, "_value": ${band9}, "_minvalue": -1.0, "_maxvalue": 1.0}
    }
  })";
// clang-format on

}  // namespace fish
