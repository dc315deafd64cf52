"""A relay between a camera and its viewers that loses and reorders UDP packets, and a server that follows a script."""
import contextlib
import random
import re
import select
import socket
import socketserver
import struct
import subprocess
import threading
from urllib.parse import urlsplit

SPARED = 60  # packets before the first loss, so that there is something to see in every run
SDP = ("v=0\r\no=- 0 0 IN IP4 0.0.0.0\r\ns=x\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
       "a=control:video\r\n")


class LocalServer(socketserver.ThreadingTCPServer):
    """On a free port, each connection on a thread of its own, where talk() has it."""

    def __init__(self):
        super().__init__(("127.0.0.1", 0), None)
        self.url = f"rtsp://127.0.0.1:{self.server_address[1]}/live"

    def __enter__(self):
        threading.Thread(target=self.serve_forever, args=(0.05,)).start()
        return self

    def __exit__(self, *error):
        self.shutdown()
        self.server_close()

    def finish_request(self, request, _):
        with contextlib.suppress(OSError):  # the client has gone
            self.talk(request)


def udp_pair():
    """Sockets on a port and on the next one."""
    while True:
        pair = [socket.socket(type=socket.SOCK_DGRAM) for _ in range(2)]
        for each in pair:
            each.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        try:
            pair[0].bind(("127.0.0.1", 0))
            pair[1].bind(("127.0.0.1", pair[0].getsockname()[1] + 1))
            return pair
        except (OSError, OverflowError):
            for each in pair:
                each.close()


class Relay(LocalServer):
    """Stands before a camera. RTSP goes through, but a SETUP for UDP names ports of the relay, which loses a share of
    the packets that come there and sends some behind the next few."""

    def __init__(self, url, loss, reorder=0.0):
        super().__init__()
        self.camera = urlsplit(url).port
        self.loss, self.reorder = loss, reorder
        self.random = random.Random(7)
        self.tracks = []  # of each, in the order of SETUP, whether every packet is lost
        self.moved = 0

    def talk(self, client):
        with contextlib.ExitStack() as opened:
            def redirect(ports):
                media, reports = map(opened.enter_context, udp_pair())
                to = [("127.0.0.1", int(port)) for port in ports.groups()]
                lost, held = [], []
                self.tracks.append(lost)
                calls[media] = lambda data: self.pass_media(data, lost, held, lambda each: media.sendto(each, to[0]))
                calls[reports] = lambda data: self.loss < 1 and reports.sendto(data, to[1])
                return b"client_port=%d-%d" % (media.getsockname()[1], reports.getsockname()[1])

            camera = opened.enter_context(socket.create_connection(("127.0.0.1", self.camera)))
            calls = {client: lambda data: camera.sendall(re.sub(rb"client_port=(\d+)-(\d+)", redirect, data)),
                     camera: client.sendall}
            data = True
            while data:
                for ready in select.select([*calls], [], [])[0]:
                    data = ready.recv(65536)
                    calls[ready](data)

    def pass_media(self, data, lost, held, send):
        spared = self.loss < 1 and len(lost) < SPARED
        lost.append(not spared and self.random.random() < self.loss)
        if lost[-1]:
            return
        held.append(data)
        # What is moved waits for some of the next, and all go at once: the client need not wait.
        if len(held) < 5 and self.random.random() < (self.reorder if len(held) == 1 else 0.5):
            return
        self.moved += len(held) > 1
        for each in held[1:] + held[:1]:
            send(each)
        held.clear()


class Server(LocalServer):
    """Answers every request with what `answers` has for its method: bytes sent as they are, a status, None for silence;
    200 and a reasonable content where it has nothing."""

    def __init__(self, **answers):
        super().__init__()
        self.answers = answers
        self.methods = []  # of the requests, as they came

    def talk(self, client):
        with client.makefile("rb") as requests:
            while mark := requests.read(1):
                if mark == b"$":  # a report
                    requests.read(int.from_bytes(requests.read(3)[1:], "big"))
                    continue
                lines = [mark + requests.readline(), *iter(lambda: requests.readline().strip(), b"")]
                answer = self.answer(b"\r\n".join(lines).decode())
                client.sendall(answer)
                if answer.endswith(b"close"):
                    return

    def answer(self, request):
        method = request.split()[0]
        self.methods.append(method)
        answer = self.answers.get(method, 200)
        if not isinstance(answer, int):
            return answer or b""
        content = SDP if method == "DESCRIBE" else ""
        fields = [f"RTSP/1.0 {answer} X", re.search(r"CSeq: *\d+", request, re.IGNORECASE).group(0),
                  "Public: GET_PARAMETER", "Session: 1;timeout=1", f"Content-Length: {len(content)}"]
        if method == "SETUP":
            fields.append("Transport: RTP/AVP/TCP;unicast;interleaved=0-1")
        return ("\r\n".join(fields) + "\r\n\r\n" + content).encode()


class Sender(Server):
    """ffmpeg sends a file to each client, from its beginning and at its pace; what it sends goes over the client's
    connection. `tracks` has the lines of each in the description, and what ffmpeg is told of it."""

    def __init__(self, path, *tracks):
        super().__init__()
        self.path, self.tracks = path, tracks

    def answer(self, request):
        if request.startswith("DESCRIBE"):
            media = "".join(f"{lines}a=control:{number}\r\n" for number, (lines, _) in enumerate(self.tracks))
            content = "v=0\r\no=- 0 0 IN IP4 0.0.0.0\r\ns=x\r\nt=0 0\r\n" + media
            head = f"RTSP/1.0 200 X\r\nCSeq: 2\r\nContent-Length: {len(content)}\r\n\r\n"
            self.answers["DESCRIBE"] = (head + content).encode()
        if request.startswith("SETUP"):
            granted = re.search(r"CSeq: *\d+", request).group(0) + "\r\n" + re.search(r"Transport:.*", request).group(0)
            self.answers["SETUP"] = f"RTSP/1.0 200 X\r\nSession: 1\r\n{granted}\r\n\r\n".encode()
        if request.startswith("PLAY"):
            self.playing.set()
        return super().answer(request)

    def talk(self, client):
        self.playing = threading.Event()
        sender = threading.Thread(target=self.send, args=(client, self.playing))
        sender.start()
        try:
            super().talk(client)
        finally:
            self.over = True
            self.playing.set()
            sender.join()

    def send(self, client, playing):
        self.over = False
        playing.wait()
        pairs = [udp_pair() for _ in self.tracks]
        outputs = []
        for (_, arguments), pair in zip(self.tracks, pairs):
            outputs += [*arguments, "-f", "rtp", f"rtp://127.0.0.1:{pair[0].getsockname()[1]}?pkt_size=1400"]
        channels = {each: channel for channel, each in enumerate(sum(pairs, []))}
        command = ["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-i", self.path, *outputs]
        with subprocess.Popen(command, stdout=subprocess.DEVNULL) as process, contextlib.suppress(OSError):
            while not self.over:
                for each in select.select([*channels], [], [], 0.1)[0]:
                    packet = each.recv(65536)
                    client.sendall(struct.pack(">cBH", b"$", channels[each], len(packet)) + packet)
            process.terminate()
        process.wait()
        for each in channels:
            each.close()
