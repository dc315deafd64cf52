"""What a new viewer gets: at once a picture that can be decoded, then the present."""
import re
import socket
import time

from peers import CameraCase
from player import INTERLEAVED, Player, rtp_timestamp

PICTURE, SECOND = 3600, 90000  # ticks


class Start(CameraCase):
    def test_another_play_changes_nothing(self):
        """Players send it as a sign of life (RFC 2326, 10.5)."""
        player = self.watch()
        for _ in range(3):
            last = rtp_timestamp(player.pictures(18)[-1][0])
            player.request("PLAY")
            self.assertLess((rtp_timestamp(player.video()) - last) % 2**32, 5 * SECOND, "it does not go back")

    def test_the_burst_is_paced_and_the_tracks_keep_step(self):
        """From the key picture on nothing is left out; media time passes at four times real time until it is live."""
        player = self.enterContext(Player(self.camera.url()))
        player.set_up(("video", "audio"))
        start = time.monotonic()
        announced = int(re.search(r"rtptime=(\d+)", player.request("PLAY")).group(1))
        clocks, places, first, stamps = {0: SECOND, 2: 8000}, {0: 0, 2: 0}, {}, []
        while places[0] < 3:
            channel, packet = player.packet()
            if channel not in clocks:
                continue
            stamp = rtp_timestamp(packet)
            places[channel] = (stamp - first.setdefault(channel, stamp)) % 2**32 / clocks[channel]
            self.assertLess(places[channel], (time.monotonic() - start) * 4 + 0.15)
            if len(first) == 2:
                self.assertLess(abs(places[0] - places[2]), 0.1, "sound and picture are as far")
            if channel == 0 and stamp not in stamps:
                stamps.append(stamp)
        self.assertLess((first[2] - announced) % 2**32, 160, "RTP-Info tells the time of the first frame")
        self.assertEqual({(b - a) % 2**32 for a, b in zip(stamps, stamps[1:])}, {PICTURE}, "no picture is missing")

    def test_a_burst_comes_up_to_the_present(self):
        """While a viewer takes four seconds, the first of which had passed, another takes the other three."""
        present, late = self.watch(), self.enterContext(Player(self.camera.url()))
        late.set_up()
        present.pictures(75)  # with a key picture every 50
        present.request("GET_PARAMETER")
        late.request("PLAY")
        late.pictures(100)
        present.request("GET_PARAMETER")
        self.assertLess(len({rtp_timestamp(packet) for channel, packet in present.passed if channel == 0}), 88)

    def test_each_track_travels_its_own_way(self):
        receiver = self.enterContext(socket.socket(type=socket.SOCK_DGRAM))
        receiver.bind(("127.0.0.1", 0))
        receiver.settimeout(10)
        player = self.enterContext(Player(self.camera.url()))
        player.set_up(("video",), f"RTP/AVP;unicast;client_port={receiver.getsockname()[1]}-65535")
        player.request("SETUP", f"{player.url}/audio", Transport="RTP/AVP/TCP;unicast;interleaved=2-3")
        player.request("PLAY")
        self.assertEqual(receiver.recv(2000)[1] & 127, 96)
        self.assertEqual({player.packet()[0] for _ in range(20)}, {2, 3})

    def test_without_multicast_another_transport_is_taken(self):
        self.assertIn("RTP/AVP/TCP", self.watch(("video",), f"RTP/AVP;multicast,{INTERLEAVED}").granted[0])
        with self.assertRaisesRegex(AssertionError, "461"):
            self.watch(("video",), "RTP/AVP;multicast")


class StartNext(CameraCase):
    arguments = ("--start", "next")

    def test_a_viewer_waits_for_the_coming_key_picture(self):
        present = self.watch()
        present.key_picture()
        last = rtp_timestamp(present.pictures(5)[-1][0])
        self.assertLess((rtp_timestamp(self.watch().video()) - last) % 2**32, 2**31, "it does not go back")
