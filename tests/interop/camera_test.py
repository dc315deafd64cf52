"""ffmpeg watches inet-camera: what arrives is the clip, picture by picture and sample by sample."""
import contextlib
import hashlib
import os
import re
import socket
import struct
import subprocess
import tempfile
import unittest

from peers import (CAMERA, CLIP_SECONDS, HASHES, Camera, Failed, clip_file, clip_sound, ffmpeg, hashes_of,
                   picture_hashes, position_in_loop)
from player import Player

SECONDS = "5"
KEY_DISTANCE = 50  # pictures
BLOCK = 160  # samples


def pull(url, transport, *arguments):
    return ("-rtsp_transport", transport, "-i", url, "-t", SECONDS, *arguments)


class Live(unittest.TestCase):
    """The live channel: H.264, sound and metadata."""

    def check_pictures(self, transport):
        clip = picture_hashes("-i", clip_file("clip.h264"))
        self.assertEqual(len(set(clip)), len(clip), "every picture of the clip is its own")
        with Camera() as camera:
            seen = picture_hashes(*pull(camera.url("live"), transport))
        self.assertGreater(len(seen), 4.5 * 25)
        start = position_in_loop(seen, clip)
        self.assertIsNotNone(start, "the pictures are those of the clip, in order, none missing")
        self.assertEqual(start % KEY_DISTANCE, 0, "a viewer begins with a key picture")

    def check_sound(self, transport):
        clip = clip_sound()
        with Camera() as camera:
            seen = ffmpeg(*pull(camera.url("live"), transport, "-map", "0:a", "-c", "copy", "-f", "mulaw", "-"))
        self.assertGreater(len(seen), 4.5 * 8000)
        self.assertIn(seen, clip * 3, "the samples are those of the clip, none missing")

    def test_pictures_tcp(self):
        self.check_pictures("tcp")

    def test_pictures_udp(self):
        self.check_pictures("udp")

    def test_sound_tcp(self):
        self.check_sound("tcp")

    def test_sound_udp(self):
        self.check_sound("udp")

    def test_metadata(self):
        with Camera() as camera:
            text = ffmpeg(*pull(camera.url("live"), "tcp", "-map", "0:d", "-c", "copy", "-f", "data", "-")).decode()
        documents = re.findall(r"<\?xml.*?</tt:MetadataStream>", text, re.DOTALL)
        self.assertGreaterEqual(len(documents), 20)
        self.assertEqual(text, "".join(documents))
        self.assertIn('<tt:Object ObjectId="1">', documents[0])


class Jpeg(unittest.TestCase):
    def check(self, transport):
        clip = picture_hashes("-i", clip_file("clip_%02d.jpg"))
        with Camera() as camera:
            seen = picture_hashes(*pull(camera.url("jpeg"), transport))
        self.assertGreater(len(seen), 4.5 * 5)
        self.assertIsNotNone(position_in_loop(seen, clip))

    def test_tcp(self):
        self.check("tcp")

    def test_udp(self):
        self.check("udp")


class Clock(unittest.TestCase):
    def test_sound_and_picture_stay_in_step(self):
        """Over several sender reports the times that a player derives agree with what is seen and heard."""
        clip_pictures = picture_hashes("-i", clip_file("clip.h264"))
        sound = clip_sound()
        clip_blocks = [hashlib.md5(sound[at:at + BLOCK]).hexdigest() for at in range(0, len(sound), BLOCK)]
        self.assertEqual(len(set(clip_blocks)), len(clip_blocks), "every block of sound is its own")
        places = {"0": {item: number / 25 for number, item in enumerate(clip_pictures)},
                  "1": {item: number * BLOCK / 8000 for number, item in enumerate(clip_blocks)}}
        with Camera() as camera:
            table = ffmpeg("-rtsp_transport", "tcp", "-i", camera.url("live"), "-t", "9", "-map", "0:v", "-map", "0:a",
                           "-c:v", "rawvideo", "-c:a", "copy", "-fps_mode", "passthrough", "-enc_time_base:v", "1:90000",
                           "-f", "framehash", "-hash", "md5", "-").decode()
        clock = {stream: int(denominator) for stream, denominator in re.findall(r"#tb (\d): 1/(\d+)", table)}
        # How far the time of each picture and block lies from its place in the clip: the same for all, in both tracks.
        offsets = {"0": [], "1": []}
        for line in table.splitlines():
            if not line.startswith("#"):
                stream, _, pts, _, _, item = (field.strip() for field in line.split(",")[:6])
                offsets[stream].append((int(pts) / clock[stream] - places[stream][item]) % CLIP_SECONDS)
        self.assertGreater(len(offsets["0"]), 8 * 25)
        self.assertGreater(len(offsets["1"]), 8 * 50)
        everything = offsets["0"] + offsets["1"]
        first = everything[0]
        spread = [(offset - first + CLIP_SECONDS / 2) % CLIP_SECONDS - CLIP_SECONDS / 2 for offset in everything]
        self.assertLess(max(spread) - min(spread), 0.005)


