"""inet-viewer receives from inet-camera, and from servers that fail: files, figures and exit status."""
import os
import random
import signal
import socket
import struct
import subprocess

from peers import (TABLE, Camera, CameraCase, at_once, clip_file, ffmpeg, free_group, picture_hashes,
                   position_in_loop, run, tracks_of)
from relay import Relay, Server
from viewer import VIEWER, ViewerCase, nal_units

USAGE, NO_CONNECTION, REFUSED, NOT_FOUND, PROTOCOL, NOTHING, LOST, CANNOT_WRITE = range(2, 10)


class Live(ViewerCase, CameraCase):
    arguments = ("--multicast", free_group())

    def check(self, way, tracks):
        pictures = picture_hashes("-i", self.path(f"{way}.h264"))
        self.assertEqual(picture_hashes("-i", self.path(f"{way}.mp4")), pictures)
        sound, documents = self.sound_and_documents(way)
        self.assertEqual(int.from_bytes(sound[4:8], "little"), len(sound) - 8)
        self.assertEqual(ffmpeg("-i", self.path(f"{way}.wav"), "-c", "copy", "-f", "mulaw", "-"), sound[58:])
        self.assertIn('<tt:Object ObjectId="1">', documents[0])
        self.assertEqual([int(tracks[name]["frames"]) for name in ("H264", "PCMU", "META")],
                         [len(pictures), (len(sound) - 58) / 160, len(documents)])
        self.assertEqual({track["lost"] for track in tracks.values()}, {"0"})
        self.assertGreater(float(tracks["H264"]["mbit/s"]), 0.3)
        self.assertLess(float(tracks["H264"]["jitter_ms"]), 1000)
        self.assertEqual([tracks[name][count] for name, count in (("H264", "frames"), ("H264", "left_out"),
                                                                  ("PCMU", "frames"))], ["100", "0", "200"])
        self.check_pictures(f"{way}.h264", 100)
        self.assertEqual(ffmpeg("-i", self.path(f"{way}.mp4"), "-map", "0:a", "-f", "s16le", "-"),
                         ffmpeg("-i", self.path(f"{way}.wav"), "-f", "s16le", "-"))
        self.check_step(f"{way}.mp4", 4)

    def test_everything_over_each_transport(self):
        ways = ("tcp", "udp", "http", "multicast")
        outputs = {way: [argument for kind in ("h264", "mp4", "wav", "txt")
                         for argument in ("-o", self.path(f"{way}.{kind}"))] for way in ways}
        seen = at_once(lambda way: self.view(self.camera.url(), "--transport", way, "--duration", "4", "--stats",
                                             *outputs[way]), ways)
        for way, (tracks, messages) in zip(ways, seen):
            with self.subTest(way):
                self.assertEqual(messages, "")
                self.check(way, tracks)


class Files(ViewerCase, CameraCase):
    def test_pictures_are_written_a_file_each(self):
        self.view(self.camera.url("jpeg"), "--duration", "3", "-o", self.path("a.jpg"), "-o", self.path("b%02d.jpg"))
        seen = picture_hashes("-i", self.path("a_%05d.jpg"))
        self.assertEqual(len(seen), 15)
        self.assertEqual(seen, picture_hashes("-i", self.path("b%02d.jpg")))
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip_%02d.jpg"))))

    def test_pictures_shown_in_another_order_keep_their_times(self):
        """Those of the camera's file, B-pictures among them."""
        ffmpeg("-i", clip_file("clip.h264"), "-c:v", "libx264", "-bf", "3", "-b_strategy", "0", self.path("b.h264"))
        loop = picture_hashes("-i", self.path("b.h264"))
        with Camera("--video", self.path("b.h264"), "--audio", clip_file("clip.wav")) as camera:
            self.view(camera.url(), "--duration", "3", "-o", "a.mp4")
        seen = tracks_of(ffmpeg("-i", self.path("a.mp4"), "-map", "0:v", "-fps_mode", "passthrough", *TABLE))["0"]
        self.assertIsNotNone(position_in_loop([item for item, _ in seen], loop))
        self.assertEqual({round(b - a, 3) for (_, a), (_, b) in zip(seen, seen[1:])}, {0.04})
        self.check_step("a.mp4", 2.8, 0.16)  # up to a picture that is shown behind the end

    def test_standard_output(self):
        done = subprocess.run([*VIEWER, self.camera.url(), "--duration", "1", "--stats", "-o", "-"],
                              capture_output=True, timeout=60)
        self.assertIn(b"frames=25", done.stderr)
        with open(self.path("a.mp4"), "wb") as film:
            film.write(done.stdout)
        self.check_step("a.mp4", 1)

    def test_mp4_can_be_read_while_it_grows_and_ends_whole_by_ctrl_c(self):
        path = self.path("a.mp4")
        viewer = self.start(self.camera.url(), "-o", path)
        self.wait_for(viewer, "a.mp4", 200_000)
        growing = picture_hashes("-i", path)
        viewer.send_signal(signal.SIGINT)
        self.assertEqual(self.end(viewer)[1], "")
        whole = picture_hashes("-i", path)
        self.assertGreaterEqual(len(growing), 25)
        self.assertEqual(whole[:len(growing)], growing)
        self.assertIn("h264", run("ffprobe", "-v", "error", "-show_streams", path).decode())


