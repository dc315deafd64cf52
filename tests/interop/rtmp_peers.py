"""A player of RTMP that reads as slowly as is wanted, and the server of nginx."""
import os
import re
import socket
import struct
import subprocess
import tempfile
import time

VIDEO = 9
CHUNK_SIZE, COMMAND = 1, 20
CONFIGURATION = """
load_module /usr/lib/nginx/modules/ngx_rtmp_module.so;
{user} worker_processes 1; daemon off; pid {folder}/pid; error_log {folder}/error;
events {{ worker_connections 512; }}
rtmp {{ server {{ listen 127.0.0.1:{port}; {settings} application live {{ live on; }} }} }}
"""


def string(text):
    return b"\2" + struct.pack(">H", len(text)) + text


class RtmpPlayer:
    """One connection; play() begins the stream."""

    def __init__(self, url, receive_buffer=None):
        host, port, self.app, self.name = re.fullmatch(r"rtmp://([^:/]+):(\d+)/([^/]+)/?(.*)", url).groups()
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(20)
        self.socket.connect((host, int(port)))
        self.chunk_size, self.channels = 128, {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def read(self, size):
        data = b""
        while len(data) < size:
            more = self.socket.recv(size - len(data))
            if not more:
                raise EOFError
            data += more
        return data

    def send(self, data):
        self.socket.sendall(data)

    def play(self):
        self.send(b"\3" + bytes(1536))
        self.read(1 + 2 * 1536)
        self.send(bytes(1536))
        self.ask()

    def ask(self):
        self.command("connect", 0, b"\3\0\3app" + string(self.app.encode()) + b"\0\0\x09")
        self.command("createStream", 0, b"\5")
        self.command("play", 1, b"\5" + string(self.name.encode()))

    def command(self, name, stream, arguments):
        body = string(name.encode()) + b"\0" + bytes(8) + arguments
        head = b"\3\0\0\0" + len(body).to_bytes(3, "big") + bytes([COMMAND]) + struct.pack("<I", stream)
        self.send(head + b"\xc3".join(body[at:at + 128] for at in range(0, len(body), 128)))

    def message(self):
        """The next one: type, timestamp, body."""
        while True:
            first = self.read(1)[0]
            head = self.channels.setdefault(first & 63, {"body": b""})
            fields = self.read((11, 7, 3, 0)[first >> 6])
            if len(fields) >= 7:
                head["size"], head["type"] = int.from_bytes(fields[3:6], "big"), fields[6]
            if len(fields) >= 3:
                head["time"] = int.from_bytes(fields[:3], "big")
                head["extended"] = head["time"] == 0xffffff
            if head["extended"]:
                head["time"] = int.from_bytes(self.read(4), "big")
            head["body"] += self.read(min(self.chunk_size, head["size"] - len(head["body"])))
            if len(head["body"]) < head["size"]:
                continue
            body, head["body"] = head["body"], b""
            if head["type"] != CHUNK_SIZE:
                return head["type"], head["time"], body
            self.chunk_size = int.from_bytes(body, "big")

    def picture(self):
        """The next one: its time and whether it is a key."""
        while True:
            kind, stamp, body = self.message()
            if kind == VIDEO and body[1] == 1:
                return stamp, body[0] >> 4 == 1


class NginxRtmp:
    """nginx with its RTMP module, fed by ffmpeg with a file over and over."""

    def __init__(self, path, settings=""):
        self.folder = tempfile.TemporaryDirectory()
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        name = self.folder.name
        with open(f"{name}/nginx.conf", "w", encoding="ascii") as file:
            file.write(CONFIGURATION.format(folder=name, port=port, settings=settings,
                                            user="user root;" if os.name == "posix" and os.geteuid() == 0 else ""))
        self.process = subprocess.Popen(["nginx", "-p", name, "-c", f"{name}/nginx.conf", "-e", f"{name}/error"])
        self.address = f"rtmp://127.0.0.1:{port}/live/s"
        while not self.answers(port):
            assert self.process.poll() is None
            time.sleep(0.02)
        self.source = subprocess.Popen(["ffmpeg", "-nostdin", "-loglevel", "error", "-re", "-stream_loop", "-1", "-i",
                                        path, "-c", "copy", "-f", "flv", self.address])

    @staticmethod
    def answers(port):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", port)) == 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for each in self.source, self.process:
            each.terminate()
            each.wait()
        self.folder.cleanup()
