"""inet-camera serves what it fetches: from another camera, on demand, from a pipe."""
import re
import time

from peers import Camera, CameraCase, at_once, clip_file, clip_sound, free_group, picture_hashes, position_in_loop
from player import Player
from relay import Relay
from viewer import ViewerCase, nal_units

LOST = 8
# A command that runs another one with a clip in its standard input, in real time.
PIPE = ("bash", "-c", 'exec "$@" < <(ffmpeg -nostdin -loglevel quiet -re -t 5 -i "$0" -c copy -f h264 -)',
        clip_file("clip.h264"))


class Connections(Relay):
    """Passes everything on, and counts who is connected."""

    accepted = open = 0

    def talk(self, viewer):
        self.accepted += 1
        self.open += 1
        try:
            super().talk(viewer)
        finally:
            self.open -= 1


class Fetched(ViewerCase, CameraCase):
    arguments = ("--user", "admin", "--password", "r:i@ght")

    def fetch(self, way):
        source = self.camera.url(user="admin:r:i%40ght")
        with Camera("--source", source, "--transport", way) as second:
            return self.view(second.url(), "--transport", "tcp" if way == "udp" else "udp", "--duration", "4", "--stats",
                             *(part for kind in ("h264", "wav", "txt") for part in ("-o", self.path(f"{way}.{kind}"))))

    def test_everything_over_each_transport(self):
        ways = ("tcp", "udp", "http")
        for way, (tracks, messages) in zip(ways, at_once(self.fetch, ways)):
            with self.subTest(way):
                self.assertEqual(messages, "")
                self.assertEqual({name: track["lost"] for name, track in tracks.items()},
                                 dict.fromkeys(("H264", "PCMU", "META"), "0"))
                self.check_pictures(f"{way}.h264", 100)
                with open(self.path(f"{way}.wav"), "rb") as sound:
                    self.assertIn(sound.read()[58:], clip_sound() * 2)
                with open(self.path(f"{way}.txt")) as text:
                    documents = re.findall(r"<\?xml.*?</tt:MetadataStream>\n", text.read(), re.DOTALL)
                self.assertEqual(len(documents), int(tracks["META"]["frames"]))
                self.assertGreaterEqual(len(documents), 10)


class Several(ViewerCase, CameraCase):
    def test_each_has_a_path_and_jpeg_stays_as_it_is(self):
        door, yard = f"door={self.camera.url()}", f"yard={self.camera.url('jpeg')}"
        with Camera("--source", door, "--source", yard) as second:
            self.view(second.url("door"), "--duration", "1", "-o", "a.h264")
            self.view(second.url("yard"), "--duration", "2", "-o", "a.jpg")
        self.check_pictures("a.h264", 25)
        seen = picture_hashes("-i", self.path("a_%05d.jpg"))
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip_%02d.jpg"))))

    def test_on_demand_is_fetched_only_while_somebody_watches(self):
        with Connections(self.camera.url(), 0.0) as between, \
                Camera("--source", between.url, "--on-demand") as second:
            with Player(second.url()) as player:
                player.request("OPTIONS")
            self.assertEqual(between.accepted, 0)
            for accepted in (1, 2):
                self.view(second.url(), "--duration", "2", "-o", "b.h264")
                self.assertEqual((between.accepted, between.open), (accepted, 1))
                self.check_pictures("b.h264", 50)
                deadline = time.monotonic() + 30
                while between.open:
                    self.assertLess(time.monotonic(), deadline, "still fetched")
                    time.sleep(0.05)


class Returning(ViewerCase):
    def test_the_source_dies_and_returns_and_the_viewer_stays(self):
        port = free_group().split(":")[1]
        with Camera("--source", f"rtsp://127.0.0.1:{port}/live", "--source", "x=rtsp://127.0.0.1:1/x") as second:
            with Camera("--rtsp", port):
                viewer = self.start(second.url(), "--timeout", "60", "--duration", "8", "-o", "a.h264")
                self.wait_for(viewer, "a.h264")
            with Camera("--rtsp", port):
                _, messages = self.end(viewer)
            told = second.told()
        self.assertEqual(messages, "")
        self.assertIn("live: 127.0.0.1 closed the connection, trying again", told)
        self.assertIn("live: is there again", told)
        seen = picture_hashes("-i", self.path("a.h264"))
        self.assertGreater(len(seen), 60)
        self.assertLessEqual(set(seen), set(picture_hashes("-i", clip_file("clip.h264"))))


class Pipe(ViewerCase):
    def test_an_encoder_writes_into_a_pipe(self):
        with Camera("--source", "-", prefix=PIPE) as camera:
            _, messages = self.view(camera.url(), "-o", "a.h264", status=LOST)
            camera.process.wait(timeout=10)  # the pipe has ended, and everybody has seen it
        self.assertIn("closed the connection", messages)
        units = nal_units(self.path("a.h264"))
        self.assertGreater(len(units), 115)
        self.assertEqual(units, self.clip[:len(units)])
