// Servers, and what sends a track through them.
#pragma once

namespace fish {

// clang-format off
constexpr char services_wshost[] = R"(
  "web_services": {
    "_type": {"_level": 0, "_value": "wshost:host", "_values": ["wshost:host"]},
    "wshost:host": {
      "port": {"_level": 0, "_value": 9090},
      "enable_ws_log": {"_level": 1, "_value": false, "_caption": "Enable Web-service logs"},
      "timeout_sec": {"_level": 0, "_value": 30}
    }
  })";

constexpr char server_http[] = R"(
  "server": {
    "_type": {"_level": 0, "_value": "http", "_values": ["http"]},
    "http": {
      "port": {"_level": 0, "_value": ${port}, "_minvalue": 1, "_maxvalue": 65535},
      "path": {"_level": 0, "_value": "${path}"}
    }
  })";

constexpr char server_rtmp[] = R"(
  "server": {
    "_type": {"_level": 0, "_value": "rtmp", "_values": ["rtmp"]},
    "rtmp": {
      "port": {"_level": 0, "_value": ${port}},
      "priorities": {"_level": 0, "_value": false},
      "techvideo": {"_level": 0, "_value": true}
    }
  })";

constexpr char server_rtsp[] = R"(
  "server": {
    "_type": {"_level": 0, "_value": "rtsp", "_values": ["rtsp"]},
    "rtsp": {
      "port": {"_level": 0, "_value": ${port}},
      "protocol": {"_level": 0, "_value": "tcp", "_values": ["tcp/udp", "tcp", "udp"]},
      "techvideo": {"_level": 0, "_value": true}
    }
  })";

constexpr char server_zelt54[] = R"(
  "server": {
    "_type": {"_level": 0, "_value": "zelt54server", "_values": ["zelt54server"]},
    "zelt54server": {
      "port": {"_level": 0, "_value": ${port}},
      "locinfo": {"_level": 2, "_value": true},
      "globinfo": {"_level": 2, "_value": false},
      "port30015info": {"_level": 2, "_value": true}
    }
  })";

constexpr char server_wsdd[] = R"(
  "server": {
    "_type": {"_level": 0, "_value": "onvif", "_values": ["onvif"]},
    "onvif": {
      "port": {"_level": 0, "_value": ${port}, "_minvalue": 1, "_maxvalue": 65535}
    }
  })";

constexpr char sender_http[] = R"(
  "sender": {
    "_type": {"_level": 0, "_value": "http", "_values": ["http"]},
    "http": {
      "in": {"_level": 0, "_value": "${track}"},
      "id": {"_level": 0, "_value": "${id}"},
      "dash": {"_level": 0, "_value": false}
    }
  })";

constexpr char sender_profile[] = R"(
  "sender": {
    "_type": {"_level": 0, "_value": "${type}", "_values": ["${type}"]},
    "${type}": {
      "in": {"_level": 0, "_value": "${track}"},
      "id": {"_level": 0, "_value": "${id}"},
      "profile": {"_level": 0, "_value": "high", "_values": ["high", "medium", "low"]}
    }
  })";

constexpr char sender_rtp[] = R"(
  "sender": {
    "_type": {"_level": 0, "_value": "rtp:${type}", "_values": ["rtp:${type}"]},
    "rtp:${type}": {
      "in": {"_level": 0, "_value": "${track}"},
      "video:ip": {"_level": 0, "_value": "${video_ip}"},
      "audio:ip": {"_level": 0, "_value": "${audio_ip}"}
    }
  })";

constexpr char rtpserver[] = R"(
  "rtpserver": {
    "_type": {"_level": 0, "_value": "rtpserv", "_values": ["rtpserv"]},
    "rtpserv": {
      "in": {"_level": 0, "_value": "${track}"},
      "Ip": {"_level": 0, "_value": "${ip}"},
      "IpPort": {"_level": 0, "_value": ${port}},
      "NumDoublePacket": {"_level": 0, "_value": 0}
    }
  })";
// clang-format on

}  // namespace fish
