// Archives: what plays and keeps recordings.
#pragma once

namespace fish {

// clang-format off
constexpr char archive_zelt54[] = R"(
  "device": {
    "_type": {"_level": 0, "_value": "zelt54client:archive", "_values": ["zelt54client:archive"]},
    "zelt54client:archive": {
      "out": {"_level": 0, "_value": "${track}"},
      "ip": {"_level": 0, "_value": "${ip}"},
      "port": {"_level": 2, "_value": ${port}},
      "rid": {"_level": 0, "_value": ${rid}},
      "audio": {"_level": 0, "_value": ${audio}, "_values": [true, false]}
    }
  })";

constexpr char archive_reader[] = R"(
  "archive": {
    "_type": {"_level": 0, "_value": "reader", "_values": ["reader"]},
    "reader": {
      "out": {"_level": 0, "_value": "${track}"},
      "arc_key1": {"_level": 0, "_value": "${arc_key1}"},
      "arc_key2": {"_level": 0, "_value": "${arc_key2}"},
      "arc_key3": {"_level": 0, "_value": "${arc_key3}"},
      "ignore_arc_key3": {"_level": 0, "_value": true},
      "subtype": {"_level": 0, "_value": "${subtype}"}
    }
  })";

constexpr char archive_media[] = R"(
  "archive": {
    "_type": {"_level": 0, "_value": "media", "_values": ["media"]},
    "media": {
      "out": {"_level": 0, "_value": "${track}"},
      "file": {"_level": 0, "_value": "${file}"}
    }
  })";
// clang-format on

}  // namespace fish
