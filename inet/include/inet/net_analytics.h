/// Reports of video analytics detectors (JSON) as ONVIF metadata stream documents (XML, tt:MetadataStream).
///
/// A report document is an array of reports. The rectangles among the "objects" of each report are taken:
///
///     [{"objects": [{"rectangle": {"type_graphic": 3, "id": 7,
///                                  "points": [{"x": 100, "y": 200}, {"x": 300, "y": 400}]}}]}]
///
/// Coordinates run from 0 to 65536, y upwards. A rectangle with an id other than 0 keeps its id and gets its centre of
/// gravity. The others are numbered from 1 in each document and get the centre 0.0, 0.0. A rectangle without width or
/// height is left out. Numbers that are no integers within 64 bits count as missing.
///
/// Bound: a document takes at most 384 bytes for each rectangle, and 512 bytes more. Conversion takes time linear in
/// the report. Any thread.
#pragma once

#include "core/api.h"

#include <cstdint>

/// 1 when bytes are a report document: the first one that is no blank is '['. Else 0: the bytes are sent as they are.
INET_API int net_analytics_is_report(const uint8_t* data, uint32_t size) noexcept;

/// @param time  of the frame, microseconds since 1970-01-01 UTC, written as core_str_from_time() does with
///              "%Y-%m-%dT%H:%M:%S.%sZ"
/// @return a new text for core_mfree(); null when `json` is null, is no JSON array or has no rectangle to show, or when
///         memory is out.
INET_API char* net_analytics_convert(const char* json, uint64_t time, const char* file, int line) noexcept;

/// The same with the time written as "%d-%02d-%02dT%02d:%02d:%02d.%03dZ".
INET_API char* onvif_convert(const char* json, uint64_t time) noexcept;
