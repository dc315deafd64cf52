"""Viewers that do not read: they lose whole pictures, then the connection, and nobody else notices."""
import os
import struct
import tempfile
import time

from peers import Camera, CameraCase, clip_file, ffmpeg
from player import FU_A, IDR, Player, nal_type, rtp_timestamp

PICTURE, STILL_PICTURE = 3600, 18000  # ticks from one picture to the next
SPS = 7
EMPTY_REPORT = b"$\1\0\0"


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


class Stall(CameraCase):
    @classmethod
    def start_camera(cls):
        video = os.path.join(cls.enterClassContext(tempfile.TemporaryDirectory()), "20mbit.h264")
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=640x360:rate=25,noise=alls=60:allf=t", "-t", "4", "-c:v", "libx264",
               "-preset", "ultrafast", "-threads", "1", "-g", "25", "-bf", "0", "-b:v", "20M", video)
        return Camera("--backlog", "262144", "--stall", "5", "--video", video, "--jpeg", clip_file("clip_01.jpg"))

    def test_who_does_not_keep_up_loses_whole_pictures_or_is_dropped_and_nobody_waits(self):
        stalled = [self.watch(receive_buffer=8192) for _ in range(5)]
        slow = self.watch(receive_buffer=65536)
        reading = self.enterContext(Player(self.camera.url("jpeg")))
        reading.play()
        seen, kept = [], []
        for number in range(50):
            seen += reading.pictures(1)
            kept += slow.pictures(1)
            if number < 30:
                stalled[0].socket.recv(100)  # next to nothing
        self.assertEqual(set(steps(seen)), {STILL_PICTURE})
        # How much the system keeps for it differs: what was left out stands behind that.
        while set(steps(kept)) == {PICTURE} and len(kept) < 200:
            kept += slow.pictures(1)
        for player in stalled:
            with self.assertRaises(ConnectionError):
                while True:
                    player.write(EMPTY_REPORT)  # a peer whose window is shut learns of a reset when it says something
                    time.sleep(0.05)
        numbers = [struct.unpack_from(">H", packet, 2)[0] for packets in kept for packet in packets]
        self.assertEqual({(b - a) % 65536 for a, b in zip(numbers, numbers[1:])}, {1})
        self.assertNotEqual(set(steps(kept)), {PICTURE}, "some were left out")
        for packets, step in zip(kept, [PICTURE, *steps(kept)]):
            self.assertTrue(is_whole(packets))
            if step != PICTURE:
                self.assertLessEqual({SPS, IDR}, {nal_type(packet) for packet in packets}, "up to a key picture")
