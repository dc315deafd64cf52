"""inet-viewer fetches over HTTP what servers of many habits send: files, and streams of pictures and sound."""
import gzip
import hashlib
import os

from peers import at_once, clip_file, clip_sound, picture_hashes
from relay import LocalServer
from viewer import ViewerCase, nal_units

REFUSED, NOT_FOUND, PROTOCOL, LOST, CANNOT_WRITE = 4, 5, 6, 8, 9
CONTENT = bytes(range(256)) * 1000


class Web(LocalServer):
    """Answers each request with the bytes that `answers` has for its target, or that a call there makes of its header,
    and closes."""

    def __init__(self, answers):
        super().__init__()
        self.url = self.url.replace("rtsp:", "http:").removesuffix("/live")
        self.answers = answers
        self.heads = []

    def talk(self, client):
        with client.makefile("rb") as stream:
            head = b""
            while (line := stream.readline()) not in (b"\r\n", b""):
                head += line
        self.heads.append(head.decode())
        answer = self.answers.get(head.split()[1].decode(), b"HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n")
        client.sendall(answer(head.decode()) if callable(answer) else answer)


def moved(place, status=302):
    return f"HTTP/1.1 {status} X\r\nLocation: {place}\r\nContent-Length: 4\r\n\r\nmove".encode()


def plain(content=CONTENT, *fields):
    return "\r\n".join(("HTTP/1.1 200 OK", f"Content-Length: {len(content)}", *fields, "\r\n")).encode() + content


class Files(ViewerCase):
    def fetch(self, case):
        """Status, arguments, the name of the file, if there is to be one, and what the message says."""
        url, arguments, status, name, words = case
        _, messages = self.view(url, *arguments, "--timeout", "5", status=status)
        self.assertIn(words, messages)
        if name:
            with open(self.path(name), "rb") as file:
                self.assertEqual(file.read(), CONTENT, case)

    def test_each_way_to_send_a_file(self):
        cut = CONTENT[:-1]
        chunks = b"".join(b"%x;x=y\r\n%s\r\n" % (len(part), part) for part in (CONTENT[:7], CONTENT[7:]))
        head = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Type: video/mp4\r\n\r\n"
        with Web({
                "/a%20b.bin?x=%2F": plain(),
                "/%C3%A9": plain(),
                "/chunked.mp4": head + chunks + b"0\r\nX: y\r\n\r\n",
                "/old.bin": b"HTTP/1.0 200 OK\ncontent-type: text/plain\n\n".replace(b"\n", b"\r\n") + CONTENT,
                "/early.bin": b"HTTP/1.1 100 C\r\n\r\nHTTP/1.1 103 E\r\nLink: x\r\n\r\n" + plain(),
                "/unclear.bin": b"HTTP/1.1 200 OK\r\nConnection: close\r\ncontent-length: 256000\r\n\r\n" + CONTENT,
                "/cut.bin": plain()[:-1],
                "/cut.mp4": head + chunks,
                "/coded.bin": plain(gzip.compress(CONTENT), "Content-Encoding: gzip"),
                "/..%2Fout": plain(), "/": plain(), "/none": b"HTTP/1.1 204 No\r\n\r\n"}) as web:
            cases = [(web.url + "/a b.bin?x=%2F", (), 0, "a b.bin", "saved as a b.bin"),
                     (web.url + "/é", (), 0, "é", ""),
                     (web.url + "/chunked.mp4", ("-o", "film.mp4"), 0, "film.mp4", ""),
                     (web.url + "/old.bin", ("-o", "./in/old.x"), 0, "in/old.x", ""),
                     (web.url + "/early.bin", (), 0, "early.bin", ""),
                     (web.url + "/unclear.bin#x", (), 0, "unclear.bin", ""),
                     (web.url + "/cut.bin", (), LOST, None, "before all of cut.bin had come"),
                     (web.url + "/cut.mp4", (), LOST, None, "before all of cut.mp4 had come"),
                     (web.url + "/coded.bin", (), PROTOCOL, None, "compressed"),
                     (web.url + "/..%2Fout", (), CANNOT_WRITE, None, "no name for a file: ../out"),
                     (web.url, (), CANNOT_WRITE, None, "names no file"),
                     (web.url, ("-o", "n" * 300), CANNOT_WRITE, None, "cannot write nnn"),
                     (web.url + "/none", (), PROTOCOL, None, "204"),
                     (web.url + "/nothing", (), NOT_FOUND, None, "404")]
            at_once(self.fetch, cases)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted({case[3].split("/")[0] for case in cases if case[3]}))

    def test_a_source_that_is_elsewhere(self):
        def told(head):
            """Digest, as the server has it that refuses without a quality of protection."""
            first, second = (hashlib.md5(text.encode()).hexdigest() for text in ("u r:r:p@w", "GET:/in/y"))
            return hashlib.md5(f"{first}:n:{second}".encode()).hexdigest() in head

        ask = b'HTTP/1.1 401 X\r\nWWW-Authenticate: Basic realm="x y", Digest realm="r", nonce="n"\r\n\r\n'
        secret = {"/in/y": lambda head: plain() if told(head) else ask}
        with Web(secret) as web, Web({}) as other:
            outside = other.url.replace("127.0.0.1", "localhost") + "/in/y"
            other.answers.update({"/in/y": ask, "/far": moved("https://h/x"), "/loop": moved("loop", 307),
                                  "/empty": moved(""), "/bare": ask[:14] + ask[-4:]})
            secret.update({"/1": moved("/2", 301), "/2": moved("in/x?y", 303), "/in/x?y": moved("../3", 308),
                           "/3": moved(web.url[5:] + "/in/z#x", 307), "/in/z": moved("y"), "/out": moved(outside)})
            at_once(self.fetch, [
                (web.url.replace("//", "//u%20r:p%40w@") + "/1", (), 0, "1", ""),
                (web.url.replace("//", "//u r:p@w@") + "/in/y", (), 0, "y", ""),
                (web.url + "/in/y", ("--user", "u r", "--password", "x"), REFUSED, None, "401"),
                (other.url.replace("//", "//u:p@") + "/bare", (), REFUSED, None, "401"),
                (web.url.replace("//", "//u%20r:p%40w@") + "/out", (), REFUSED, None, "401"),
                (other.url + "/far", (), PROTOCOL, None, "it is at https://h/x, which cannot be fetched"),
                (other.url + "/empty", (), PROTOCOL, None, "answered with 302"),
                (other.url + "/loop", (), PROTOCOL, None, "more than 5 times in a row")])
            self.assertNotIn("Authorization", "".join(other.heads))


