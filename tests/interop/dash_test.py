"""DASH as players and caches ask for it."""
import datetime
import os
import re
import socket
import struct
import subprocess
import tempfile
import time
from http.client import HTTPConnection
from urllib.parse import urlsplit

from peers import ROOT, Camera, CameraCase, Failed, at_once, clip_file, ffmpeg, picture_hashes, position_in_loop, run
from viewer import ViewerCase

PLAYERS = 50


def ask(connection, target):
    connection.request("GET", target)
    answer = connection.getresponse()
    return answer, answer.read()


class DashCase(CameraCase):
    arguments = ("--http", "0")

    def connect(self, netloc):
        connection = HTTPConnection(netloc, timeout=30)
        self.addCleanup(connection.close)
        return connection

    def manifest(self, connection, path="/live/"):
        """The folder of the segments, their times and lengths, once there is a manifest."""
        answer, text = ask(connection, path + "manifest.mpd")
        while answer.status == 503:
            time.sleep(int(answer.getheader("Retry-After")))
            answer, text = ask(connection, path + "manifest.mpd")
        self.assertEqual((answer.status, answer.getheader("Content-Type")), (200, "application/dash+xml"))
        times = [(int(start), int(length)) for length, start in re.findall(r'<S d="(\d+)" t="(\d+)"', text.decode())]
        return path + re.search(r'Representation id="([^"]+)"', text.decode()).group(1) + "/", times


class Live(DashCase):
    def test_segments_are_those_of_the_manifest(self):
        connection = self.connect(urlsplit(self.camera.web).netloc)
        folder, times = self.manifest(connection)
        self.assertGreaterEqual(sum(length for _, length in times), 15000)
        for (start, length), (following, _) in zip(times, times[1:]):
            self.assertEqual(start + length, following)
        for start, _ in times[-3:]:
            answer, segment = ask(connection, f"{folder}{start}.m4s")
            self.assertEqual((answer.status, answer.getheader("Content-Type")), (200, "video/mp4"))
            at = segment.index(b"tfdt")
            self.assertEqual(struct.unpack_from(">Q", segment, at + 8)[0], start * 90)
        self.assertEqual(ask(connection, f"{folder}{times[-1][0] + 1}.m4s")[0].status, 404)
        self.assertEqual(ask(connection, "/jpeg/manifest.mpd")[0].status, 404)

    def test_ffmpeg_plays_it_up_to_the_present_and_on(self):
        self.manifest(self.connect(urlsplit(self.camera.web).netloc))
        url = self.camera.web + "live/manifest.mpd"
        table = run("ffmpeg", "-loglevel", "error", "-i", url, "-t", "24", "-c", "copy", "-f", "framecrc", "-").decode()
        times = [int(line.split(",")[1]) for line in table.splitlines() if line.startswith("0,")]
        self.assertEqual([later - time for time, later in zip(times, times[1:])], [3600] * 599)
        seen = picture_hashes("-i", url, "-t", "4")
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip.h264"))))


class Recorded(ViewerCase):
    def test_a_range_of_what_a_killed_camera_has_recorded(self):
        first = Camera("--record", self.path("kept"))
        with first.folder, first.messages, first.process:
            while not (names := os.listdir(self.path("kept"))) or os.path.getsize(self.path(f"kept/{names[0]}")) < 800000:
                self.assertIsNone(first.process.poll())
                time.sleep(0.02)
            first.process.kill()
        began = datetime.datetime.strptime(names[0], "live-%Y%m%dT%H%M%S.%fZ.mp4")
        start, end = (f"{began + datetime.timedelta(seconds=each):%Y%m%dT%H%M%SZ}" for each in (1, 6))
        with Camera("--http", "0", "--record", self.path("kept")) as second:
            seen = picture_hashes("-i", f"{second.web}recorded/live/{start}-{end}/manifest.mpd")
            self.assertGreaterEqual(len(seen), 100)
            self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip.h264"))))
            connection = HTTPConnection(urlsplit(second.web).netloc, timeout=30)
            _, text = ask(connection, f"/recorded/live/{start}-{end}/manifest.mpd")
            track, low, high = re.search(r'id="v(.*)-(\d+)-(\d+)"', text.decode()).groups()
            # A range that is not there any more is played again: here one that never was.
            other = f"{int(low) + 1}-{high}"
            answer, segment = ask(connection, f"/recorded/live/{other}/v{track}-{other}/0.m4s")
            connection.close()
            self.assertEqual((answer.status, segment[4:8]), (200, b"moof"))
            for none in (f"{end}-{start}", "x-y", "20200101T000000Z-20200101T000001Z", ".."):
                with self.assertRaises(Failed):
                    ffmpeg("-i", f"{second.web}recorded/live/{none}/manifest.mpd", "-f", "null", "-")
        with Camera("--record", self.path("kept"), "--keep", "1"):
            while os.path.exists(self.path(f"kept/{names[0]}")):
                time.sleep(0.02)


class Cached(DashCase):
    def setUp(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.netloc = "127.0.0.1:%d" % probe.getsockname()[1]
        with open(f"{ROOT}/docs/dash-cache.conf") as file:
            server = file.read().replace("camera:8080", urlsplit(self.camera.web).netloc)
        with open(f"{folder}/nginx.conf", "w") as file:
            file.write(f"{'user root;' * (os.geteuid() == 0)} daemon off; pid pid; events {{ }}\n"
                       f"http {{ access_log off; client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path "
                       f"fastcgi; uwsgi_temp_path uwsgi; scgi_temp_path scgi;\n"
                       f"{server.replace('listen 80', 'listen ' + self.netloc)} }}\n")
        nginx = subprocess.Popen(["nginx", "-p", folder, "-c", "nginx.conf", "-e", "errors"])
        self.addCleanup(lambda: (nginx.terminate(), nginx.wait()))
        while not self.answers():
            self.assertIsNone(nginx.poll())
            time.sleep(0.02)

    def answers(self):
        host, port = self.netloc.split(":")
        with socket.socket() as probe:
            return probe.connect_ex((host, int(port))) == 0

    def play(self, _):
        """Fetches what is listed, and what comes, for some segments more: how often each was asked of the camera."""
        connection = self.connect(self.netloc)  # kept: the cache closes idle ones of more than 512
        folder, times = self.manifest(connection)
        missed = {}
        last = times[-1][0] + 6000
        while not missed or max(missed) < last:
            for start in (start for start, _ in times if start not in missed):
                answer, segment = ask(connection, f"{folder}{start}.m4s")
                self.assertEqual((answer.status, segment[4:8]), (200, b"moof"))
                missed[start] = answer.getheader("X-Cache") == "MISS"
            time.sleep(0.5)
            _, times = self.manifest(connection)
        return missed

    def test_each_segment_leaves_the_camera_once(self):
        self.manifest(self.connect(urlsplit(self.camera.web).netloc))
        seen = at_once(self.play, range(PLAYERS))
        asked = {start: sum(missed.get(start, 0) for missed in seen) for start in set().union(*seen)}
        self.assertGreater(len(asked), 8)
        self.assertEqual(set(asked.values()), {1}, asked)
