"""RTMP: real players watch the camera, the viewer pulls from it and from a real server."""
import os

from peers import Camera, clip_file, ffmpeg, position_in_loop
from viewer import ViewerCase, nal_units


def access_units(path):
    """Those of an ADTS file, without headers."""
    with open(path, "rb") as sound:
        bytes_, units = sound.read(), []
    while bytes_:
        size = int.from_bytes(bytes_[3:6], "big") >> 5 & 0x1fff
        units.append(bytes_[7:size])
        bytes_ = bytes_[size:]
    return units


class Sound(ViewerCase):
    def test_rtsp_leaves_aac_out_and_recordings_have_it(self):
        ffmpeg("-f", "lavfi", "-i", "aevalsrc=random(0)|random(1):s=44100:d=7", "-c:a", "aac", self.path("tone.aac"))
        with Camera("--video", clip_file("clip.h264"), "--audio", self.path("tone.aac"), "--record",
                    self.path("kept")) as camera:
            self.assertRegex(camera.told(), r"\Ainet-camera: .+: RTSP leaves AAC out.*\n\Z")
            tracks, _ = self.view(camera.url(), "-o", "a.h264", "--duration", "8", "--stats")
        self.assertEqual([*tracks], ["H264"])
        film, = os.listdir(self.path("kept"))
        kept = os.path.join(self.path("kept"), film)
        self.check_step(kept, 7.9, slack=0.1)
        ffmpeg("-i", kept, "-c", "copy", self.path("kept.aac"))
        sent, got = access_units(self.path("tone.aac")), access_units(self.path("kept.aac"))
        self.assertGreater(len(got), 8 * 43)
        self.assertIsNotNone(position_in_loop(got, sent), "from the last one on to the first again, none missing")
