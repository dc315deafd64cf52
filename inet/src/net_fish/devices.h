// Devices: cameras, microphones, files, addresses, and what shows or plays a track.
#pragma once

namespace fish {

// clang-format off
constexpr char device_media[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "media", "_values": ["media"]},
    "media": {
      "out": {"_level": 0, "_value": "${track}"},
      "file": {"_level": 0, "_value": "${file}"},
      "video_stream": {"_level": 0, "_value": ${video_stream}},
      "audio_stream": {"_level": 0, "_value": ${audio_stream}},
      "fps": {"_level": 1, "_value": ${fps}},
      "speed": {"_level": 3, "_value": ${speed}}
    }
  })";

constexpr char device_capture[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "capture:${type}", "_values": ["capture:${type}"]},
    "capture:${type}": {
      "out": {"_level": 0, "_value": "${track}"},
      "device": {"_level": 0, "_value": "${device}", "_values": [${devices}]},
      "Resolution": {"_level": 0, "_value": "${resolution}", "_values": [${resolutions}]},
      "Format": {"_level": 0, "_value": "${format}", "_values": [${formats}]},
      "FrameRate": {"_level": 1, "_value": 25, "_minvalue": 1, "_maxvalue": 25},
      "Brightness": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Contrast": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Saturation": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Sharpness": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255}
    }
  })";

constexpr char device_capture_bt878[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "capture:bt878", "_values": ["capture:bt878"]},
    "capture:bt878": {
      "out": {"_level": 0, "_value": "${track}"},
      "device": {"_level": 0, "_value": "${device}", "_values": [${devices}]},
      "Resolution": {"_level": 1, "_value": "${resolution}", "_values": ["768x288", "768x576"]},
      "Format": {"_level": 1, "_value": "${format}", "_values": ["YUY2", "Y8"]},
      "FrameRate": {"_level": 1, "_value": 25, "_minvalue": 1, "_maxvalue": 25},
      "Brightness": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Contrast": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Saturation": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255},
      "Sharpness": {"_level": 1, "_value": 127, "_minvalue": 1, "_maxvalue": 255}
    }
  })";

constexpr char device_render[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "render", "_values": ["render"]},
    "render": {
      "in": {"_level": 0, "_value": "${track}"}
    }
  })";

constexpr char device_rtmp[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "rtmp", "_values": ["rtmp"]},
    "rtmp": {
      "out": {"_level": 0, "_value": "${track}"},
      "url": {"_level": 0, "_value": "${url}"}
    }
  })";

constexpr char device_http[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "http", "_values": ["http"]},
    "http": {
      "out": {"_level": 0, "_value": "${track}"},
      "url": {"_level": 0, "_value": "${url}"}
    }
  })";

constexpr char device_rtsp[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "rtsp:${type}", "_values": ["rtsp:${type}"]},
    "rtsp:${type}": {
      "in": {"_level": 2, "_value": ""},
      "out": {"_level": 0, "_value": "${track}"},
      "ip": {"_level": 0, "_value": "${ip}"},
      "port": {"_level": 0, "_value": ${port}},
      "id": {"_level": 0, "_value": "${id}"},
      "login": {"_level": 0, "_value": "${login}"},
      "password": {"_level": 0, "_value": "${password}"},
      "protocol": {"_level": 0, "_value": "${protocol}", "_values": ["", "tcp", "udp", "multicast"]}
    }
  })";

constexpr char device_ipcamera[] = R"(
  "device": [{
    "_type": {"_level": 0, "_value": "${model}", "_values": ["${model}"]},
    "${model}": {
      "_Key4": {"_level": 2, "_value": ""},
      "out": {"_level": 1, "_value": "${track}"},
      "in": {"_level": 1, "_value": "${track}"},
      "_in_command": {"_level": 2, "_value": "trackCommand"},
      "_out_command": {"_level": 2, "_value": "trackCommand"},
      "PTZ": {"_level": 1, "_value": false},
      "Ip": {"_level": 0, "_value": "${ip}"},
      "IpPort": {"_level": 1, "_value": 554, "_minvalue": 1, "_maxvalue": 65535},
      "Login": {"_level": 1, "_value": ""},
      "Password": {"_level": 1, "_value": ""},
      "Protocol": {"_level": 1, "_value": "IPProfile RTSP/UDP", "_web": ["IPProfile RTSP/UDP",
        "IPProfile RTSP/TCP"]},
      "ProfileName": {"_level": 1, "_value": "${profile_name}"}
    }
  }])";

constexpr char device_zelt54[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "zelt54client:realtime", "_values": ["zelt54client:realtime"]},
    "zelt54client:realtime": {
      "out": {"_level": 0, "_value": "${track}"},
      "ip": {"_level": 0, "_value": "${ip}"},
      "port": {"_level": 2, "_value": ${port}, "_minvalue": 0, "_maxvalue": 65535},
      "rid": {"_level": 0, "_value": ${rid}, "_minvalue": 1, "_maxvalue": 1000000000},
      "QueueLen": {"_level": 2, "_value": 18, "_minvalue": 0, "_maxvalue": 60},
      "audio": {"_level": 2, "_value": false},
      "login": {"_level": 1, "_value": "${login}"},
      "hash_password": {"_level": 2, "_value": "${hash_password}"}
    }
  })";
// clang-format on

}  // namespace fish
