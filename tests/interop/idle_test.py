"""Connections that ask for nothing are closed, and give way to those that do; those that ask in any way are kept."""
import re
import select
import socket
import struct
import time

from peers import CameraCase, free_group
from player import Player

FIRST_REQUEST = 10  # seconds that the first one is awaited
ROOM = 500  # connections of a thread
REPORT = struct.pack(">BBHIIIIIII", 0x81, 201, 7, 1, 2, 0, 0, 0, 0, 0)


class Silence(CameraCase):
    def test_a_first_request_is_awaited_for_ten_seconds(self):
        start = time.monotonic()
        silent, half_open = (self.enterContext(Player(self.camera.url())) for _ in range(2))
        half_open.write(b"OPTIONS rtsp://x RTSP/1.0\r\nCSeq:")
        for player in (silent, half_open):
            player.socket.settimeout(60)
            self.assertEqual(player.socket.recv(1), b"")
            self.assertGreater(time.monotonic() - start, FIRST_REQUEST - 1)


class SignsOfLife(CameraCase):
    group = free_group()
    arguments = ("--timeout", "3", "--multicast", group)

    def test_requests_and_reports_keep_a_session_alive(self):
        reporter = self.enterContext(socket.socket(type=socket.SOCK_DGRAM))
        reporter.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton("127.0.0.1"))
        reporter.bind(("127.0.0.1", 0))
        asking, reporting = self.watch(), self.watch()
        over_udp = self.watch(("video",), f"RTP/AVP;unicast;client_port={reporter.getsockname()[1] - 1}-65535")
        server = "127.0.0.1", int(re.search(r"server_port=(\d+)", over_udp.granted[0]).group(1)) + 1
        in_group = self.watch(("video",), "RTP/AVP;multicast")
        group, port = self.group.split(":")
        silent = self.watch(("video",), "RTP/AVP;unicast;client_port=1-65535")
        while not select.select([silent.socket], [], [], 0.3)[0]:
            asking.request("GET_PARAMETER")
            reporting.write(b"$\x01" + struct.pack(">H", len(REPORT)) + REPORT)
            reporter.sendto(REPORT, server)
            reporter.sendto(REPORT, (group, int(port) + 1))
        self.assertEqual(silent.socket.recv(1), b"")
        kept = asking, reporting, over_udp, in_group
        for player in kept:
            player.request("GET_PARAMETER")
        for player in kept:
            with self.assertRaises((EOFError, ConnectionError), msg="without any it ends"):
                for _ in range(3000):
                    player.packet()
        self.assertIn("--timeout 3", self.camera.told())


def turned_away(waiting, least):
    """Who has been closed, once they are so many."""
    gone = set()
    while len(gone) < least:
        closed = select.select([each for each in waiting if each not in gone], [], [], FIRST_REQUEST / 2)[0]
        if not closed:
            break
        gone.update(closed)
    return gone


class Full(CameraCase):
    def test_the_oldest_that_asks_for_nothing_gives_way(self):
        watching = self.watch()
        idle = [self.enterContext(socket.create_connection(watching.address)) for _ in range(ROOM + 10)]
        self.assertEqual(turned_away(idle, 11), set(idle[:11]))
        self.watch().key_picture()
        self.assertEqual(turned_away(idle, 12), set(idle[:12]))
        watching.key_picture()
