// The manifest of a recorded range.
#pragma once

namespace net::dash {

inline constexpr const char* static_mpd = R"(<?xml version="1.0" encoding="utf-8"?>
<MPD xmlns="urn:mpeg:dash:schema:mpd:2011"
     id="${token}"
     profiles="urn:mpeg:dash:profile:isoff-live:2011,urn:com:dashif:dash264"
     type="static"
     mediaPresentationDuration="PT${media_duration}S"
     maxSegmentDuration="PT${max_dur}S"
     minBufferTime="PT3S">
 <ProgramInformation moreInformationURL="${url}">
  <Title>${title}</Title>
  <Source>${start_time}/${end_time}</Source>
 </ProgramInformation>
 <Period id="dash" start="PT0S">
  <AdaptationSet contentType="video" maxFrameRate="25" maxHeight="${height}" maxWidth="${width}"
                 mimeType="video/mp4" par="4:3" segmentAlignment="true" startWithSAP="1">
   <SegmentTemplate timescale="1000" duration="${duration}"
                    initialization="$RepresentationID$/header.m4s" media="$RepresentationID$/$Time$.m4s">
          <SegmentTimeline>${timeline}
          </SegmentTimeline>
   </SegmentTemplate>
   <Representation id="v${token}" bandwidth="300000" codecs="avc1.${codec}" frameRate="25"
                   height="${height}" width="${width}" sar="1:1"/>
  </AdaptationSet>
 </Period>
</MPD>
)";

}  // namespace net::dash
