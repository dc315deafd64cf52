"""Viewers that do not read: they lose whole pictures, then the connection, and nobody else notices."""
import os
import struct
import tempfile

from peers import Camera, CameraCase, ffmpeg
from player import FU_A, IDR, nal_type, rtp_timestamp

PICTURE = 3600  # ticks from one picture to the next
SPS = 7


def is_whole(packets):
    """Every NAL unit in pieces has its start and its end."""
    pieces = [packet[13] for packet in packets if packet[12] & 31 == FU_A]
    begun = [bool(piece & 0x80) for piece in pieces]
    ended = [bool(piece & 0x40) for piece in pieces]
    return not pieces or begun == [True, *ended[:-1]] and ended[-1]


def steps(pictures):
    """Ticks from each picture to the next."""
    stamps = [rtp_timestamp(packets[0]) for packets in pictures]
    return [(b - a) % 2**32 for a, b in zip(stamps, stamps[1:])]


class StallCase(CameraCase):
    """On a clip of 20 Mbit/s."""
    @classmethod
    def start_camera(cls):
        video = os.path.join(cls.enterClassContext(tempfile.TemporaryDirectory()), "20mbit.h264")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25,noise=alls=60:allf=t", "-t", "4", "-c:v", "libx264",
               "-preset", "ultrafast", "-threads", "1", "-g", "25", "-bf", "0", "-b:v", "20M", video)
        return Camera("--video", video, *cls.arguments)


class LeftOut(StallCase):
    arguments = ("--backlog", "262144")

    def test_whole_pictures_are_left_out_up_to_a_key_picture(self):
        stalled, reading = self.watch(receive_buffer=8192), self.watch()
        reading.pictures(100)  # meanwhile, more than fits on the way to the other
        pictures = stalled.pictures(2)
        while steps(pictures[-2:]) == [PICTURE]:
            pictures += stalled.pictures(1)
        pictures += stalled.pictures(20)
        numbers = [struct.unpack_from(">H", packet, 2)[0] for packets in pictures for packet in packets]
        self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1})
        for packets, step in zip(pictures, [PICTURE, *steps(pictures)]):
            self.assertTrue(is_whole(packets))
            if step != PICTURE:
                self.assertLessEqual({SPS, IDR}, {nal_type(packet) for packet in packets})


class Dropped(StallCase):
    arguments = ("--stall", "2")

    def test_it_is_dropped_and_nobody_waits_for_it(self):
        stalled = [self.watch(receive_buffer=8192) for _ in range(5)]
        slow, reading = self.watch(), self.watch()
        pictures = []
        for number in range(8 * 25):
            pictures += reading.pictures(1)
            for _ in range(6):
                slow.packet()
            if number < 5 * 25:
                stalled[0].socket.recv(100)  # next to nothing
        self.assertEqual(set(steps(pictures)), {PICTURE})
        for player in stalled:
            with self.assertRaises((EOFError, ConnectionError)):
                for _ in range(20_000_000 // 1000):
                    player.take(1000)
        slow.request("GET_PARAMETER")  # a slow one is kept