class Loss(ViewerCase, CameraCase):
    def view_through(self, relay, seconds):
        tracks, _ = self.view(relay.url, "--transport", "udp", "--duration", str(seconds), "--timeout", "4", "--stats",
                              "-o", "a.h264")
        self.assertGreater(relay.moved, 5)
        return tracks["H264"]

    def test_whole_pictures_and_right_counts_when_packets_are_lost_and_reordered(self):
        with Relay(self.camera.url(), 0.03, 0.1) as relay:
            track = self.view_through(relay, 6)
        count = int(track["packets"]) + int(track["lost"])
        self.assertEqual(int(track["lost"]), sum(relay.tracks[0][:count]))
        self.assertGreater(int(track["lost"]), 0)
        self.assertGreater(int(track["left_out"]), 0)
        self.assertGreater(float(track["jitter_ms"]), 0)
        seen = picture_hashes("-i", self.path("a.h264"))
        self.assertEqual(len(seen), int(track["frames"]))
        self.assertLessEqual(set(seen), set(picture_hashes("-i", clip_file("clip.h264"))))
        self.assertLessEqual(set(nal_units(self.path("a.h264"))), set(self.clip))

    def test_reordering_alone_costs_nothing(self):
        with Relay(self.camera.url(), 0.0, 0.1) as relay:
            track = self.view_through(relay, 3)
        self.assertEqual((track["lost"], track["frames"]), ("0", "75"))
        self.check_pictures("a.h264", 75)


class OtherWays(ViewerCase, CameraCase):
    def test_falls_back_to_tcp_when_nothing_arrives(self):
        with Relay(self.camera.url(), 1.0) as relay:
            _, messages = self.view(relay.url, "--transport", "udp", "--duration", "2", "-o", "a.h264")
        self.assertIn("nothing arrives over UDP, trying tcp", messages)
        self.check_pictures("a.h264", 50)

    def test_connects_again(self):
        port = free_group().split(":")[1]
        with Camera("--rtsp", port) as camera:
            again = self.start(camera.url(), "--duration", "8", "--reconnect", "forever", "-o", "a.h264", "-o", "a.mp4")
            once = self.start(camera.url(), "-o", "b.h264")
            self.wait_for(again, "a.h264")
            self.wait_for(once, "b.h264")
        self.assertIn("closed the connection", self.end(once, LOST)[1])
        with Camera("--rtsp", port):
            _, messages = self.end(again)
        self.assertIn("connecting again in 1 s", messages)
        self.assertGreater(len(picture_hashes("-i", self.path("a.h264"))), 40)
        self.assertEqual(picture_hashes("-i", self.path("a.mp4")), picture_hashes("-i", self.path("a.h264")))
        self.check_step("a.mp4", 8)


class Access(ViewerCase, CameraCase):
    arguments = ("--user", "admin", "--password", "r:i@ght")

    def test_user_and_stream(self):
        for user in (None, "admin:wrong", "root:r:i%40ght"):
            self.refuse(REFUSED, self.camera.url(user=user))
        self.refuse(NOT_FOUND, self.camera.url(user="admin:r:i%40ght") + "/nó where")
        for user in ("admin:r:i%40ght", "admin:r:i@ght"):
            self.view(self.camera.url(user=user), "--duration", "0.5")


