"""What a new viewer gets: at once a picture that can be decoded, then the present."""
import re
import statistics
import time
import unittest

from peers import Camera, up_to_three_times
from player import Player, rtp_timestamp, time_to_picture

VIEWERS = 20
KEY_SECONDS = 2


def next_timestamp(player):
    while True:
        channel, packet = player.packet()
        if channel == 0:
            return rtp_timestamp(packet)


class StartSerial(unittest.TestCase):
    @up_to_three_times
    def test_the_first_picture_is_there_at_once(self):
        with Camera() as camera:
            seconds = []
            for number in range(VIEWERS):
                # Spread over the pictures between two key pictures, whatever a viewer takes.
                time.sleep(0.05 + 0.013 * number)
                seconds.append(time_to_picture(camera.url("live")))
        median = statistics.median(seconds)
        print(f"\nPLAY to the first decodable picture: median {median * 1000:.1f} ms, slowest {max(seconds) * 1000:.1f}")
        self.assertLess(median, 0.05)


class Start(unittest.TestCase):
    def test_another_play_changes_nothing(self):
        """Players send it as a sign of life (RFC 2326, 10.5)."""
        with Camera() as camera, Player(camera.url("live")) as player:
            player.set_up()
            player.request("PLAY")
            for _ in range(3):
                begin = time.monotonic()
                while time.monotonic() < begin + 0.7:
                    before = next_timestamp(player)
                player.request("PLAY")
                self.assertLess((next_timestamp(player) - before) % 2**32, 90000)

    def test_next_waits_for_the_coming_key_picture(self):
        with Camera("--start", "next") as camera:
            seconds = [time_to_picture(camera.url("live")) for _ in range(3)]
        # Each begins right after a key picture was seen, unless the machine stalls.
        self.assertGreater(max(seconds[1:]), KEY_SECONDS / 2)

    @up_to_three_times
    def test_the_burst_is_paced_and_the_tracks_keep_step(self):
        """From the key picture on nothing is left out; media time passes at four times real time until it is live."""
        with Camera() as camera, Player(camera.url("live")) as player:
            player.set_up(("video", "audio"))
            start = time.monotonic()
            info = player.request("PLAY")
            arrivals = {0: [], 2: []}
            while time.monotonic() < start + 2:
                channel, packet = player.packet()
                if channel in arrivals:
                    arrivals[channel].append((time.monotonic() - start, rtp_timestamp(packet)))
        announced = int(re.search(r"rtptime=(\d+)", info).group(1))
        first_sound = arrivals[2][0][1]
        self.assertLess((first_sound - announced) % 2**32, 160, "RTP-Info tells the time of the first frame")
        stamps = list(dict.fromkeys(stamp for _, stamp in arrivals[0]))
        self.assertEqual({(b - a) % 2**32 for a, b in zip(stamps, stamps[1:])}, {3600}, "no picture is missing")
        places = {channel: [(at, ((stamp - seen[0][1]) % 2**32) / clock) for at, stamp in seen]
                  for channel, clock, seen in ((0, 90000, arrivals[0]), (2, 8000, arrivals[2]))}
        for at, place in places[0] + places[2]:
            self.assertLess(place, at * 4 + 0.15)
        lag = places[0][-1][1] - places[2][-1][1]
        self.assertLess(abs(lag), 0.1, "sound and picture are as far")
