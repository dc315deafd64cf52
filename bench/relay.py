"""The tables of bench/relay."""
import argparse
import contextlib
import select
import socket
import statistics
import struct
import time
from types import SimpleNamespace

from servers import FPS, Ours, clip_4m, load
from peers import Camera, at_once
from player import Player

SO_TIMESTAMPNS = 35  # the socket module does not name it
CAMERAS, VIEWERS = 20, 5
WARM_UP = 3  # seconds: 32 pictures show where the sender's pictures end


class Watcher(Player):
    """A viewer over UDP. The system notes when each packet came, so that a late reader changes nothing."""

    def __init__(self, url):
        super().__init__(url)
        self.media = socket.socket(type=socket.SOCK_DGRAM)
        self.media.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.media.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.media.bind(("127.0.0.1", 0))
        self.arrivals = {}  # of the last packet of each picture, by its bytes: no two of the clip are alike
        port = self.media.getsockname()[1]
        self.play(("video",), f"RTP/AVP;unicast;client_port={port}-{port}")

    def __exit__(self, *error):
        super().__exit__(*error)
        self.media.close()

    def read(self):
        while select.select([self.media], [], [], 0)[0]:
            packet, ((_, _, stamp),), _, _ = self.media.recvmsg(2000, 64)
            seconds, nanoseconds = struct.unpack("qq", stamp)
            if packet[1] & 128 and len(packet) > 100:
                self.arrivals[packet[12:]] = seconds + nanoseconds / 1e9


def added(transport, seconds):
    """By how much later the pictures come from a camera that fetches than from the one that it fetches, in ms."""
    with contextlib.ExitStack() as opened:
        first = opened.enter_context(Ours(clip_4m()))
        second = opened.enter_context(Camera("--source", f"live={first.address}", "--transport", transport))
        watchers = [opened.enter_context(Watcher(url)) for url in (first.address, second.url())]
        begin = time.time()
        while time.time() < begin + WARM_UP + seconds:
            for each in watchers:
                each.read()
            time.sleep(0.02)
        direct, fetched = (each.arrivals for each in watchers)
        return [1000 * (fetched[picture] - at) for picture, at in direct.items()
                if at > begin + WARM_UP and picture in fetched]


def processor_seconds(process):
    with open(f"/proc/{process.pid}/stat", encoding="ascii") as file:
        return sum(map(int, file.read().rsplit(")", 1)[1].split()[11:13])) / 100


def carry(transport, seconds):
    """What viewers of many fetched cameras got, over all of them, and the cores that the fetching camera took."""
    names = [f"c{number}" for number in range(CAMERAS)]
    with Ours(clip_4m()) as first:
        sources = [part for name in names for part in ("--source", f"{name}={first.address}")]
        with Camera(*sources, "--transport", transport) as second:
            servers = [SimpleNamespace(address=second.url(name), process=second.process) for name in names]
            before, begin = processor_seconds(second.process), time.time()
            results = at_once(lambda server: load(server, VIEWERS, "tcp", seconds), servers)
            cores = (processor_seconds(second.process) - before) / (time.time() - begin)
    return {name: [each[name] for each in results] for name in results[0]}, cores


def main():
    parser = argparse.ArgumentParser(prog="bench/relay", description=__doc__)
    # Shorter than the clip, of which no picture comes twice.
    parser.add_argument("--seconds", type=int, default=4, choices=range(1, 5))
    options = parser.parse_args()
    print(f"Added to the way of a picture, 4 Mbit/s, {FPS} pictures a second:\n\n"
          "| Fetched over | Pictures | Median, ms | 99 of 100 below, ms |\n|---|---|---|---|")
    for transport in ("tcp", "udp"):
        delays = added(transport, options.seconds)
        worst = statistics.quantiles(delays, n=100, method="inclusive")[98]
        print(f"| {transport} | {len(delays)} | {statistics.median(delays):.2f} | {worst:.2f} |", flush=True)
    print(f"\n{CAMERAS} fetched cameras of 4 Mbit/s with {VIEWERS} viewers each, over tcp:\n\n"
          "| Fetched over | Viewers | Played | Packets lost | Pictures missing | Delay p50, ms | Delay p99, ms | "
          "Fetching camera, cores |\n|---|---|---|---|---|---|---|---|")
    for transport in ("tcp", "udp"):
        counts, cores = carry(transport, 4 * options.seconds)
        total = {name: sum(values) for name, values in counts.items()}
        print(f"| {transport} | {CAMERAS * VIEWERS} | {total['playing']:.0f} | {total['lost']:.0f} | {total['missing']:.0f} "
              f"| {statistics.median(counts['delay_p50_ms']):.1f} | {max(counts['delay_p99_ms']):.1f} | {cores:.2f} |",
              flush=True)


main()
