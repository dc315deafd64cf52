"""What inet-camera serves over HTTP, as browsers and tools ask for it."""
import json
import os
import re
import socket
import subprocess
import tempfile
import time
from http.client import HTTPConnection
from urllib.parse import urlsplit

from peers import FFMPEG, Camera, CameraCase, Failed, clip_file, ffmpeg, picture_hashes, position_in_loop, run


class WebCase(CameraCase):
    arguments = ("--http", "0", "--threads", "2")

    def ask(self, *requests):
        """The answers to requests over one connection: (method, target, fields) each."""
        connection = HTTPConnection(urlsplit(self.camera.web).netloc, timeout=20)
        self.addCleanup(connection.close)
        for method, target, fields in requests:
            connection.putrequest(method, target, skip_accept_encoding=True)
            for name, value in fields.items():
                connection.putheader(name, value)
            connection.endheaders()
            answer = connection.getresponse()
            yield answer, answer.read()

    def get(self, target, **fields):
        return next(self.ask(("GET", target, {name.replace("_", "-"): value for name, value in fields.items()})))

    def connect(self):
        address = urlsplit(self.camera.web)
        return self.enterContext(socket.create_connection((address.hostname, address.port), 20))

    def say(self, text):
        """What comes back for a request as it stands here, up to the end of the connection."""
        with self.connect() as peer:
            peer.sendall(text.encode("latin1"))
            return b"".join(iter(lambda: peer.recv(65536), b""))

    def state_with_viewers(self, count):
        """The state when so many watch over HTTP. They are counted once a second, and who has closed is missed when the
        next picture is sent."""
        while True:
            state = json.loads(self.get("/status.json")[1])
            if state["services"][1]["viewers"] == count:
                return state
            time.sleep(0.05)


class Pictures(WebCase):
    def test_pictures_are_those_of_the_clip(self):
        clip = picture_hashes("-i", clip_file("clip_%02d.jpg"))
        # It has no times: ffmpeg takes it for 25 a second.
        seen = picture_hashes("-f", "mpjpeg", "-t", "0.6", "-i", self.camera.web + "jpeg.mjpeg")
        self.assertGreater(len(seen), 10)
        self.assertIsNotNone(position_in_loop(seen, clip))
        source = "souphttpsrc", "num-buffers=20", "location=" + self.camera.web + "jpeg.mjpeg"
        subprocess.run(["gst-launch-1.0", "-q", *source, "!", "multipartdemux", "!", "jpegdec", "!", "fakesink"],
                       timeout=60, check=True)
        _, picture = self.get("/jpeg.jpg")
        with tempfile.NamedTemporaryFile(suffix=".jpg") as file:
            file.write(picture)
            file.flush()
            self.assertIn(picture_hashes("-i", file.name)[0], clip)
        self.assertEqual(self.get("/live.jpg")[0].status, 404)

    def test_a_tunnel_comes_through_the_same_port(self):
        url = self.camera.web.replace("http:", "rtsp:") + "live"
        for way in ("http", "tcp"):
            self.assertGreater(len(ffmpeg("-rtsp_transport", way, "-t", "1", "-i", url, "-map", "0:v", "-f", "framemd5",
                                          "-")), 500)


