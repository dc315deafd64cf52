"""RTMP: real players watch the camera, the viewer pulls from it and from a real server."""
import hashlib
import os
import socket
import tempfile

from peers import (CLIP_SECONDS, TABLE, Camera, CameraCase, Failed, at_once, clip_file, clip_tracks, ffmpeg,
                   position_in_loop, tracks_of)
from rtmp_peers import NginxRtmp, RtmpPlayer
from viewer import ViewerCase, nal_units

AAC_RATE, AAC_FRAME = 48000, 1024
FREE_PORT = "--rtmp", "0"
DECODED = "-map", "0:v", "-map", "0:a", "-fps_mode", "passthrough", "-c:a", "copy", *TABLE


def access_units(path, headers=False):
    """Those of an ADTS file."""
    with open(path, "rb") as sound:
        rest, units = sound.read(), []
    while rest:
        size = int.from_bytes(rest[3:6], "big") >> 5 & 0x1fff
        units.append(rest[0 if headers else 7:size])
        rest = rest[size:]
    return units


def make_sound(path):
    """AAC, no frame of which is like another one, as long as the clip to the frame."""
    ffmpeg("-f", "lavfi", "-i", f"aevalsrc=random(0)|random(1):s={AAC_RATE}:d=9", "-c:a", "aac", path)
    units = access_units(path, headers=True)[:int(CLIP_SECONDS * AAC_RATE / AAC_FRAME)]
    with open(path, "wb") as sound:
        sound.write(b"".join(units))
    return path


class Sound(ViewerCase):
    def test_rtsp_leaves_aac_out_and_recordings_have_it(self):
        tone = make_sound(self.path("tone.aac"))
        with Camera("--video", clip_file("clip.h264"), "--audio", tone, "--record", self.path("kept")) as camera:
            self.assertRegex(camera.told(), r"\Ainet-camera: .+: RTSP leaves AAC out.*\n\Z")
            tracks, _ = self.view(camera.url(), "-o", "a.h264", "--duration", "8", "--stats")
        self.assertEqual([*tracks], ["H264"])
        film, = os.listdir(self.path("kept"))
        kept = os.path.join(self.path("kept"), film)
        self.check_step(kept, 7.9, slack=0.1)
        ffmpeg("-i", kept, "-c", "copy", self.path("kept.aac"))
        sent, got = access_units(tone), access_units(self.path("kept.aac"))
        self.assertGreater(len(got), 8 * 43)
        while len(got[-1]) < 8:  # silence, up to the end of the last picture
            got.pop()
        self.assertIsNotNone(position_in_loop(got, sent), "from the last one on to the first again, none missing")


