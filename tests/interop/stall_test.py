"""Viewers that do not read: they lose whole pictures, then the connection, and nobody else notices."""
import os
import struct
import tempfile
import time
import unittest

from peers import Camera, ffmpeg
from player import FU_A, IDR, Player, rtp_timestamp

PICTURE = 3600  # ticks from one picture to the next
SPS = 7


def nal_type(packet):
    return packet[13] & 31 if packet[12] & 31 == FU_A else packet[12] & 31


def pictures_of(packets):
    """The packets of each picture, in order."""
    pictures = {}
    for packet in packets:
        pictures.setdefault(rtp_timestamp(packet), []).append(packet)
    return pictures


def is_whole(packets):
    """Every NAL unit in pieces has its start and its end."""
    pieces = [packet[13] for packet in packets if packet[12] & 31 == FU_A]
    begun = [bool(piece & 0x80) for piece in pieces]
    ended = [bool(piece & 0x40) for piece in pieces]
    return begun == [True, *ended[:-1]] and ended[-1] if pieces else True


class Stall(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.directory.cleanup)
        cls.video = os.path.join(cls.directory.name, "20mbit.h264")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25,noise=alls=60:allf=t", "-t", "4", "-c:v", "libx264",
               "-preset", "ultrafast", "-threads", "1", "-g", "25", "-bf", "0", "-b:v", "20M", cls.video)

    def camera(self, *arguments):
        return Camera("--video", self.video, *arguments)

    def play(self, camera, **options):
        player = Player(camera.url("live"), **options)
        self.addCleanup(player.socket.close)
        player.set_up()
        player.request("PLAY")
        return player

    def test_whole_pictures_are_left_out_up_to_a_key_picture(self):
        with self.camera("--backlog", "262144") as camera:
            player = self.play(camera, receive_buffer=8192)
            time.sleep(5)
            packets = []
            gap = False
            end = time.monotonic() + 60
            while time.monotonic() < end:
                channel, packet = player.packet()
                if channel != 0:
                    continue
                packets.append(packet)
                if not gap and (rtp_timestamp(packet) - rtp_timestamp(packets[-2:][0])) % 2**32 > PICTURE:
                    gap = True
                    end = time.monotonic() + 1  # some of what follows
            player.socket.close()
        numbers = [struct.unpack_from(">H", packet, 2)[0] for packet in packets]
        self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1})
        pictures = pictures_of(packets)
        stamps = list(pictures)[:-1]  # the last is still on its way
        for stamp in stamps:
            self.assertTrue(is_whole(pictures[stamp]))
        jumps = [b for a, b in zip(stamps, stamps[1:]) if (b - a) % 2**32 != PICTURE]
        self.assertGreater(len(jumps), 0, "some were left out")
        for stamp in jumps:
            self.assertEqual({nal_type(packet) for packet in pictures[stamp]} & {SPS, IDR}, {SPS, IDR})

    def test_it_is_dropped_and_nobody_waits_for_it(self):
        with self.camera("--stall", "3") as camera:
            stalled = [self.play(camera, receive_buffer=8192) for _ in range(5)]
            slow = self.play(camera)
            reading = self.play(camera)
            arrivals = {}
            now = time.monotonic()
            end, next_drop = now + 9, now
            while now < end:
                channel, packet = reading.packet()
                now = time.monotonic()
                if now > next_drop:
                    next_drop += 0.05
                    slow.received += slow.socket.recv(8192)
                    if now < end - 3:
                        stalled[0].socket.recv(100)  # next to nothing
                if channel == 0:
                    arrivals.setdefault(rtp_timestamp(packet), time.monotonic())
            stamps = list(arrivals)
            self.assertEqual({(b - a) % 2**32 for a, b in zip(stamps, stamps[1:])}, {PICTURE})
            times = list(arrivals.values())
            self.assertLess(max(b - a for a, b in zip(times, times[1:])), 2.0)
            for player in stalled:
                with self.assertRaises((EOFError, ConnectionError)):
                    for _ in range(100000):
                        player.take(1000)
            slow.request("GET_PARAMETER")  # a slow one is kept
