"""inet-camera serves what it fetches: from another camera, on demand, from a pipe."""
import contextlib
import time

from peers import (CODED, Camera, CameraCase, at_once, clip_file, clip_sound, ffmpeg, free_group, picture_hashes,
                   position_in_loop, tracks_of)
from player import Player
from relay import Relay, Sender
from viewer import ViewerCase, nal_units

LOST = 8
# A command that runs another one with the film that follows in its standard input, in real time.
PIPE = ("bash", "-c", 'exec "$@" < <(ffmpeg -nostdin -loglevel quiet -re -i "$0" -c copy -f h264 -)')


class Connections(Relay):
    """Passes everything on, and counts who is connected."""

    accepted = open = 0

    def talk(self, client):
        self.accepted += 1
        self.open += 1
        try:
            super().talk(client)
        finally:
            self.open -= 1


class Fetched(ViewerCase, CameraCase):
    arguments = ("--user", "admin", "--password", "r:i@ght")

    def fetch(self, way):
        source = self.camera.url(user="admin:r:i%40ght")
        with Camera("--source", source, "--transport", way) as second:
            return self.view(second.url(), "--transport", "tcp" if way == "udp" else "udp", "--duration", "4", "--stats",
                             *(part for kind in ("h264", "wav", "txt") for part in ("-o", self.path(f"{way}.{kind}"))))

    def test_everything_over_each_transport(self):
        ways = ("tcp", "udp", "http")
        for way, (tracks, messages) in zip(ways, at_once(self.fetch, ways)):
            with self.subTest(way):
                self.assertEqual(messages, "")
                self.assertEqual({name: track["lost"] for name, track in tracks.items()},
                                 dict.fromkeys(("H264", "PCMU", "META"), "0"))
                self.check_pictures(f"{way}.h264", 100)
                self.assertEqual(len(self.sound_and_documents(way)[1]), int(tracks["META"]["frames"]))


class Several(ViewerCase, CameraCase):
    def test_each_has_a_path_and_jpeg_stays_as_it_is(self):
        door, yard = f"door={self.camera.url()}", f"yard={self.camera.url('jpeg')}"
        with Camera("--source", door, "--source", yard) as second:
            self.view(second.url("door"), "--duration", "1", "-o", "a.h264")
            self.view(second.url("yard"), "--duration", "2", "-o", "a.jpg")
        self.check_pictures("a.h264", 25)
        seen = picture_hashes("-i", self.path("a_%05d.jpg"))
        self.assertIsNotNone(position_in_loop(seen, picture_hashes("-i", clip_file("clip_%02d.jpg"))))

    def test_on_demand_is_fetched_only_while_somebody_watches(self):
        with Connections(self.camera.url(), 0.0) as between, \
                Camera("--source", between.url, "--on-demand") as second:
            with Player(second.url()) as player:
                player.request("OPTIONS")
            self.assertEqual(between.accepted, 0)
            for accepted in (1, 2):
                self.view(second.url(), "--duration", "2", "-o", "b.h264")
                self.assertEqual((between.accepted, between.open), (accepted, 1))
                self.check_pictures("b.h264", 50)
                deadline = time.monotonic() + 30
                while between.open:
                    self.assertLess(time.monotonic(), deadline, "still fetched")
                    time.sleep(0.05)


class Returning(ViewerCase):
    def test_the_source_dies_and_returns_and_the_viewer_stays(self):
        port = free_group().split(":")[1]
        sources = ("--source", f"rtsp://127.0.0.1:{port}/live", "--source", "x=rtsp://127.0.0.1:1/x")
        with contextlib.ExitStack() as first:
            first.enter_context(Camera("--rtsp", port))
            second = self.enterContext(Camera(*sources, talks=True))
            viewer = self.start(second.url(), "--timeout", "60", "--duration", "8", "-o", "a.h264")
            self.wait_for(viewer, "a.h264")
            first.close()
            with Camera("--rtsp", port):
                _, messages = self.end(viewer)
            told = second.told()
        self.assertEqual(messages, "")
        self.assertIn("live: 127.0.0.1 closed the connection, trying again", told)
        self.assertIn("live: is there again", told)
        seen = picture_hashes("-i", self.path("a.h264"))
        self.assertGreater(len(seen), 60)
        self.assertLessEqual(set(seen), set(picture_hashes("-i", clip_file("clip.h264"))))


