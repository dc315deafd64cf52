"""SIP: the camera is called, through its own relay and through a real server, by the viewer and by a real phone."""
import itertools
import os
import time

from peers import Camera, clip_sound, ffmpeg
from sip_peers import Baresip, Kamailio, free_port
from viewer import ViewerCase

FILES = "-o", "a.h264", "-o", "a.wav", "-o", "a.mp4"


def wait_for(camera, text):
    """What it prints behind a text, which may have come before it was ready."""
    lines = itertools.chain(camera.printed, camera.process.stdout)
    return next(line.partition(text)[2] for line in lines if text in line)


class CallCase(ViewerCase):
    def door(self, account):
        """A camera that has registered."""
        camera = self.enterContext(Camera("--sip", account, talks=True))
        wait_for(camera, "sip: registered")
        return camera

    def call(self, *arguments, status=0):
        tracks, messages = self.view("call", *arguments, status=status)
        return tracks, messages.splitlines()[-1:]

    def check_sound(self, path, least):
        """All of it is the clip's, in order, none missing, up to `least` samples and more."""
        heard = ffmpeg("-i", path, "-f", "mulaw", "-").lstrip(b"\xff")
        self.assertGreater(len(heard), least)
        self.assertIn(heard, clip_sound() * 4)


class Relay(CallCase):
    def test_the_viewer_records_what_the_camera_sends(self):
        port = free_port()
        with Camera("--sip-server", str(port), "--sip-users", "door,anna,boris", talks=True):
            self.door(f"door@127.0.0.1:{port};tcp")
            place = f"door@127.0.0.1:{port}", "--transport", "tcp"
            tracks, _ = self.call(*place, "--user", "anna", "--duration", "10", "--stats", *FILES)
            self.check_pictures("a.h264", 250)
            self.assertGreaterEqual(int(tracks["H264"]["frames"]), 250)
            self.check_sound(self.path("a.wav"), 8000 * 9)
            self.check_step("a.mp4", 9.5, slack=0.1)
            self.assertIn("cannot be reached", self.call(f"boris@127.0.0.1:{port};tcp", "--user", "anna", status=5)[1][0])
            self.assertIn("refuses", self.call(*place, "--user", "nobody", status=4)[1][0])
        self.assertIn("does not answer", self.call(*place, "--user", "anna", status=3)[1][0])


class Server(CallCase):
    def setUp(self):
        super().setUp()
        self.server = self.enterContext(Kamailio())
        self.camera = self.door(f"door:secret@127.0.0.1:{self.server.port}")

    def test_the_viewer_calls_and_presses_digits(self):
        server = f"127.0.0.1:{self.server.port}"
        place = f"door@{server}", "--user", "anna", "--password"
        gate = self.door(f"gate:secret@{server};tcp")
        for camera, *call in (self.camera, *place), (gate, f"gate@{server};tcp", *place[1:]):
            with self.subTest(call[0]):
                self.call(*call, "secret", "--duration", "6", "--digits", "7#", *FILES)
                self.check_pictures("a.h264", 150)
                self.check_sound(self.path("a.wav"), 8000 * 5)
                self.assertEqual([wait_for(camera, "sip: anna presses ").strip() for _ in "7#"], ["7", "#"])
                self.assertIn("hung up", wait_for(camera, "sip: the call of anna is over"))
        self.assertIn("refuses", self.call(*place, "wrong", status=4)[1][0])
        self.assertIn("cannot be reached", self.call("x" + place[0], *place[1:], "secret", status=5)[1][0])

    def test_a_phone_sees_and_hears_the_camera(self):
        ffmpeg("-f", "lavfi", "-i", "sine=440:r=8000:d=20", self.path("tone.wav"))
        with Baresip("anna", f"127.0.0.1:{self.server.port}", self.path("tone.wav")) as phone:
            phone.wait_for("registered successfully")
            phone.press(f"/dial sip:door@127.0.0.1:{self.server.port}\n")
            phone.wait_for("resolution 640 x 360")  # decoded
            wait_for(self.camera, "sip: anna calls")
            while os.path.getsize(phone.heard()) < 5 * 16000:
                time.sleep(0.05)
            phone.press("b")
            phone.wait_for("terminated")
            self.check_sound(phone.heard(), 8000 * 4)
        self.assertIn("hung up", wait_for(self.camera, "sip: the call of anna is over"))
