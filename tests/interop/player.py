"""A bare RTSP player: what a test needs to see of a conversation that finished players hide."""
import re
import socket
import struct
import time
from urllib.parse import urlsplit

IDR, FU_A = 5, 28


class Player:
    """One RTSP conversation over TCP. `receive_buffer` bounds what the system takes in while nothing is read."""

    def __init__(self, url, receive_buffer=0):
        self.url = url
        address = urlsplit(url)
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(10)
        self.socket.connect((address.hostname, address.port))
        self.received = b""
        self.cseq = 0
        self.session = None

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.socket.close()

    def take(self, size):
        while len(self.received) < size:
            data = self.socket.recv(65536)
            if not data:
                raise EOFError
            self.received += data
        taken, self.received = self.received[:size], self.received[size:]
        return taken

    def send(self, method, uri=None, **fields):
        self.cseq += 1
        if self.session:
            fields["Session"] = self.session
        lines = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        self.socket.sendall(f"{method} {uri or self.url} RTSP/1.0\r\nCSeq: {self.cseq}\r\n{lines}\r\n".encode())

    def answer(self):
        """The next answer, whose text is returned; packets that come before it are dropped."""
        while self.take(1) == b"$":
            self.take(struct.unpack(">xH", self.take(3))[0])
        head = b"R"
        while not head.endswith(b"\r\n\r\n"):
            head += self.take(1)
        text = head.decode()
        length = re.search(r"Content-Length: (\d+)", text)
        return text + (self.take(int(length.group(1))).decode() if length else "")

    def request(self, method, uri=None, **fields):
        self.send(method, uri, **fields)
        answer = self.answer()
        assert answer.startswith("RTSP/1.0 200"), answer
        return answer

    def set_up(self, media=("video",), transport="RTP/AVP/TCP;unicast;interleaved={0}-{1}"):
        """DESCRIBE and SETUP: the answers to the SETUPs. The n-th medium travels on channels 2n and 2n + 1."""
        self.request("DESCRIBE", Accept="application/sdp")
        answers = []
        for number, medium in enumerate(media):
            value = transport.format(2 * number, 2 * number + 1)
            answers.append(self.request("SETUP", f"{self.url}/{medium}", Transport=value))
            self.session = re.search(r"Session: (\w+)", answers[-1]).group(1)
        return answers

    def packet(self):
        """The next interleaved packet: (channel, bytes)."""
        mark, channel, length = struct.unpack(">cBH", self.take(4))
        assert mark == b"$", mark
        return channel, self.take(length)

    def first_key_picture(self):
        """Reads up to the end of a key picture's first slice: how many packets that took."""
        count = 0
        while True:
            channel, packet = self.packet()
            count += 1
            nal_type = packet[12] & 31 if channel == 0 else 0
            if packet[1] & 0x80 and (packet[13] & 31 if nal_type == FU_A else nal_type) == IDR:
                return count


def time_to_picture(url):
    """Seconds from PLAY to a whole key picture."""
    with Player(url) as player:
        player.set_up()
        start = time.monotonic()
        player.request("PLAY")
        player.first_key_picture()
        return time.monotonic() - start


def rtp_timestamp(packet):
    return struct.unpack_from(">I", packet, 4)[0]
