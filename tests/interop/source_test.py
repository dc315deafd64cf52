"""inet-camera serves what it fetches: from another camera, on demand, from a pipe."""
import re
import time
import unittest

from peers import Camera, clip_file, clip_sound, picture_hashes, position_in_loop
from player import Player
from relay import Relay
from viewer import ViewerCase, nal_units

LOST = 8

# A command that runs another one with a clip in its standard input, in real time.
PIPE = ("bash", "-c", 'exec "$@" < <(ffmpeg -nostdin -loglevel quiet -re -t 5 -i "$0" -c copy -f h264 -)',
        clip_file("clip.h264"))


class Connections(Relay):
    """Passes everything on, and knows who is connected."""

    def __init__(self, url):
        self.accepted = self.open = 0
        super().__init__(url, 0.0)

    def talk(self, viewer):
        self.accepted += 1
        self.open += 1
        try:
            super().talk(viewer)
        finally:
            self.open -= 1


class Fetched(ViewerCase):
    def check(self, camera, *arguments):
        tracks, messages = self.view(camera.url("live"), *arguments, "--duration", "4", "--stats", "-o",
                                     self.path("a.h264"), "-o", self.path("a.wav"), "-o", self.path("a.txt"))
        self.assertEqual(messages, "")
        self.assertEqual({name: track["lost"] for name, track in tracks.items()},
                         {"H264": "0", "PCMU": "0", "META": "0"})
        self.assertEqual(tracks["H264"]["frames"], "100")
        self.check_pictures("a.h264", 100)
        with open(self.path("a.wav"), "rb") as sound:
            self.assertIn(sound.read()[58:], clip_sound() * 2)
        with open(self.path("a.txt")) as text:
            documents = re.findall(r"<\?xml.*?</tt:MetadataStream>\n", text.read(), re.DOTALL)
        self.assertEqual(len(documents), int(tracks["META"]["frames"]))
        self.assertGreaterEqual(len(documents), 18)

    def test_a_camera_of_a_camera_over_each_transport(self):
        for transport in ("tcp", "udp", "http"):
            with self.subTest(transport), Camera("--user", "admin", "--password", "r:i@ght") as first:
                source = first.url("live", "admin:r:i%40ght")
                with Camera("--source", source, "--transport", transport) as second:
                    self.check(second, "--transport", "tcp" if transport == "udp" else "udp")

    def test_several_and_what_is_no_h264(self):
        with Camera() as first:
            named = (f"door={first.url('live')}", f"yard={first.url('jpeg')}")
            with Camera("--source", named[0], "--source", named[1]) as second:
                self.assertEqual(set(second.urls), {"door", "yard"})
                self.view(second.url("door"), "--duration", "1", "-o", self.path("a.h264"))
                self.view(second.url("yard"), "--duration", "2", "-o", self.path("a.jpg"))
        self.check_pictures("a.h264", 25)
        seen = picture_hashes("-i", self.path("a_%05d.jpg"))
        self.assertEqual(len(seen), 10)
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip_%02d.jpg"))))

    def test_the_source_dies_and_returns_and_the_viewer_stays(self):
        first = Camera()
        port = re.search(r":(\d+)/", first.url("live")).group(1)
        with Camera("--source", first.url("live"), "--source", "none=rtsp://127.0.0.1:1/x") as second:
            with first:
                viewer = self.start(second.url("live"), "--timeout", "60", "--duration", "8", "-o", self.path("a.h264"))
                self.wait_for(viewer, "a.h264", 1)
            with Camera("--rtsp", port):
                _, messages = self.end(viewer)
            told = second.told()
        self.assertEqual(messages, "")
        self.assertIn("live: 127.0.0.1 closed the connection, trying again", told)
        self.assertIn("live: is there again", told)
        self.assertLessEqual(set(nal_units(self.path("a.h264"))), set(self.clip))
        seen = picture_hashes("-i", self.path("a.h264"))
        self.assertGreater(len(seen), 60)
        self.assertLessEqual(set(seen), set(picture_hashes("-i", clip_file("clip.h264"))))

    def test_on_demand_is_fetched_only_while_somebody_watches(self):
        with Camera() as first, Connections(first.url("live")) as between:
            with Camera("--source", between.url, "--on-demand") as second:
                with Player(second.url("live")) as player:
                    player.request("OPTIONS")
                self.assertEqual(between.accepted, 0)
                for accepted in (1, 2):
                    name = f"{accepted}.h264"
                    self.view(second.url("live"), "--duration", "2", "-o", self.path(name))
                    self.assertEqual((between.accepted, between.open), (accepted, 1))
                    self.check_pictures(name, 50)
                    deadline = time.monotonic() + 30
                    while between.open:
                        self.assertLess(time.monotonic(), deadline, "still fetched")
                        time.sleep(0.05)


class Pipe(ViewerCase):
    def test_an_encoder_writes_into_a_pipe(self):
        with Camera("--source", "-", prefix=PIPE) as camera:
            viewer = self.start(camera.url("live"), "--stats", "-o", self.path("a.h264"))
            tracks, messages = self.end(viewer, LOST)
            camera.process.wait(timeout=10)  # the pipe has ended, and everybody has seen it
        self.assertIn("closed the connection", messages)
        units = nal_units(self.path("a.h264"))
        self.assertGreater(len(units), 115)
        self.assertEqual(units, self.clip[:len(units)])
        self.assertAlmostEqual(float(tracks["H264"]["seconds"]), 5, delta=1.5)


if __name__ == "__main__":
    unittest.main()