class Status(ViewerCase, CameraCase):
    """The exit status tells what happened, and a message says it in words."""

    def test_what_cannot_be_done(self):
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        url = self.camera.url()
        full = ("a.h264", "a.mp4", "a.wav", "a.txt", "a_00001.jpg")
        for name in full:
            os.symlink("/dev/full", self.path(name))
        at_once(lambda arguments: self.refuse(*arguments), [
            (NO_CONNECTION, f"rtsp://127.0.0.1:{port}/x"),
            *((CANNOT_WRITE, url, "-o", path) for path in ("none/a.h264", "none/a.jpg")),
            *((CANNOT_WRITE, self.camera.url("jpeg" if "jpg" in name else "live"), "-o", name.replace("_00001", ""))
              for name in full),
            (NOTHING, url, "--duration", "1", "-o", "b.h264", "-o", "b.jpg")])
        with open("/dev/full", "w") as output:
            done = subprocess.run([*VIEWER, url, "--duration", "0.2", "--stats"], stdout=output,
                                  stderr=subprocess.DEVNULL, timeout=60)
        self.assertEqual(done.returncode, CANNOT_WRITE)

    def test_what_is_no_command_line(self):
        url = "rtsp://127.0.0.1:1/x"
        at_once(lambda arguments: self.refuse(USAGE, *arguments), [
            [], ["ftp://x"], ["rtsp://"], ["rtsp://:554/x"], ["rtsp://h:/x"], ["rtsp://h:65536/x"], ["rtsp://u:p@/x"],
            ["rtsp://u:p@[::1]/x"], [url, url], [url, "-o"], [url, "-o", "a.avi"], [url, "-o", "a.mp4", "-o", "a.mp4"],
            [url, "--duration", "-1"], [url, "--transport=pigeon"], [url, "--nonsense"], [url, "--stats=1"],
            [url, "--reconnect"]])
        self.assertEqual(os.listdir(self.folder), [])


class Servers(ViewerCase):
    def test_servers_that_fail(self):
        endless = b"RTSP/1.0 200 OK\r\n" + b"X: y\r\n" * 200_000
        description = b"RTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Length: "

        def check(case):
            status, answers = case
            with Server(**answers) as server:
                self.refuse(status, server.url, "--timeout", "3")
            return server.methods

        h265 = b"m=video 0 RTP/AVP 96\r\na=rtpmap:96 H265/90000\r\na=control:v\r\n"
        for answers, cause in (({"SETUP": 461}, "not send over tcp; try --transport udp"),
                               ({"DESCRIBE": description + b"%d\r\n\r\nv=0\r\n" % (len(h265) + 5) + h265}, "H265")):
            with Server(**answers) as server:
                self.assertIn(cause, self.refuse(PROTOCOL, server.url))
        methods = at_once(check, [
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
            (NOTHING, {"OPTIONS": 501}),
            (NOTHING, {})])[-1]
        self.assertEqual([*methods[:4], methods[-1]], ["OPTIONS", "DESCRIBE", "SETUP", "PLAY", "TEARDOWN"])
        self.assertEqual(set(methods[4:-1]), {"GET_PARAMETER"}, "the session is kept alive")
        self.assertLess(len(methods), 12)
        with Server() as server:  # from another port of the host, so with the user
            moved = f"RTSP/1.0 302 X\r\nLocation: {server.url}\r\n\r\n".encode()
            server.answers["DESCRIBE"] = b"RTSP/1.0 401 X\r\nWWW-Authenticate: Basic realm=x\r\n\r\n"
            with Server(OPTIONS=moved, DESCRIBE=moved) as other:
                self.refuse(REFUSED, other.url.replace("//", "//u:p@"))
            self.assertEqual((other.methods, server.methods), (["OPTIONS"], ["OPTIONS", "DESCRIBE", "DESCRIBE"]))

    def view_media(self, packets, *arguments):
        """From a server that sends them all with its answer to PLAY."""
        media = b"".join(struct.pack(">BBH", 0x24, channel, len(packet)) + packet for channel, packet in packets)
        with Server(PLAY=b"RTSP/1.0 200 OK\r\nCSeq: 4\r\nSession: 1\r\n\r\n" + media) as server:
            return self.view(server.url, "-o", "a.h264", *arguments, status=LOST)

    def test_a_server_that_plays_nonsense(self):
        """Packets whose numbers, times, formats and contents are drawn: parameter sets, pictures and parts of them."""
        chance = random.Random(11)
        packets = []
        for number in range(3000):
            kind = chance.choice((0x65, 0x61, 0x61, 0x61, 0x67, 0x68, 0x7c, 0x78, 0x1f))
            content = self.clip[number] if number < 50 else bytes([kind]) + chance.randbytes(chance.randrange(60))
            sequence = number + (chance.randrange(65536) if chance.random() < 0.005 else 0)
            rtp = struct.pack(">BBHLL", 0x80 if chance.random() < 0.98 else 0xff, chance.choice((96, 0xe0)),
                              sequence & 0xffff, number * 3600 if chance.random() < 0.9 else chance.randrange(2**32), 1)
            packets.append((0 if chance.random() < 0.98 else 7, rtp + content))
        tracks, messages = self.view_media(packets, "--timeout", "2", "--stats", "-o", "a.mp4")
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
        _, messages = self.view_media([*((0, each) for each in pictures), (1, bye)], "--timeout", "60")
        self.assertIn("the server has ended the stream", messages)
        self.assertEqual(nal_units(self.path("a.h264")), self.clip[:4])
