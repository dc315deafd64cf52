#!/usr/bin/env python3
"""Processor seconds that inet-camera takes for each GB served: bench/serve_cost.py [VIEWERS] [SECONDS].

Starts the camera (INET_CAMERA, or the release build) on a 4 Mbit/s stream made by ffmpeg, lets that many viewers read
it over TCP, then over UDP, and counts the bytes that reach them."""
import os
import resource
import selectors
import socket
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "interop"))
os.environ.setdefault("INET_CAMERA", os.path.join(HERE, "..", "build", "release", "apps", "inet-camera"))
from peers import Camera, ffmpeg  # noqa: E402
from player import Player  # noqa: E402

WARM_UP = 3  # seconds: the burst of the first pictures is over


def make_stream(path):
    ffmpeg("-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=25,noise=alls=12:allf=t", "-t", "8", "-c:v", "libx264",
           "-preset", "ultrafast", "-g", "50", "-bf", "0", "-b:v", "4M", "-maxrate", "4M", "-bufsize", "4M", path)


def cpu_seconds(pid):
    fields = open(f"/proc/{pid}/stat").read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Viewer:
    """A player whose media comes on `sockets`."""

    def __init__(self, url, transport):
        self.player = Player(url)
        self.sockets = []
        if transport == "udp":
            self.sockets = self.port_pair()
            port = self.sockets[0].getsockname()[1]
            self.player.set_up(transport=f"RTP/AVP;unicast;client_port={port}-{port + 1}")
        else:
            self.player.set_up()
        self.player.request("PLAY")
        self.sockets.append(self.player.socket)
        for each in self.sockets:
            each.setblocking(False)

    @staticmethod
    def port_pair():
        while True:
            pair = [socket.socket(type=socket.SOCK_DGRAM) for _ in range(2)]
            try:
                pair[0].bind(("127.0.0.1", 0))
                port = pair[0].getsockname()[1]
                pair[1].bind(("127.0.0.1", port + 1))
            except OSError:
                port = 1
            if port % 2 == 0:
                pair[0].setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
                return pair
            for each in pair:
                each.close()


def read_for(selector, seconds):
    """Bytes that came."""
    count = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        for key, _ in selector.select(0.1):
            try:
                while data := key.fileobj.recv(1 << 18):
                    count += len(data)
            except BlockingIOError:
                pass
    return count


def measure(transport, stream, viewers, seconds):
    with Camera("--video", stream) as camera, selectors.DefaultSelector() as selector:
        playing = []
        for _ in range(viewers):
            playing.append(Viewer(camera.url("live"), transport))
            for each in playing[-1].sockets:
                selector.register(each, selectors.EVENT_READ)
            read_for(selector, 0)
        read_for(selector, WARM_UP)
        before = cpu_seconds(camera.process.pid)
        received = read_for(selector, seconds)
        cost = cpu_seconds(camera.process.pid) - before
        for viewer in playing:
            for each in viewer.sockets:
                each.close()
    print(f"{transport}: {viewers} viewers, {received * 8 / seconds / viewers / 1e6:.2f} Mbit/s each, "
          f"{cost:.2f} CPU s in {seconds} s, {cost / received * 1e9:.3f} CPU s per GB", flush=True)


def main():
    viewers = int(sys.argv[1]) if len(sys.argv) > 1 else 50
    seconds = int(sys.argv[2]) if len(sys.argv) > 2 else 15
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with tempfile.TemporaryDirectory() as directory:
        stream = os.path.join(directory, "4mbit.h264")
        make_stream(stream)
        for transport in ("tcp", "udp"):
            measure(transport, stream, viewers, seconds)


if __name__ == "__main__":
    main()
