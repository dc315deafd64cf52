"""inet-viewer receives from inet-camera, and from servers that fail: files, figures and exit status."""
import os
import random
import re
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest

from peers import (VIEWER, Camera, clip_file, clip_sound, ffmpeg, free_group, picture_hashes, position_in_loop, run,
                   up_to_three_times)
from relay import Relay, Server

NO_CONNECTION, REFUSED, NOT_FOUND, PROTOCOL, NOTHING, LOST, CANNOT_WRITE, USAGE = 3, 4, 5, 6, 7, 8, 9, 2
DELIMITER, SEI = 9, 6


def nal_units(path):
    """NAL units of an Annex B stream that travel: delimiters and SEI do not."""
    with open(path, "rb") as stream:
        units = [unit.rstrip(b"\0") for unit in stream.read().split(b"\0\0\1")[1:]]
    return [unit for unit in units if unit[0] & 31 not in (DELIMITER, SEI)]


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="größe-画-")  # as paths are UTF-8
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.clip = nal_units(clip_file("clip.h264"))

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, url, *arguments):
        return subprocess.Popen([*VIEWER, url, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def end(self, viewer, status=0):
        """Waits for the end and checks the status: what the tracks counted, and the messages."""
        out, messages = viewer.communicate(timeout=60)
        self.assertEqual(viewer.returncode, status, messages)
        tracks = [dict(pair.split("=") for pair in line.split()) for line in out.splitlines()]
        return {track["format"]: track for track in tracks}, messages

    def wait_for(self, viewer, name, size):
        """Returns when a file of the viewer has so many bytes."""
        while not os.path.exists(self.path(name)) or os.path.getsize(self.path(name)) < size:
            self.assertIsNone(viewer.poll())
            time.sleep(0.02)

    def view(self, url, *arguments, status=0):
        return self.end(self.start(url, *arguments), status)

    def check_pictures(self, name, least):
        units = nal_units(self.path(name))
        self.assertGreaterEqual(len(units), least)
        self.assertIsNotNone(position_in_loop(units, self.clip), "NAL units of the clip, in order, none missing")


class Live(Case):
    """Everything that the live channel sends, over each transport."""

    def check(self, transport, *camera_arguments):
        files = {name: self.path(name) for name in ("a.h264", "a.mp4", "a.wav", "a.txt")}
        outputs = [argument for path in files.values() for argument in ("-o", path)]
        with Camera(*camera_arguments) as camera:
            tracks, messages = self.view(camera.url("live"), "--transport", transport, "--duration", "4", "--stats",
                                         *outputs)
        self.assertEqual(messages, "")
        self.assertEqual({name: track["lost"] for name, track in tracks.items()},
                         {"H264": "0", "PCMU": "0", "META": "0"})
        if transport != "multicast":
            self.assertEqual((tracks["H264"]["frames"], tracks["H264"]["left_out"]), ("100", "0"))
            self.assertEqual(tracks["PCMU"]["frames"], "200")
            self.check_pictures("a.h264", 100)
        else:  # joined anywhere: what comes before the next key picture is of no use
            self.check_pictures("a.h264", 45)
        self.assertGreater(float(tracks["H264"]["mbit/s"]), 0.3)
        self.assertLess(float(tracks["H264"]["jitter_ms"]), 1000)
        pictures = picture_hashes("-i", files["a.h264"])
        self.assertEqual(len(pictures), int(tracks["H264"]["frames"]))
        self.assertEqual(picture_hashes("-i", files["a.mp4"]), pictures)
        with open(files["a.wav"], "rb") as sound:
            header, data = sound.read(58), sound.read()
        self.assertEqual(int.from_bytes(header[4:8], "little"), 50 + len(data))
        self.assertEqual(ffmpeg("-i", files["a.wav"], "-c", "copy", "-f", "mulaw", "-"), data)
        self.assertIn(data, clip_sound() * 2)
        self.assertEqual(len(data), 160 * int(tracks["PCMU"]["frames"]))
        with open(files["a.txt"]) as text:
            documents = re.findall(r"<\?xml.*?</tt:MetadataStream>\n", text.read(), re.DOTALL)
        self.assertEqual(len(documents), int(tracks["META"]["frames"]))
        self.assertGreaterEqual(len(documents), 18)

    def test_tcp(self):
        self.check("tcp")

    def test_udp(self):
        self.check("udp")

    def test_http(self):
        self.check("http")

    def test_multicast(self):
        self.check("multicast", "--multicast", free_group())

    def test_pictures_are_written_a_file_each(self):
        with Camera() as camera:
            self.view(camera.url("jpeg"), "--duration", "3", "-o", self.path("a.jpg"), "-o", self.path("b%02d.jpg"))
        seen = picture_hashes("-i", self.path("a_%05d.jpg"))
        self.assertEqual(len(seen), 15)
        self.assertEqual(seen, picture_hashes("-i", self.path("b%02d.jpg")))
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip_%02d.jpg"))))

    def test_mp4_can_be_read_while_it_grows_and_ends_whole_by_ctrl_c(self):
        path = self.path("a.mp4")
        with Camera() as camera:
            viewer = self.start(camera.url("live"), "-o", path)
            self.wait_for(viewer, "a.mp4", 200_000)
            growing = picture_hashes("-i", path)
            viewer.send_signal(signal.SIGINT)
            self.assertEqual(self.end(viewer)[1], "")
        whole = picture_hashes("-i", path)
        self.assertGreaterEqual(len(growing), 25)
        self.assertEqual(whole[:len(growing)], growing)
        self.assertIn("h264", run("ffprobe", "-v", "error", "-show_streams", path).decode())


class Loss(Case):
    def test_whole_pictures_and_right_counts_when_packets_are_lost_and_reordered(self):
        with Camera() as camera, Relay(camera.url("live"), 0.02, 0.05) as relay:
            tracks, _ = self.view(relay.url, "--transport", "udp", "--duration", "8", "--stats",
                                  "-o", self.path("a.h264"))
        track = tracks["H264"]
        count = int(track["packets"]) + int(track["lost"])
        packets = relay.tracks[0]
        self.assertGreater(relay.moved, 10)
        self.assertEqual(int(track["lost"]), sum(lost for _, lost in packets[:count]))
        self.assertGreater(int(track["lost"]), 0)
        self.assertGreater(int(track["left_out"]), 0)
        self.assertGreater(float(track["jitter_ms"]), 0)
        seen = picture_hashes("-i", self.path("a.h264"))
        self.assertEqual(len(seen), int(track["frames"]))
        self.assertLessEqual(set(seen), set(picture_hashes("-i", clip_file("clip.h264"))))
        self.assertLessEqual(set(nal_units(self.path("a.h264"))), set(self.clip))

    @up_to_three_times
    def test_reordering_alone_costs_nothing(self):
        with Camera() as camera, Relay(camera.url("live"), 0.0, 0.1) as relay:
            tracks, _ = self.view(relay.url, "--transport", "udp", "--duration", "3", "--stats",
                                  "-o", self.path("a.h264"))
        self.assertGreater(relay.moved, 5)
        self.assertEqual((tracks["H264"]["lost"], tracks["H264"]["frames"]), ("0", "75"))
        self.check_pictures("a.h264", 75)

    def test_falls_back_to_tcp_when_nothing_arrives(self):
        with Camera() as camera, Relay(camera.url("live"), 1.0) as relay:
            _, messages = self.view(relay.url, "--transport", "udp", "--duration", "2", "-o", self.path("a.h264"))
        self.assertIn("nothing arrives over UDP, trying tcp", messages)
        self.check_pictures("a.h264", 50)

    def test_connects_again(self):
        camera = Camera()
        port = re.search(r":(\d+)/", camera.url("live")).group(1)
        with camera:
            viewer = self.start(camera.url("live"), "--duration", "3", "--reconnect", "forever", "-o",
                                self.path("a.h264"), "-o", self.path("a.mp4"))
            self.wait_for(viewer, "a.h264", 1)
        with Camera("--rtsp", port):
            _, messages = self.end(viewer)
        self.assertIn("connecting again in 1 s", messages)
        self.assertGreater(len(picture_hashes("-i", self.path("a.h264"))), 40)
        self.assertEqual(picture_hashes("-i", self.path("a.mp4")), picture_hashes("-i", self.path("a.h264")))


class Status(Case):
    """The exit status tells what happened, and a message says it in words."""

    def check(self, status, url, *arguments):
        _, messages = self.view(url, *arguments, status=status)
        self.assertRegex(messages, r"^inet-viewer: .+\n$")

    def test_user_and_stream(self):
        with Camera("--user", "admin", "--password", "r:i@ght") as camera:
            for user in (None, "admin:wrong", "root:r:i%40ght"):
                self.check(REFUSED, camera.url("live", user))
            self.check(NOT_FOUND, camera.url("live", "admin:r:i%40ght") + "/nowhere")
            for user in ("admin:r:i%40ght", "admin:r:i@ght"):
                self.view(camera.url("live", user), "--duration", "0.5")

    def test_what_cannot_be_done(self):
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        self.check(NO_CONNECTION, f"rtsp://127.0.0.1:{port}/x")
        with Camera() as camera:
            url = camera.url("live")
            for path in (self.path("none/a.h264"), self.path("none/a.jpg")):
                self.check(CANNOT_WRITE, url, "-o", path)
            for name, channel in (("a.h264", "live"), ("a.mp4", "live"), ("a.wav", "live"), ("a.txt", "live"),
                                  ("a_00001.jpg", "jpeg")):
                os.symlink("/dev/full", self.path(name))
                path = self.path(name.replace("_00001", ""))
                self.check(CANNOT_WRITE, camera.url(channel), "-o", path, "--duration", "3")
            with open("/dev/full", "w") as full:
                done = subprocess.run([*VIEWER, url, "--duration", "0.2", "--stats"], stdout=full,
                                      stderr=subprocess.DEVNULL, timeout=60)
            self.assertEqual(done.returncode, CANNOT_WRITE)
            self.check(NOTHING, url, "--duration", "1", "-o", self.path("b.h264"), "-o", self.path("b.jpg"))

    def test_what_is_no_command_line(self):
        url = "rtsp://127.0.0.1:1/x"
        for arguments in ([], ["http://x"], ["rtsp://"], ["rtsp://:554/x"], ["rtsp://h:/x"], ["rtsp://h:65536/x"],
                          ["rtsp://u:p@/x"], ["rtsp://u:p@[::1]/x"], [url, url], [url, "-o"], [url, "-o", "a.avi"],
                          [url, "-o", "a.mp4", "-o", "a.mp4"], [url, "--duration", "-1"], [url, "--transport=pigeon"],
                          [url, "--nonsense"], [url, "--stats=1"], [url, "--reconnect"]):
            done = subprocess.run([*VIEWER, *arguments], capture_output=True, text=True, timeout=10, cwd=self.folder)
            self.assertEqual(done.returncode, USAGE, arguments)
            self.assertRegex(done.stderr, r"^inet-viewer: .+\n$")
        self.assertEqual(os.listdir(self.folder), [])

    def test_servers_that_fail(self):
        endless = b"RTSP/1.0 200 OK\r\n" + b"X: y\r\n" * 200_000
        description = b"RTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Length: "
        for status, answers in (
                (PROTOCOL, {"OPTIONS": None}),
                (PROTOCOL, {"OPTIONS": endless}),
                (PROTOCOL, {"OPTIONS": b"\0" * 500_000}),
                (PROTOCOL, {"DESCRIBE": 500}),
                (PROTOCOL, {"DESCRIBE": description + b"4000000000\r\n\r\nv=0\r\n"}),
                (PROTOCOL, {"DESCRIBE": description + b"11\r\n\r\nm=nonsense\n"}),
                (PROTOCOL, {"SETUP": 461}),
                (REFUSED, {"DESCRIBE": 401}),
                (REFUSED, {"PLAY": 403}),
                (LOST, {"PLAY": b"close"}),
                (LOST, {"SETUP": 454}),
                (NOTHING, {})):
            with self.subTest(answers=str(answers)[:80]), Server(**answers) as server:
                self.check(status, server.url, "--timeout", "3")

    def test_a_server_that_plays_nonsense(self):
        """Packets whose numbers, times, formats and contents are drawn: parameter sets, pictures and parts of them."""
        chance = random.Random(11)
        media = b""
        for number in range(3000):
            kind = chance.choice((0x65, 0x61, 0x61, 0x61, 0x67, 0x68, 0x7c, 0x78, 0x1f))
            content = self.clip[number] if number < 50 else bytes([kind]) + chance.randbytes(chance.randrange(60))
            sequence = number + (chance.randrange(65536) if chance.random() < 0.005 else 0)
            rtp = struct.pack(">BBHLL", 0x80 if chance.random() < 0.98 else 0xff, chance.choice((96, 0xe0)),
                              sequence & 0xffff, number * 3600 if chance.random() < 0.9 else chance.randrange(2**32),
                              1) + content
            media += struct.pack(">BBH", 0x24, 0 if chance.random() < 0.98 else 7, len(rtp)) + rtp
        with Server(PLAY=b"RTSP/1.0 200 OK\r\nCSeq: 4\r\nSession: 1\r\n\r\n" + media) as server:
            tracks, messages = self.view(server.url, "--timeout", "3", "--stats", "-o", self.path("a.h264"),
                                         "-o", self.path("a.mp4"), status=LOST)
        self.assertRegex(messages, "changed its parameter sets\n.*no media comes any more")
        frames = int(tracks["H264"]["frames"])
        self.assertGreater(frames, 40)
        self.assertGreater(int(tracks["H264"]["lost"]), 0)
        packets = run("ffprobe", "-v", "quiet", "-show_packets", self.path("a.mp4")).decode().count("[PACKET]")
        self.assertTrue(0 < packets < frames, (packets, frames))

    def test_a_server_that_says_bye(self):
        pictures = [struct.pack(">BBHLL", 0x80, 0x80 | 96, number, number * 3600, 7) + unit
                    for number, unit in enumerate(self.clip[:4], 1)]
        bye = struct.pack(">BBHLBBHL", 0x80, 201, 1, 7, 0x81, 203, 1, 7)
        media = b"".join(struct.pack(">BBH", 0x24, channel, len(packet)) + packet
                         for channel, packet in [*((0, each) for each in pictures), (1, bye)])
        with Server(PLAY=b"RTSP/1.0 200 OK\r\nCSeq: 4\r\nSession: 1\r\n\r\n" + media) as server:
            _, messages = self.view(server.url, "--timeout", "60", "-o", self.path("a.h264"), status=LOST)
        self.assertIn("the server has ended the stream", messages)
        self.assertEqual(nal_units(self.path("a.h264")), self.clip[:4])

    @up_to_three_times
    def test_a_session_is_kept_alive_and_taken_leave_of(self):
        with Server() as server:
            self.check(NOTHING, server.url, "--timeout", "2")
        self.assertEqual(server.methods[:4], ["OPTIONS", "DESCRIBE", "SETUP", "PLAY"])
        self.assertIn(server.methods[4:], [["GET_PARAMETER"] * count + ["TEARDOWN"] for count in (3, 4)])

    def test_a_camera_that_goes_away(self):
        with Camera() as camera:
            viewer = self.start(camera.url("live"), "-o", self.path("a.h264"))
            self.wait_for(viewer, "a.h264", 1)
        _, messages = self.end(viewer, LOST)
        self.assertIn("closed the connection", messages)
