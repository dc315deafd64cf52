"""One stream for all, to a group. Camera and viewers live in two network namespaces joined by a cable, as two programs
of one host would fight over the group's port."""
import os
import re
import socket
import subprocess
import time
import unittest

from peers import (HASHES, Camera, clip_file, clip_sound, free_group, hashes_of, picture_hashes, position_in_loop,
                   run)
from player import Player

GROUP = "239.81.7.3"
KEY_DISTANCE = 50


def may_make_namespaces():
    name = f"inet-probe-{os.getpid()}"
    try:
        made = subprocess.run(["ip", "netns", "add", name], capture_output=True)
        subprocess.run(["ip", "netns", "del", name], capture_output=True)
    except FileNotFoundError:
        return False
    return made.returncode == 0


class Cable:
    """Two network namespaces, `near` and `far`, joined by a veth pair."""

    def __init__(self):
        number = os.getpid()
        self.near, self.far = f"inet-near-{number}", f"inet-far-{number}"
        self.address = {self.near: "10.81.7.1", self.far: "10.81.7.2"}
        ends = {self.near: f"in{number}", self.far: f"if{number}"}
        for name in self.address:
            run("ip", "netns", "add", name)
        run("ip", "link", "add", ends[self.near], "netns", self.near, "type", "veth", "peer", "name", ends[self.far],
            "netns", self.far)
        for name, end in ends.items():
            run("ip", "-n", name, "address", "add", f"{self.address[name]}/24", "dev", end)
            run("ip", "-n", name, "link", "set", "lo", "up")
            run("ip", "-n", name, "link", "set", end, "up")
            run("ip", "-n", name, "route", "add", "224.0.0.0/4", "dev", end)

    def __enter__(self):
        return self

    def __exit__(self, *error):
        for name in self.address:
            run("ip", "netns", "del", name)

    def camera(self, *arguments):
        return Camera("--bind", self.address[self.near], "--multicast", GROUP, *arguments,
                      prefix=("ip", "netns", "exec", self.near))

    def pull(self, camera, *arguments):
        return run("ip", "netns", "exec", self.far, "ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error",
                   "-rtsp_transport", "udp_multicast", "-i", camera.url("live"), *arguments)


@unittest.skipUnless(may_make_namespaces(), "network namespaces need root")
class Multicast(unittest.TestCase):
    def test_pictures(self):
        clip = picture_hashes("-i", clip_file("clip.h264"))
        with Cable() as cable, cable.camera("--threads", "2", "--ttl", "3") as camera:
            for _ in range(2):  # the second viewer comes when the streams rest, on the other thread
                seen = hashes_of(cable.pull(camera, "-t", "4", *HASHES))
                self.assertGreater(len(seen), 3.5 * 25)
                start = position_in_loop(seen, clip)
                self.assertIsNotNone(start, "the pictures are those of the clip, in order, none missing")
                self.assertEqual(start % KEY_DISTANCE, 0, "the streams begin with a key picture")

    def test_sound(self):
        with Cable() as cable, cable.camera() as camera:
            seen = cable.pull(camera, "-t", "4", "-map", "0:a", "-c", "copy", "-f", "mulaw", "-")
        self.assertGreater(len(seen), 3.5 * 8000)
        self.assertIn(seen, clip_sound() * 3)


class Offer(unittest.TestCase):
    def set_up(self, camera, transport, media=("video", "audio")):
        player = Player(camera.url("live"))
        self.addCleanup(player.socket.close)
        return player, player.set_up(media, transport)

    def listener(self, group, port):
        receiver = socket.socket(type=socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        receiver.bind((group, port))
        receiver.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                            socket.inet_aton(group) + socket.inet_aton("127.0.0.1"))
        receiver.settimeout(10)
        return receiver

    def test_one_stream_for_all_its_viewers(self):
        group, port = free_group().split(":")
        port = int(port)
        with Camera("--multicast", f"{group}:{port}", "--threads", "3") as camera:
            receiver = self.listener(group, port)
            players = []
            for _ in range(4):
                player, answers = self.set_up(camera, "RTP/AVP;multicast")
                self.assertIn(f"Transport: RTP/AVP/UDP;multicast;destination={group};port={port}-{port + 1}\r\n",
                              answers[0])
                self.assertIn(f";port={port + 2}-{port + 3}\r\n", answers[1])
                players.append(player)
            first = players[0].request("PLAY")
            self.assertGreater(len(receiver.recv(2000)), 12)
            for player in players[1:]:
                player.request("PLAY")
            numbers = []
            while len(numbers) < 200:
                numbers.append(int.from_bytes(receiver.recv(2000)[2:4], "big"))
            self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1}, "each packet once")
            announced = int(re.search(r"seq=(\d+)", first).group(1))
            self.assertEqual((numbers[0] - announced) % 65536, 1)
            for player in players:
                player.request("PAUSE")
            receiver.settimeout(0.5)
            with self.assertRaises(TimeoutError):
                end = time.monotonic() + 5
                while time.monotonic() < end:
                    receiver.recv(2000)

    def test_without_it_another_transport_is_taken(self):
        with Camera() as camera:
            _, answers = self.set_up(camera, "RTP/AVP;multicast,RTP/AVP/TCP;unicast;interleaved={0}-{1}")
            self.assertIn("RTP/AVP/TCP", answers[0])
            player = Player(camera.url("live"))
            self.addCleanup(player.socket.close)
            with self.assertRaisesRegex(AssertionError, "461"):
                player.set_up(transport="RTP/AVP;multicast")