class Players(ViewerCase, CameraCase):
    @classmethod
    def start_camera(cls):
        cls.sound = make_sound(os.path.join(cls.enterClassContext(tempfile.TemporaryDirectory()), "tone.aac"))
        camera = Camera(*FREE_PORT, "--video", clip_file("clip.h264"), "--audio", cls.sound)
        camera.told()
        return camera

    def test_ffmpeg_decodes_everything_in_step(self):
        clip = {"0": tracks_of(ffmpeg("-i", clip_file("clip.h264"), "-fps_mode", "passthrough", *TABLE))["0"]}
        aac = [(hashlib.md5(unit).hexdigest(), place * AAC_FRAME / AAC_RATE)
               for place, unit in enumerate(access_units(self.sound))]
        with Camera(*FREE_PORT) as plain:
            seen = at_once(lambda url: ffmpeg("-i", url, "-t", "10", *DECODED),
                           (self.camera.rtmp["live"], plain.rtmp["live"]))
        self.check_live(seen[0], 10, {**clip, "1": aac})
        self.check_live(seen[1], 10, {**clip, "1": clip_tracks()["1"]})
        ffmpeg("-i", self.camera.rtmp["live"], "-t", "3", "-f", "null", "-")  # the sound decoded, too

    def test_the_viewer_writes_what_was_sent(self):
        tracks, messages = self.view(self.camera.rtmp["live"], "--duration", "10", "--stats",
                                     *(part for kind in ("h264", "aac", "mp4") for part in ("-o", f"a.{kind}")))
        self.assertEqual((messages, tracks["H264"]["frames"], tracks["H264"]["left_out"]), ("", "250", "0"))
        self.check_pictures("a.h264", 250)
        got = access_units(self.path("a.aac"))
        self.assertGreater(len(got), 10 * AAC_RATE // AAC_FRAME - 3)
        self.assertIsNotNone(position_in_loop(got, access_units(self.sound)))
        self.check_step("a.mp4", 10)
        self.assertIn("NetStream.Play.StreamNotFound", self.refuse(5, self.camera.rtmp["live"] + "x"))

    def test_who_knows_the_password_watches(self):
        with Camera(*FREE_PORT, "--user", "me", "--password", "secret") as camera:
            url = camera.rtmp["live"]
            ffmpeg("-i", url.replace("rtmp://", "rtmp://me:secret@"), "-t", "1", "-f", "null", "-")
            with self.assertRaises(Failed):
                ffmpeg("-i", url.replace("rtmp://", "rtmp://me:wrong@"), "-t", "1", "-f", "null", "-")
            self.view(url, "--user", "me", "--password", "secret", "--duration", "1", "-o", "a.h264")
            self.refuse(4, url, "--user", "me", "--password", "wrong")
            self.refuse(4, url)
            self.refuse(5, url.replace("/live", "/jpeg"), "--user", "me", "--password", "secret")


class Servers(ViewerCase):
    def test_pictures_that_change_places_come_from_nginx_and_go_on(self):
        """Bit for bit, in files and through a camera, which sends the sound over RTSP as well."""
        film = self.path("film.mp4")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25", "-i", make_sound(self.path("tone.aac")), "-t", "8",
               "-c:v", "libx264", "-bf", "2", "-g", "25", "-c:a", "copy", film)
        for kind in "h264", "aac":
            ffmpeg("-i", film, "-c", "copy", self.path(f"film.{kind}"))
        sent = [unit for unit in nal_units(self.path("film.h264")) if unit[0] & 31 in (1, 5)]
        with NginxRtmp(film) as server, Camera(*FREE_PORT, "--source", f"live={server.address}") as camera:
            urls = {"a": server.address, "b": camera.rtmp["live"], "c": camera.url()}
            at_once(lambda item: self.view(item[1], "--duration", "5", "-o", f"{item[0]}.h264", "-o", f"{item[0]}.aac",
                                           "-o", f"{item[0]}.mp4"), urls.items())
            camera.told()  # the source may have come after the first attempt
        for name in urls:
            got = [unit for unit in nal_units(self.path(f"{name}.h264")) if unit[0] & 31 in (1, 5)]
            self.assertGreater(len(got), 120, name)
            self.assertIsNotNone(position_in_loop(got, sent), name)
            self.assertIsNotNone(position_in_loop(access_units(self.path(f"{name}.aac")),
                                                  access_units(self.path("film.aac"))), name)
            self.check_step(f"{name}.mp4", 4.9, slack=0.1)


class Crowds(CameraCase):
    @classmethod
    def start_camera(cls):
        video = os.path.join(cls.enterClassContext(tempfile.TemporaryDirectory()), "20mbit.h264")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25,noise=alls=60:allf=t", "-t", "4", "-c:v", "libx264",
               "-preset", "ultrafast", "-threads", "1", "-g", "25", "-bf", "0", "-b:v", "20M", video)
        return Camera(*FREE_PORT, "--backlog", "262144", "--video", video)

    def player(self, **options):
        player = self.enterContext(RtmpPlayer(self.camera.rtmp["live"], **options))
        player.play()
        return player

    def test_who_does_not_keep_up_loses_whole_pictures_and_nobody_waits(self):
        quick, slow = self.player(), self.player(receive_buffer=65536)
        seen, left_out, last = [], [], slow.picture()[0]
        while len(left_out) < 2:  # what the system holds comes first
            seen += [quick.picture()[0] for _ in range(5)]
            self.assertLess(len(seen), 1000)
            stamp, key = slow.picture()
            if stamp - last != 40:
                left_out.append((stamp - last, key))
            last = stamp
        self.assertEqual({b - a for a, b in zip(seen, seen[1:])}, {40})
        self.assertTrue(all(step > 40 and key for step, key in left_out), "up to a key picture")

    def test_handshakes_that_are_never_finished_leave_others_served(self):
        watching = self.player()
        watching.picture()
        for _ in range(511):
            idle = self.enterContext(socket.create_connection(watching.socket.getpeername()))
            idle.sendall(b"\3" + bytes(700))
        self.assertTrue(self.player().picture()[1])
        watching.picture()