class Pipe(ViewerCase):
    def test_an_encoder_writes_into_a_pipe(self):
        # With one key picture: a viewer that comes late begins with it, too.
        film = self.path("film.h264")
        ffmpeg("-i", clip_file("clip.h264"), "-t", "5", "-c:v", "libx264", "-bf", "0", "-g", "999", "-sc_threshold", "0",
               "-bsf:v", "filter_units=remove_types=6", film)
        with Camera("--source", "-", prefix=(*PIPE, film)) as camera:
            _, messages = self.view(camera.url(), "-o", "a.h264", status=LOST)
            camera.process.wait(timeout=10)  # the pipe has ended, and everybody has seen it
        self.assertIn("closed the connection", messages)
        units = nal_units(self.path("a.h264"))
        self.assertGreater(len(units), 115)
        self.assertEqual(units, nal_units(film)[:len(units)])


class Formats(ViewerCase):
    video = ("m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", ("-map", "0:v", "-c", "copy", "-payload_type", "96"))
    aac = ("m=audio 0 RTP/AVP 97\r\na=rtpmap:97 MPEG4-GENERIC/48000/{0}\r\na=fmtp:97 mode=AAC-hbr;sizeLength=13;"
           "indexLength=3;indexDeltaLength=3;config={1}\r\n", ("-map", "0:a", "-c", "copy", "-payload_type", "97"))
    alaw = ("m=audio 0 RTP/AVP 8\r\n", ("-map", "0:a", "-c", "copy", "-payload_type", "8"))

    def relayed(self, name, sound, channels, *encoded):
        path = self.path(f"{name}.mkv")
        noise = "|".join(f"random({each})" for each in range(channels))
        ffmpeg("-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25", "-f", "lavfi", "-i", f"aevalsrc={noise}:s=48000",
               "-t", "12", "-c:v", "libx264", "-bf", "2", "-g", "25", "-x264-params", "repeat-headers=1", *encoded, path)
        with Sender(path, self.video, sound) as sender, Camera("--source", f"live={sender.url}") as camera:
            seen = tracks_of(ffmpeg("-rtsp_transport", "tcp", "-i", camera.url(), "-t", "5", "-map", "0", *CODED))
        return name, seen, tracks_of(ffmpeg("-i", path, "-map", "0", *CODED))

    def test_pictures_that_change_places_and_sound_arrive_untouched_and_in_step(self):
        lines, arguments = self.aac
        cases = (("aac", (lines.format(2, "1190"), arguments), 2, "-c:a", "aac"),  # several units in a packet
                 ("pieces", (lines.format(6, "11B0"), arguments), 6, "-c:a", "aac", "-b:a", "1800k"),
                 ("alaw", self.alaw, 1, "-c:a", "pcm_alaw", "-ar", "8000"))
        for sound, seen, sent in at_once(lambda case: self.relayed(*case), cases):
            offsets = []
            for stream, least in ("0", 100), ("1", 5 if sound == "alaw" else 200):
                items = [item for item, _ in sent[stream]]
                first = items.index(seen[stream][0][0])
                count = len(seen[stream])
                self.assertGreater(count, least)
                self.assertEqual([item for item, _ in seen[stream]], items[first:first + count], sound)
                # Of the first picture the player does not know the time, from whomever it comes.
                own = [time - sent[stream][first + i][1] for i, (_, time) in enumerate(seen[stream]) if i > 0]
                self.assertLess(max(own) - min(own), 0.002, (sound, stream))
                offsets.append(own[0])
            # The sender leaves out the 21 ms that an encoder of AAC puts in front.
            self.assertLess(abs(offsets[0] - offsets[1]), 0.025, sound)
