"""ffmpeg watches inet-camera: what arrives is the clip, picture by picture and sample by sample."""
import os
import random
import re
import socket
import subprocess
import tempfile
import unittest

from peers import (CAMERA, FREE_PORTS, LIVE, Camera, CameraCase, Failed, at_once, clip_file, ffmpeg, picture_hashes,
                   position_in_loop)

SECONDS = 9  # so that the clip comes to its end and begins again, and several sender reports come


def pull(url, transport, seconds=SECONDS):
    return "-rtsp_transport", transport, "-t", str(seconds), "-i", url


class Live(CameraCase):
    arguments = ("--threads", "2")

    def test_pictures_and_sound_over_each_transport_on_several_threads(self):
        """Neighbouring connections, as the two of a tunnel are, go to different threads, and some over UDP share one."""
        ways = ("tcp", "udp", "http", "udp", "http", "udp")
        for way, table in zip(ways, at_once(lambda way: ffmpeg(*pull(self.camera.url(), way), *LIVE), ways)):
            with self.subTest(way):
                self.check_live(table, SECONDS)


class Others(CameraCase):
    def test_jpeg_pictures(self):
        clip = picture_hashes("-i", clip_file("clip_%02d.jpg"))
        for seen in at_once(lambda way: picture_hashes(*pull(self.camera.url("jpeg"), way, 4)), ("tcp", "udp")):
            self.assertGreater(len(seen), 3.5 * 5)
            self.assertIsNotNone(position_in_loop(seen, clip))

    def test_metadata(self):
        text = ffmpeg(*pull(self.camera.url(), "tcp", 4), "-map", "0:d", "-c", "copy", "-f", "data", "-").decode()
        documents = re.findall(r"<\?xml.*?</tt:MetadataStream>", text, re.DOTALL)
        self.assertGreaterEqual(len(documents), 3.5 * 5)
        self.assertEqual(text, "".join(documents))


class Access(CameraCase):
    arguments = ("--user", "admin", "--password", "right")

    def test_a_wrong_password_gets_401_and_no_stream(self):
        for user in ("admin:wrong", "root:right", None):
            with self.subTest(user), self.assertRaisesRegex(Failed, "401"):
                picture_hashes(*pull(self.camera.url(user=user), "tcp"))
        self.assertGreater(len(picture_hashes(*pull(self.camera.url(user="admin:right"), "tcp", 1))), 20)


class CommandLine(unittest.TestCase):
    def refuses(self, status, *arguments):
        done = subprocess.run([*CAMERA, *FREE_PORTS, *arguments], capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, status)
        self.assertRegex(done.stderr, r"\Ainet-camera: .+\n\Z")
        return done.stderr

    def test_mistakes_are_told(self):
        with tempfile.TemporaryDirectory() as directory:
            pictures = []
            for size, pixels in (("2048x64", "yuvj420p"), ("100x64", "yuvj420p"), ("64x64", "yuvj444p"),
                                 ("64x64", "gray")):  # which RTP cannot carry
                pictures.append(("--jpeg", os.path.join(directory, f"{size}-{pixels}.jpg")))
                ffmpeg("-f", "lavfi", "-i", f"testsrc2=s={size}", "-frames:v", "1", "-pix_fmt", pixels, pictures[-1][1])
            at_once(lambda arguments: self.refuses(1, *arguments), [
                *pictures, ["--video", "/nowhere.h264"], ["--audio", clip_file("clip.h264")],
                ["--jpeg", clip_file("clip.wav")], ["--analytics", clip_file("clip_01.jpg")]])
            at_once(lambda arguments: self.refuses(2, *arguments), [
                ["--nonsense"], ["--rtsp"], ["--rtsp", "x"], ["--rtsp", "65536"], ["--user", "a"], ["--password", "a"],
                ["--multicast", "223.255.255.255"], ["--multicast", "239.1.1.1:5003"], ["--stall", "0"],
                ["--user", "a", "--password-file", "/nowhere"]])
        with socket.create_server(("127.0.0.1", 0)) as taken:
            self.assertIn("another program has that port", self.refuses(1, "--rtsp", str(taken.getsockname()[1])))
        self.assertIn("does not have that address", self.refuses(1, "--bind", "192.0.2.1"))
        self.assertIn("ffmpeg -i ", self.refuses(1, "--video", clip_file("clip.wav")))

    def test_the_page_has_its_usual_port_where_it_is_free(self):
        """It is taken on the second start at the latest: another program may have it on all addresses."""
        host = ".".join(("127", *(str(random.randrange(1, 255)) for _ in range(3))))
        told = f"cannot listen on {host}:8080: another program has that port"
        usual = {"ports": ("--rtsp", "0", "--bind", host)}
        with Camera(**usual) as first, Camera(**usual) as second:
            self.assertIn(first.printed[0], (f"http://{host}:8080/\n", second.printed[0]))
            self.assertIn(told, second.printed[0])
            self.assertIn(f"no RTMP: {told.replace('8080', '1935')}; --rtmp PORT takes another port\n", second.printed)
            self.assertIn(told, self.refuses(1, "--bind", host, "--http", "8080"))
            self.assertGreater(len(picture_hashes(*pull(second.url(), "tcp", 1))), 20)
