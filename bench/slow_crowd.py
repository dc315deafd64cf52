"""The figures of bench/slow-crowd."""
import argparse
import contextlib
import os
import select
import socket
import statistics
import struct
import time

from servers import Camera
from idle_test import ROOM, turned_away
from player import Player, rtp_timestamp

SO_TIMESTAMPNS = 35  # the socket module does not name it
H264 = 96
SLOW = 511  # who asks for nothing gives way to those that come when a thread has no more room
BATCHES = 7  # a second, in which the crowd sends: one by one burdens the machine; no divisor of the pictures a second
BURST = 2  # seconds until a new viewer has come up to the present
REQUEST = b"OPTIONS * RTSP/1.0"
STALL = 0.1  # seconds


class Watcher(Player):
    """A good viewer over UDP. The system notes when each packet came, so that a late reader changes nothing."""

    def __init__(self, camera):
        super().__init__(camera.url())
        self.media = socket.socket(type=socket.SOCK_DGRAM)
        self.media.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
        self.media.bind(("127.0.0.1", 0))
        self.arrivals = {}
        port = self.media.getsockname()[1]
        self.play(("video",), f"RTP/AVP;unicast;client_port={port}-{port}")

    def __exit__(self, *error):
        super().__exit__(*error)
        self.media.close()

    def read(self):
        while select.select([self.media], [], [], 0)[0]:
            packet, ((_, _, stamp),), _, _ = self.media.recvmsg(2000, 64)
            if packet[1] & 127 == H264:
                seconds, nanoseconds = struct.unpack("qq", stamp)
                self.arrivals.setdefault(rtp_timestamp(packet), seconds + nanoseconds / 1e9)

    def delays(self, begin):
        """When each picture since `begin` came, and by how much later than at even intervals."""
        arrivals = [(stamp, at) for stamp, at in self.arrivals.items() if at >= begin]
        offsets = [at - (stamp - arrivals[0][0]) % 2**32 / 90000 for stamp, at in arrivals]
        return [(at, offset - min(offsets)) for (_, at), offset in zip(arrivals, offsets)]


def delays(quiet, crowded, seconds):
    """Delay of the pictures of both cameras in the same seconds, during which a crowd sends to one of them."""
    with contextlib.ExitStack() as opened:
        watchers = [opened.enter_context(Watcher(camera)) for camera in (quiet, crowded)]
        crowd = [opened.enter_context(socket.create_connection(watchers[1].address)) for _ in range(SLOW)]
        driven_out = turned_away(crowd, SLOW + 1 - ROOM)
        crowd = [each for each in crowd if each not in driven_out]
        begin = time.time()
        for batch in range(BATCHES * (BURST + seconds)):
            for each in crowd[batch % BATCHES::BATCHES]:
                each.send(REQUEST[batch // BATCHES:][:1])
            for watcher in watchers:
                watcher.read()
            time.sleep(max(0, begin + (batch + 1) / BATCHES - time.time()))
        assert not select.select(crowd, [], [], 0)[0], "some of the crowd have been driven out"
        return [watcher.delays(begin + BURST) for watcher in watchers]


def most(values, percent):
    """What so many of them do not exceed, in milliseconds."""
    return statistics.quantiles(values, n=100, method="inclusive")[percent - 1] * 1000


def main():
    parser = argparse.ArgumentParser(prog="bench/slow-crowd", description=__doc__)
    parser.add_argument("--seconds", type=int, default=6, choices=range(1, 8))  # a first request is awaited for ten
    options = parser.parse_args()
    # Where it may be asked, what else runs on the machine waits for this process and the cameras that it starts.
    with contextlib.suppress(PermissionError):
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
    with Camera() as quiet, Camera() as crowded:
        alone, beside = delays(quiet, crowded, options.seconds)
    # What stalls the machine delays the pictures of both cameras at that time and is not the crowd's.
    added = [delay - max((other for time, other in alone if abs(time - at) < STALL), default=0) for at, delay in beside]
    alone, beside = ([delay for _, delay in each] for each in (alone, beside))
    print(f"delay, 99 of 100 below: alone {most(alone, 99):.1f} ms, in a crowd {most(beside, 99):.1f} ms, of which it adds "
          f"{most(added, 99):.1f} ms")


main()
