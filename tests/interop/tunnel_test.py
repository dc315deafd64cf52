"""RTSP over HTTP: a GET and a POST connection, paired by their cookie."""
import base64
import socket

from peers import CameraCase
from player import Player


class Tunnel(Player):
    """A player whose requests go over a second connection."""

    def __init__(self, url, post_first=b""):
        super().__init__(url)
        head = "/live HTTP/1.0\r\nx-sessioncookie: 7f4e\r\n"
        self.socket.sendall(f"GET {head}Accept: application/x-rtsp-tunnelled\r\n\r\n".encode())
        self.head()
        self.post = socket.create_connection(self.address, 10)
        self.post.sendall(f"POST {head}Content-Type: application/x-rtsp-tunnelled\r\n"
                          "Content-Length: 32767\r\n\r\n".encode() + post_first)

    def __exit__(self, *error):
        super().__exit__(*error)
        self.post.close()

    def write(self, data):
        text = base64.b64encode(data)
        for at in range(0, len(text), 7):  # no boundary of the coding
            self.post.sendall(text[at:at + 7])


class Http(CameraCase):
    arguments = ("--threads", "2")

    def test_one_end_ends_the_other(self):
        for gone, left in (("post", "socket"), ("socket", "post")):
            with Tunnel(self.camera.url()) as tunnel:
                tunnel.request("OPTIONS")
                getattr(tunnel, gone).shutdown(socket.SHUT_WR)
                self.assertEqual(getattr(tunnel, left).recv(1), b"")

    def test_what_has_no_get_or_is_no_base64_ends_it(self):
        with Tunnel(self.camera.url(), post_first=b"AA=AAAAA") as tunnel:
            self.assertEqual(tunnel.socket.recv(1), b"")
            with socket.create_connection(tunnel.address, 20) as post:
                post.sendall(b"POST /live HTTP/1.0\r\nx-sessioncookie: nobody\r\n\r\n")
                self.assertEqual(post.recv(1), b"")
