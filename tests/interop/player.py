"""A bare RTSP player: what a test needs to see of a conversation that finished players hide."""
import re
import socket
import struct
from urllib.parse import urlsplit

IDR, FU_A = 5, 28
INTERLEAVED = "RTP/AVP/TCP;unicast;interleaved={0}-{1}"


def rtp_timestamp(packet):
    return struct.unpack_from(">I", packet, 4)[0]


def nal_type(packet):
    return packet[13] & 31 if packet[12] & 31 == FU_A else packet[12] & 31


class Player:
    """One RTSP conversation over TCP. `receive_buffer` bounds what the system takes in while nothing is read."""

    def __init__(self, url, receive_buffer=0, source=""):
        self.url = url
        self.address = urlsplit(url).hostname, urlsplit(url).port
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(10)
        self.socket.bind((source, 0))
        self.socket.connect(self.address)
        self.received = self.socket.makefile("rb")
        self.cseq = 0
        self.session = {}
        self.ahead = None  # the first packet of the next picture

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.received.close()
        self.socket.close()

    def take(self, size):
        data = self.received.read(size)
        if len(data) < size:
            raise EOFError
        return data

    def write(self, data):
        self.socket.sendall(data)

    def head(self):
        """Up to the next empty line, which is left out."""
        return b"\r\n".join(iter(lambda: self.received.readline().strip(), b"")).decode()

    def request(self, method, uri=None, **fields):
        """The answer, which must be 200; packets that come before it are in `passed`."""
        self.cseq += 1
        fields = {"CSeq": self.cseq, **self.session, **fields}
        lines = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        self.write(f"{method} {uri or self.url} RTSP/1.0\r\n{lines}\r\n".encode())
        self.passed = []
        while self.received.peek(1)[:1] == b"$":
            self.passed.append(self.packet())
        answer = self.head()
        assert answer.startswith("RTSP/1.0 200"), answer
        length = re.search(r"Content-Length: (\d+)", answer)
        self.take(int(length.group(1)) if length else 0)
        return answer

    def set_up(self, media=("video",), transport=INTERLEAVED):
        """DESCRIBE and SETUP: the answers to the SETUPs. The n-th medium travels on channels 2n and 2n + 1."""
        self.request("DESCRIBE", Accept="application/sdp")
        self.granted = []
        for number, medium in enumerate(media):
            value = transport.format(2 * number, 2 * number + 1)
            self.granted.append(self.request("SETUP", f"{self.url}/{medium}", Transport=value))
            self.session = {"Session": re.search(r"Session: (\w+)", self.granted[-1]).group(1)}

    def play(self, *streams):
        self.set_up(*streams)
        return self.request("PLAY")

    def packet(self):
        """The next interleaved packet: (channel, bytes)."""
        mark, channel, length = struct.unpack(">cBH", self.take(4))
        assert mark == b"$", mark
        return channel, self.take(length)

    def video(self):
        """The next packet of the first track."""
        return next(packet for channel, packet in iter(self.packet, None) if channel == 0)

    def pictures(self, count):
        """The packets of each of the next pictures."""
        pictures = [[self.ahead or self.video()]]
        while len(pictures) <= count:
            packet = self.video()
            if rtp_timestamp(packet) != rtp_timestamp(pictures[-1][0]):
                pictures.append([])
            pictures[-1].append(packet)
        self.ahead = pictures.pop()[0]
        return pictures

    def key_picture(self):
        while IDR not in map(nal_type, self.pictures(1)[0]):
            pass
