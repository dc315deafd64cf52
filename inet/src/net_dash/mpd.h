// The manifests. Around what both say of the pictures (mpd_pictures) stands what is said of a live track, or of a
// range.
#pragma once

namespace net::dash {

// - The delay covers what a player cannot know yet: a segment that is not cut, the time to the next update, and 1 s.
// - The clock of the media stands in the document: the address of a clock would be one more request, and a wrong clock
//   of the camera would put the live edge elsewhere.
inline constexpr const char* dynamic_mpd = R"(<?xml version="1.0" encoding="utf-8"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011"
     id="${token}"
     profiles="urn:mpeg:dash:profile:isoff-live:2011,urn:com:dashif:dash264"
     type="dynamic"
     availabilityStartTime="${availability_start}"
     publishTime="${publish_time}"
     minimumUpdatePeriod="PT3S"
     timeShiftBufferDepth="PT${shift}S"
     suggestedPresentationDelay="PT${delay}S"
     maxSegmentDuration="PT3S"
     minBufferTime="PT3S">
 <ProgramInformation moreInformationURL="${url}">
  <Title>${title}</Title>
 </ProgramInformation>
 <Period id="dash" start="PT0S">${pictures}
 </Period>
 <UTCTiming schemeIdUri="urn:mpeg:dash:utc:direct:2014" value="${media_now}"/>
</MPD>
)";

inline constexpr const char* static_mpd = R"(<?xml version="1.0" encoding="utf-8"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011"
     profiles="urn:mpeg:dash:profile:isoff-live:2011,urn:com:dashif:dash264"
     type="static"
     mediaPresentationDuration="PT${media_duration}S"
     maxSegmentDuration="PT${max_dur}S"
     minBufferTime="PT3S">
 <ProgramInformation moreInformationURL="${url}">
  <Title>${title}</Title>
  <Source>${start_time}/${end_time}</Source>
 </ProgramInformation>
 <Period id="dash">${pictures}
 </Period>
</MPD>
)";

// There is no startNumber: segments are addressed by time, and ffmpeg would take it for a place in the list.
inline constexpr const char* mpd_pictures = R"(
  <AdaptationSet contentType="video" maxFrameRate="25" maxHeight="${height}" maxWidth="${width}"
                 mimeType="video/mp4" par="4:3" segmentAlignment="true" startWithSAP="1">${role}
   <SegmentTemplate timescale="1000"${length}
                    initialization="$RepresentationID$/header.m4s" media="$RepresentationID$/$Time$.m4s">
          <SegmentTimeline>${timeline}
          </SegmentTimeline>
   </SegmentTemplate>
   <Representation id="v${token}" bandwidth="300000" codecs="avc1.${codec}" frameRate="25"
                   height="${height}" width="${width}" sar="1:1"/>
  </AdaptationSet>)";

inline constexpr const char* dynamic_role = R"(
   <Role schemeIdUri="urn:mpeg:dash:role:2011" value="main"/>)";

}  // namespace net::dash