class Answers(WebCase):
    def test_each_request_gets_its_answer(self):
        page, text = self.get("/")
        tag = page.headers["ETag"]
        for status, method, target, fields, size in (
                (200, "GET", "/", {}, len(text)),
                (200, "HEAD", "/", {}, 0),
                (304, "GET", "/?x=/../y", {"If-None-Match": f'"other", W/{tag}'}, 0),
                (206, "GET", "/", {"Range": "bytes=-7"}, 7),
                (206, "GET", "/", {"Range": "bytes=7-18446744073709551615"}, len(text) - 7),
                (206, "GET", "/", {"Range": "bytes=1-1", "If-Range": tag}, 1),
                (200, "GET", "/", {"Range": "bytes=1-1", "If-Range": '"old"'}, len(text)),
                (416, "GET", "/", {"Range": "bytes=999999-"}, 0),
                (206, "GET", "/", {"Range": "bytes=1-1", "If-Match": f'"other", {tag}'}, 1),
                (412, "GET", "/", {"If-Match": f"W/{tag}"}, None),
                (200, "HEAD", "/", {"If-Match": "*"}, 0),
                (200, "GET", "/healthz", {"Content-Type": "application/x"}, 3),
                (200, "GET", "/healthz", {}, 3),
                (200, "GET", "http://other:1/he%61lthz?x", {}, 3),
                (200, "GET", "https://other?/healthz", {}, len(text)),
                (405, "OPTIONS", "*", {}, None),
                (405, "POST", "/", {"Content-Length": "0"}, None),
                (405, "get", "/", {}, None),
                (405, "POST", "/jpeg.mjpeg", {"Content-Length": "0"}, None),
                (404, "POST", "/none.mjpeg", {"Content-Length": "0"}, None),
                (404, "DELETE", "/nothing", {}, None),
                (400, "GET", "/", {"Host": "other"}, None),
                (404, "GET", "//healthz", {}, None),
                (404, "GET", "/../page.css", {}, None),
                (404, "GET", "/%2e%2e/page.css", {}, None),
                (400, "GET", "/..%2fpage.css", {}, None),
                (400, "GET", "/page.css%00", {}, None),
                (400, "GET", "/%c0%afpage.css", {}, None),
                (400, "GET", "/%", {}, None),
                (400, "GET", "/%5cpage.css", {}, None),
                (404, "GET", "/..\\page.css", {}, None),
                (404, "GET", "/%252e%252e/page.css", {}, None),
                (404, "GET", "/C:/page.css", {}, None),
                (404, "GET", "/../jpeg.jpg", {}, None),
                (400, "GET", "ftp://other/healthz", {}, None),
                (413, "GET", "/status.json", {"Content-Length": "99999999"}, None),
                (431, "GET", "/", {"X": "x" * 5000}, None)):
            with self.subTest(target=target, **fields):
                answer, body = next(self.ask((method, target, fields)))
                self.assertEqual((answer.status, size if size is None else len(body)), (status, size))
                self.assertEqual("Allow" in answer.headers, status == 405)
        kept = self.ask(*[("GET", "/page.js", {}), ("HEAD", "/page.js", {}), ("GET", "/nothing", {})] * 20)
        self.assertEqual([answer.status for answer, _ in kept], [200, 200, 404] * 20)

    def test_what_can_be_read_in_two_ways_is_refused_and_nothing_behind_it_is_read(self):
        begin, end = "GET /healthz HTTP/1.1\r\nHost: x\r\n", "\r\n\r\n"
        chunks, behind = "Transfer-Encoding: chunked" + end, "0\r\n\r\nGET /healthz HTTP/1.1\r\nHost: x\r\n\r\n"
        for status, text in (
                *((400, f"{begin}Content-Length:{length}{end}") for length in
                  (" 5\r\nContent-Length: 6", " 5, 6", " +5", " -5", " 0x5", " 5 5", "", " 18446744073709551616")),
                *((400, f"{begin}Transfer-Encoding{coding}{end}") for coding in (
                    ": chunked\r\nContent-Length: 5", ": xchunked", ": gzip, chunked", ": chunked,", ": \x0bchunked",
                    " : chunked", ":\r\n chunked", ': "chunked"', ": chunked\r\nTransfer-Encoding: identity")),
                *((400, f"{begin}{chunks}{chunk}") for chunk in (
                    "+3\r\nabc\r\n", "0x3\r\nabc\r\n", "3\nabc\n", "10000000000000000\r\n", "3\r\nabcd\r\n")),
                (413, f"{begin}{chunks}" + "8000\r\n" + "x" * 0x8000 + "\r\n8001\r\n" + "x" * 0x8001),
                *((400, f"{begin}{field}{end}") for field in ("a: b\rc: d", "a: b\0c", "a: b\nc: d", ": a", "a",
                                                              "a\t: b", "Host: x")),
                (400, "GET /healthz HTTP/1.1" + end), (400, "GET /healthz HTTP/1.1\nHost: x\n\n"),
                (400, "GET /healthz x HTTP/1.1\r\nHost: x" + end), (431, begin + "a: b\r\n" * 800)):
            with self.subTest(text[:99]):
                answer = self.say(text + behind)
                self.assertTrue(answer.startswith(b"HTTP/1.1 %d " % status), answer)
                self.assertEqual(answer.count(b"HTTP/1.1 "), 1)

    def test_what_waits_is_answered_in_order(self):
        texts = [f"{('GET', 'HEAD')[i % 2]} /{('healthz', 'nothing', 'page.css')[i % 3]} HTTP/1.1\r\nHost: x\r\n"
                 for i in range(100)]
        answers = self.say("\r\n".join(texts) + "Connection: close\r\n\r\n")
        statuses = re.findall(rb"^(?:ok\n|404 Not Found\n|.*\}\n)?HTTP/1.1 (\d+) ", answers, re.MULTILINE)
        self.assertEqual(statuses, [(b"200", b"404", b"200")[i % 3] for i in range(100)])

    def test_head_is_get_without_the_body(self):
        for target in ("/", "/page.js", "/status.json", "/metrics", "/healthz", "/jpeg.jpg", "/jpeg.mjpeg", "/nothing"):
            with self.subTest(target):
                head = self.say(f"HEAD {target} HTTP/1.0\r\n\r\n").splitlines()
                with self.connect() as peer:
                    peer.sendall(f"GET {target} HTTP/1.0\r\n\r\n".encode())
                    full = list(iter(peer.makefile("rb").readline, b"\r\n"))
                names = [[line.split(b":")[0].strip() for line in each] for each in (head, full)]
                self.assertEqual(names[0], [*names[1], b""])

    def test_pictures_come_after_the_last_request(self):
        """Who has said all gets them as long as they are taken."""
        self.state_with_viewers(0)
        with self.connect() as peer, peer.makefile("rb") as film:
            peer.sendall(b"GET /jpeg.mjpeg HTTP/1.1\r\nHost: x\r\n\r\n")
            peer.shutdown(socket.SHUT_WR)
            for _ in range(3):
                while film.readline() != b"--picture\r\n":
                    pass
            self.state_with_viewers(1)
        self.state_with_viewers(0)

    def test_the_state_for_programs(self):
        self.state_with_viewers(0)
        with subprocess.Popen(["curl", "-s", self.camera.web + "jpeg.mjpeg"], stdout=subprocess.PIPE) as viewer:
            viewer.stdout.read(50_000)
            state = self.state_with_viewers(1)
            text = self.get("/metrics")[1].decode()
            viewer.kill()
        self.assertEqual([each["viewers"] for each in state["services"]], [0, 1])
        self.assertGreater(state["services"][1]["frames"], 2)
        self.assertEqual([each["name"] for each in state["streams"]], ["live", "jpeg"])
        self.assertIn(self.camera.url(), state["streams"][0]["addresses"])
        for line in text.splitlines():
            self.assertRegex(line, r'^# (HELP|TYPE) \w+ .+$|^\w+\{\w+="[^"]*"\} \d+$')
        self.assertRegex(text, re.compile(r'^inet_viewers\{service="http"\} 1$', re.MULTILINE))

    def test_others_are_served_while_hundreds_say_half_of_something(self):
        halves = (b"", b"GET / HTTP/1.1\r\nX: ", b"GET /metrics HTTP/1.1\r\nHost: x\r\nContent-Length: 9\r\n\r\nx",
                  b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
        for i in range(500):
            self.connect().sendall(halves[i % len(halves)])
        self.assertEqual(self.get("/healthz")[1], b"ok\n")
        self.assertGreater(len(picture_hashes("-f", "mpjpeg", "-t", "0.2", "-i", self.camera.web + "jpeg.mjpeg")), 3)


class Names(WebCase):
    arguments = (*WebCase.arguments, "--on-demand", "--source", b'a" \xff=rtsp://127.0.0.1:1/x')

    def test_any_name_of_a_stream_can_be_told(self):
        stream = json.loads(self.get("/status.json")[1])["streams"][0]
        self.assertEqual(stream["name"], 'a" \ufffd')
        self.assertTrue(stream["addresses"][0].endswith("/a%22%20%FF"))
        self.assertIn('{stream="a\\" \ufffd"} 0\n', self.get("/metrics")[1].decode())


class WebAccess(WebCase):
    arguments = (*WebCase.arguments, "--user", "admin", "--password", "right")

    def test_all_but_the_health_is_behind_the_gate(self):
        for target, status in (("/healthz", 200), ("/", 401), ("/jpeg.mjpeg", 401), ("/nothing", 401)):
            self.assertEqual(self.get(target)[0].status, status)
        for password, status in (("right", b"200"), ("wrong", b"401")):
            self.assertEqual(run("curl", "-s", "-o", "/dev/null", "-w", "%{http_code}", "--digest", "-u",
                                 "admin:" + password, self.camera.web + "status.json"), status)
        curl = "curl", "-s", "--digest", "-u", "admin:right", self.camera.web
        for way, status in (("-I", b"200"), ("-r1-1", b"206")):
            self.assertEqual(run(*curl, way, "-o", "/dev/null", "-w", "%{http_code}"), status)
        self.takes(*curl[:-1], self.camera.web + "jpeg.mjpeg")

    def takes(self, *program):
        """A program that passes on what it gets without an end."""
        with subprocess.Popen(program, stdout=subprocess.PIPE) as viewer:
            self.assertEqual(len(viewer.stdout.read(50_000)), 50_000)
            viewer.kill()

    def test_players_are_let_in_with_the_password(self):
        web, film = urlsplit(self.camera.web).netloc, "jpeg.mjpeg"
        user = ("user-id=admin", "user-pw=right")
        seen = picture_hashes("-f", "mpjpeg", "-t", "0.2", "-i", f"http://admin:right@{web}/{film}")
        self.assertGreater(len(seen), 3)
        for source in (("souphttpsrc", *user, f"location=http://{web}/{film}"),
                       ("rtspsrc", *user, f"location=rtsph://{web}/live")):
            self.takes("gst-launch-1.0", "-q", *source, "!", "fdsink")
        tunnel = "-rtsp_transport", "http", "-t", "1", "-i"
        self.assertGreater(len(picture_hashes(*tunnel, f"rtsp://admin:right@{web}/live")), 20)
        with self.assertRaisesRegex(Failed, "401"):
            picture_hashes(*tunnel, f"rtsp://admin:wrong@{web}/live")


class Sources(WebCase):
    arguments = WebAccess.arguments

    def serve(self, program, *arguments, **options):
        """Has a program serve MJPEG at the address that stands for "URL" in its arguments."""
        with socket.create_server(("127.0.0.1", 0)) as probe:
            address = probe.getsockname()
        place = f"127.0.0.1:{address[1]}/x.mjpg"
        process = subprocess.Popen([program, *(each.replace("URL", place) for each in arguments)],
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process, "http://" + place, address

    def vlc(self):
        """VLC, which does not run as root. It calls this stream "application/octet-stream"."""
        folder = self.enterContext(tempfile.TemporaryDirectory())
        os.chmod(folder, 0o755)
        film = os.path.join(folder, "film.mkv")
        ffmpeg("-framerate", "5", "-i", clip_file("clip_%02d.jpg"), "-c", "copy", film)
        _, url, address = self.serve("cvlc", "-I", "dummy", "--repeat", film, "--sout-keep", "--sout",
                                     "#standard{access=http,mux=mpjpeg,dst=URL}", env={**os.environ, "HOME": folder},
                                     user=None if os.geteuid() else 65534)
        deadline = time.monotonic() + 60
        while True:
            try:
                socket.create_connection(address, 1).close()
                return url
            except OSError:
                self.assertLess(time.monotonic(), deadline, "VLC does not serve")
                time.sleep(0.05)

    def test_pictures_that_are_fetched_over_http_go_out_over_rtsp(self):
        vlc = self.vlc()
        peer, theirs, _ = self.serve(*FFMPEG, "-re", "-stream_loop", "-1", "-framerate", "5", "-i",
                                     clip_file("clip_%02d.jpg"), "-c", "copy", "-content_type",
                                     "multipart/x-mixed-replace;boundary=ffmpeg", "-f", "mpjpeg", "-listen", "1",
                                     "http://URL")
        ours = self.camera.web.replace("//", "//admin:right@") + "jpeg.mjpeg"
        clip = picture_hashes("-i", clip_file("clip_%02d.jpg"))
        with Camera("--source", "ours=" + ours, "--source", "theirs=" + theirs, "--source", "vlc=" + vlc) as relay:
            for name in ("ours", "theirs", "vlc"):
                seen = picture_hashes("-rtsp_transport", "tcp", "-t", "3", "-i", relay.url(name))
                self.assertGreater(len(seen), 10)
                if name == "vlc":  # leaves out the last picture before it begins again
                    self.assertLessEqual(set(seen), set(clip))
                else:
                    self.assertIsNotNone(position_in_loop(seen, clip))
            peer.kill()
            self.stop_complaints(relay)

    def stop_complaints(self, relay):
        """The one that was killed is missed."""
        while "theirs: 127.0.0.1 closed" not in relay.told():  # it may have been missed at the beginning, too
            time.sleep(0.05)
