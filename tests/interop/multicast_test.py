"""One stream for all, to a group. Camera and viewers live in two network namespaces joined by a cable, as two programs
of one host would fight over the group's port."""
import os
import re
import socket
import time
import unittest

from peers import FFMPEG, LIVE, Camera, CameraCase, free_group, has_namespaces, join_hosts, run
from player import Player


@unittest.skipUnless(has_namespaces(), "network namespaces need root")
class Multicast(CameraCase):
    @classmethod
    def start_camera(cls):
        join_hosts(cls, "10.81.7")
        return Camera("--bind", "10.81.7.1", "--multicast", "239.81.7.3", "--threads", "2", "--ttl", "3",
                      prefix=("ip", "netns", "exec", cls.near))

    def test_pictures_and_sound(self):
        for _ in range(2):  # the second viewer comes when the streams rest, on the other thread
            table = run("ip", "netns", "exec", self.far, *FFMPEG, "-rtsp_transport", "udp_multicast", "-t", "4", "-i",
                        self.camera.url(), *LIVE)
            self.check_live(table, 4)


    def test_hosts_that_vanish_keep_nobody_waiting(self):
        for number in (3, 4):
            run("ip", "-n", self.far, "address", "add", f"10.81.7.{number}/24", "dev", "end")
        camera = self.enterContext(Camera("--bind", "10.81.7.1", prefix=("ip", "netns", "exec", self.near)))
        script = os.path.join(os.path.dirname(__file__), "vanish.py")
        # The system keeps what goes to them for three seconds.
        self.assertLess(float(run("ip", "netns", "exec", self.far, "python3", script, camera.url(), self.near)), 2)


class Offer(CameraCase):
    group = free_group()
    arguments = ("--multicast", group, "--threads", "3")

    def test_one_stream_for_all_its_viewers(self):
        group, port = self.group.split(":")
        port = int(port)
        receiver = self.enterContext(socket.socket(type=socket.SOCK_DGRAM))
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        receiver.bind((group, port))
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        receiver.settimeout(10)
        players = [self.enterContext(Player(self.camera.url())) for _ in range(4)]
        for player in players:
            player.set_up(("video", "audio"), "RTP/AVP;multicast")
            for answer, first in zip(player.granted, (port, port + 2)):
                self.assertIn(f"Transport: RTP/AVP/UDP;multicast;destination={group};port={first}-{first + 1}",
                              answer.split("\r\n"))
        announced = int(re.search(r"seq=(\d+)", players[0].request("PLAY")).group(1))
        numbers = [receiver.recv(2000)[2:4]]
        for player in players[1:]:
            player.request("PLAY")
        numbers += [receiver.recv(2000)[2:4] for _ in range(200)]
        numbers = [int.from_bytes(number, "big") for number in numbers]
        self.assertEqual(numbers[0], announced)
        self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1}, "each packet once")
        players[0].request("PAUSE")
        for player in players[1:]:
            player.__exit__()  # without a word
        receiver.settimeout(0.5)
        with self.assertRaises(TimeoutError):
            end = time.monotonic() + 5
            while time.monotonic() < end:
                receiver.recv(2000)