class Streams(ViewerCase):
    def test_parts_of_pictures_and_sound(self):
        sound = clip_sound()[:160 * 8]
        units, parts, picture = self.clip, [], b""
        for unit in units:
            picture += b"\0\0\0\1" + unit
            if unit[0] & 31 in (1, 5):
                parts.append((b"video/h264", picture))
                picture = b""
        parts[3:3] = [(b"audio/pcmu", sound[at:at + 160]) for at in range(0, len(sound), 160)]
        body = b"".join(b"--b\r\ncontent-type: %s\r\nContent-Length: %d\r\n\r\n%s\r\n" % (kind, len(data), data)
                        for kind, data in parts) + b"--b--\r\n"
        jpeg = b""
        for number in range(1, 6):
            with open(clip_file(f"clip_{number:02}.jpg"), "rb") as file:
                jpeg += b"\r\n--no idea\r\nContent-Type: image/jpeg\r\n\r\n" + file.read()
        jpeg += b"\r\n--no idea--"
        with Web({"/h264": b'HTTP/1.1 200 OK\r\nContent-Type: multipart/mixed; Boundary="--b"\r\n'
                           b"Content-Length: -1\r\n\r\n" + body,
                  "/jpeg": b"HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n\r\n" + jpeg}) as web:
            tracks, messages = self.view(web.url + "/h264", "--stats", "-o", "a.h264", status=LOST)
            self.assertIn("the server has ended the stream", messages)
            self.view(web.url + "/jpeg", "-o", "a.jpg", status=LOST)
            self.assertIn("cannot hold", self.view(web.url + "/jpeg", "-o", "a.bin", status=2)[1])
        self.assertEqual(nal_units(self.path("a.h264")), self.clip)
        self.assertEqual(int(tracks["PCMU"]["bytes"]), len(sound))
        self.assertEqual(picture_hashes("-i", self.path("a_%05d.jpg")),
                         picture_hashes("-i", clip_file("clip_%02d.jpg"))[:5])
