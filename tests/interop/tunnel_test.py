"""RTSP over HTTP: a GET and a POST connection, paired by their cookie."""
import base64
import socket
import unittest
from urllib.parse import urlsplit

from peers import Camera, clip_file, ffmpeg, picture_hashes, position_in_loop
from player import Player


class Tunnel(Player):
    """A player whose requests go over a second connection."""

    def __init__(self, url, cookie="7f4e", post_first=b""):
        super().__init__(url)
        head = f"HTTP/1.0\r\nx-sessioncookie: {cookie}\r\n"
        path = urlsplit(url).path
        self.socket.sendall(f"GET {path} {head}Accept: application/x-rtsp-tunnelled\r\n\r\n".encode())
        self.granted = b""
        while not self.granted.endswith(b"\r\n\r\n"):
            self.granted += self.take(1)
        address = urlsplit(url)
        self.post = socket.create_connection((address.hostname, address.port), 10)
        self.post.sendall(f"POST {path} {head}Content-Type: application/x-rtsp-tunnelled\r\n"
                          "Content-Length: 32767\r\n\r\n".encode() + post_first)

    def __exit__(self, *error):
        super().__exit__(*error)
        self.post.close()

    def send(self, method, uri=None, **fields):
        plain, self.socket = self.socket, Encoder(self.post)
        super().send(method, uri, **fields)
        self.socket = plain


class Encoder:
    def __init__(self, post):
        self.post = post

    def sendall(self, data):
        text = base64.b64encode(data)
        for at in range(0, len(text), 7):  # no boundary of the coding
            self.post.sendall(text[at:at + 7])


class Http(unittest.TestCase):
    def check_pictures(self, *arguments):
        clip = picture_hashes("-i", clip_file("clip.h264"))
        with Camera(*arguments) as camera:
            for _ in range(2):
                seen = picture_hashes("-rtsp_transport", "http", "-i", camera.url("live"), "-t", "3")
                self.assertGreater(len(seen), 2.5 * 25)
                self.assertIsNotNone(position_in_loop(seen, clip))

    def test_ffmpeg(self):
        self.check_pictures()

    def test_the_ends_meet_on_one_thread(self):
        """Neighbouring connections go to different threads."""
        self.check_pictures("--threads", "3")

    def test_sound(self):
        with Camera() as camera:
            seen = ffmpeg("-rtsp_transport", "http", "-i", camera.url("live"), "-t", "3", "-map", "0:a", "-c", "copy",
                          "-f", "mulaw", "-")
        self.assertGreater(len(seen), 2.5 * 8000)

    def test_many_at_once(self):
        with Camera("--threads", "2") as camera:
            tunnels = [Tunnel(camera.url("live"), f"cookie{number}") for number in range(10)]
            for tunnel in tunnels:
                self.assertRegex(tunnel.granted, rb"^HTTP/1.0 200 OK\r\n(.*\r\n)*Content-Type: application/x-rtsp-tunn")
                tunnel.set_up(("video", "audio"))
                tunnel.request("PLAY")
                tunnel.first_key_picture()
            for tunnel in tunnels:
                with tunnel:
                    tunnel.request("TEARDOWN")

    def test_one_end_ends_the_other(self):
        with Camera("--threads", "2") as camera:
            for close_post in (True, False):
                with Tunnel(camera.url("live")) as tunnel:
                    tunnel.request("OPTIONS")
                    gone, left = (tunnel.post, tunnel.socket) if close_post else (tunnel.socket, tunnel.post)
                    gone.close()
                    left.settimeout(10)
                    self.assertEqual(left.recv(1), b"")

    def test_a_post_without_its_get_is_closed(self):
        with Camera() as camera:
            address = urlsplit(camera.url("live"))
            with socket.create_connection((address.hostname, address.port), 20) as post:
                post.sendall(b"POST /live HTTP/1.0\r\nx-sessioncookie: nobody\r\n\r\n")
                self.assertEqual(post.recv(1), b"")

    def test_what_is_no_base64_ends_it(self):
        with Camera() as camera, Tunnel(camera.url("live"), post_first=b"AA=AAAAA") as tunnel:
            self.assertEqual(tunnel.socket.recv(1), b"")