class Access(unittest.TestCase):
    def test_a_wrong_password_gets_401_and_no_stream(self):
        with Camera("--user", "admin", "--password", "right") as camera:
            for user in ("admin:wrong", "root:right", None):
                with self.assertRaisesRegex(Failed, "401"):
                    picture_hashes(*pull(camera.url("live", user), "tcp"))
            self.assertGreater(len(picture_hashes("-rtsp_transport", "tcp", "-i", camera.url("live", "admin:right"),
                                                  "-t", "1")), 20)


class Many(unittest.TestCase):
    def test_viewers_on_several_threads(self):
        clip = picture_hashes("-i", clip_file("clip.h264"))
        with Camera("--threads", "3") as camera:
            viewers = []
            for transport in ("tcp", "udp") * 4:
                viewers.append(subprocess.Popen(
                    ["ffmpeg", "-nostdin", "-loglevel", "error", "-rtsp_transport", transport, "-i", camera.url("live"),
                     "-t", "3", *HASHES],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE))
            for viewer in viewers:
                table, errors = viewer.communicate(timeout=60)
                self.assertEqual((viewer.returncode, errors), (0, b""))
                self.assertIsNotNone(position_in_loop(hashes_of(table), clip))


class Mixed(unittest.TestCase):
    def test_each_track_travels_its_own_way(self):
        """Pictures over UDP, sound over TCP: each of two viewers gets the packets of its own streams, and all."""
        with Camera() as camera, contextlib.ExitStack() as opened:
            receivers, players = [], []
            for _ in range(2):
                receivers.append(opened.enter_context(socket.socket(type=socket.SOCK_DGRAM)))
                receivers[-1].bind(("127.0.0.1", 0))
                receivers[-1].settimeout(10)
                port = receivers[-1].getsockname()[1]
                players.append(opened.enter_context(Player(camera.url("live"))))
                players[-1].set_up(transport=f"RTP/AVP;unicast;client_port={port}-{port + 1}")
                players[-1].request("SETUP", f"{players[-1].url}/audio",
                                    Transport="RTP/AVP/TCP;unicast;interleaved=2-3")
            for player in players:
                player.request("PLAY")
            heads = [[struct.unpack_from(">HxxxxI", receiver.recv(2000), 2) for receiver in receivers]
                     for _ in range(150)]
            for seen in zip(*heads):
                numbers = [number for number, _ in seen]
                self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1})
                self.assertEqual(len({source for _, source in seen}), 1)
            for player in players:
                self.assertEqual(player.packet()[0], 2)


class CommandLine(unittest.TestCase):
    def test_mistakes_are_told(self):
        for arguments in (["--nonsense"], ["--rtsp", "x"], ["--user", "a"], ["--video", "/nowhere.h264"]):
            self.refuses(*arguments)

    def test_pictures_that_rtp_cannot_carry_are_refused(self):
        with tempfile.TemporaryDirectory() as directory:
            name = os.path.join(directory, "a.jpg")
            for size, pixels in (("2048x64", "yuvj420p"), ("100x64", "yuvj420p"), ("64x64", "yuvj444p"),
                                 ("64x64", "gray")):
                ffmpeg("-y", "-f", "lavfi", "-i", f"testsrc2=s={size}", "-frames:v", "1", "-pix_fmt", pixels, name)
                self.refuses("--jpeg", name)

    def refuses(self, *arguments):
        done = subprocess.run([*CAMERA, "--rtsp", "0", *arguments], capture_output=True, text=True, timeout=10)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("inet-camera: ", done.stderr)
