"""A relay between a camera and its viewers that loses and reorders UDP packets, and a server that follows a script."""
import random
import re
import select
import socket
import threading

SPARED = 120  # packets before the first loss, so that there is something to see in every run


class Loop:
    """Sockets and what is called when one can be read, on a thread; all closed at the end."""

    def __init__(self):
        self.calls = {}
        self.stop_reader, self.stop_writer = socket.socketpair()
        self.thread = threading.Thread(target=self.run)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stop_writer.send(b"x")
        self.thread.join()
        for each in (self.stop_reader, self.stop_writer, *self.calls):
            each.close()

    def run(self):
        while True:
            for each in select.select([self.stop_reader, *self.calls], [], [])[0]:
                if each is self.stop_reader:
                    return
                if each in self.calls:
                    self.calls[each](each)

    def listen(self, accepted):
        listener = socket.create_server(("127.0.0.1", 0))
        self.calls[listener] = lambda ready: accepted(ready.accept()[0])
        return listener.getsockname()[1]

    def drop(self, *sockets):
        for each in sockets:
            if self.calls.pop(each, None):
                each.close()


class Relay(Loop):
    """Stands before a camera. RTSP goes through, but a SETUP for UDP names ports of the relay, which loses a share of
    the packets that come there and holds some of the first track's back behind the next few."""

    def __init__(self, url, loss, reorder=0.0):
        super().__init__()
        self.url = re.sub(r":\d+/", f":{self.listen(self.accept)}/", url)
        self.camera = int(re.search(r":(\d+)/", url).group(1))
        self.loss, self.reorder = loss, reorder
        self.random = random.Random(7)
        self.tracks = []  # of each, in the order of SETUP, [sequence number, lost?] of every packet
        self.moved = 0

    def accept(self, viewer):
        camera = socket.create_connection(("127.0.0.1", self.camera))
        self.calls[viewer] = lambda _: self.carry(viewer, camera, self.rewrite)
        self.calls[camera] = lambda _: self.carry(camera, viewer, lambda data: data)

    def carry(self, source, target, change):
        try:
            data = source.recv(65536)
            target.sendall(change(data))
        except OSError:
            data = b""
        if not data:
            self.drop(source, target)

    def rewrite(self, data):
        return re.sub(rb"client_port=(\d+)-(\d+)", lambda ports: self.open_ports(int(ports.group(1))), data)

    def open_ports(self, viewer_port):
        while True:
            pair = [socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2)]
            try:
                pair[0].bind(("127.0.0.1", 0))
                port = pair[0].getsockname()[1]
                pair[1].bind(("127.0.0.1", port + 1))
            except OSError:
                port = 1
            if port % 2 == 0:
                break
            for each in pair:
                each.close()
        packets, held = [], []
        self.tracks.append(packets)
        first = len(self.tracks) == 1
        self.calls[pair[0]] = lambda ready: self.pass_media(ready, viewer_port, packets, held, first)
        self.calls[pair[1]] = lambda ready: self.pass_report(ready, viewer_port + 1)
        return b"client_port=%d-%d" % (port, port + 1)

    def pass_report(self, ready, port):
        data = ready.recv(65536)
        if self.loss < 1:
            ready.sendto(data, ("127.0.0.1", port))

    def pass_media(self, ready, port, packets, held, may_move):
        data = ready.recv(65536)
        spared = self.loss < 1 and len(packets) < SPARED
        lost = not spared and self.random.random() < self.loss
        packets.append((int.from_bytes(data[2:4], "big"), lost))
        if lost:
            return
        if may_move and not held and self.random.random() < self.reorder:
            held.append([data, self.random.randint(1, 4)])
            self.moved += 1
            return
        ready.sendto(data, ("127.0.0.1", port))
        for each in list(held):
            each[1] -= 1
            if each[1] == 0:
                ready.sendto(each[0], ("127.0.0.1", port))
                held.remove(each)


SDP = ("v=0\r\no=- 0 0 IN IP4 0.0.0.0\r\ns=x\r\nt=0 0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
       "a=control:video\r\n")


class Server(Loop):
    """Answers every request with what `answers` has for its method: bytes sent as they are, a status, None for silence;
    200 and a reasonable content where it has nothing."""

    def __init__(self, **answers):
        super().__init__()
        self.answers = answers
        self.methods = []  # of the requests, as they came
        self.url = f"rtsp://127.0.0.1:{self.listen(self.accept)}/x"

    def accept(self, viewer):
        waiting = bytearray()
        self.calls[viewer] = lambda _: self.serve(viewer, waiting)

    def serve(self, viewer, waiting):
        try:
            data = viewer.recv(65536)
            waiting += data
            while waiting[:1] == b"$" or b"\r\n\r\n" in waiting:
                if waiting[:1] == b"$":  # a report
                    size = 4 + int.from_bytes(waiting[2:4], "big")
                    if len(waiting) < size:
                        break
                    del waiting[:size]
                    continue
                request, _, rest = bytes(waiting).partition(b"\r\n\r\n")
                waiting[:] = rest
                data = self.answer(viewer, request.decode()) and data
        except OSError:
            data = b""
        if not data:
            self.drop(viewer)

    def answer(self, viewer, request):
        """False when the connection is to be closed."""
        method = request.split()[0]
        self.methods.append(method)
        answer = self.answers.get(method, 200)
        if isinstance(answer, bytes):
            viewer.sendall(answer)
            return not answer.endswith(b"close")
        if answer is None:
            return True
        content = SDP if method == "DESCRIBE" else ""
        fields = [f"RTSP/1.0 {answer} X", re.search(r"CSeq: *\d+", request, re.IGNORECASE).group(0),
                  "Public: GET_PARAMETER", "Session: 1;timeout=1", f"Content-Length: {len(content)}"]
        if method == "SETUP":
            fields.append("Transport: RTP/AVP/TCP;unicast;interleaved=0-1")
        viewer.sendall(("\r\n".join(fields) + "\r\n\r\n" + content).encode())
        return True
