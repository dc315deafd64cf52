"""inet-viewer as the interop tests start it."""
import os
import re
import subprocess
import tempfile
import time
import unittest

from peers import ROOT, clip_file, clip_sound, command, position_in_loop, run

VIEWER = command(os.environ.get("INET_VIEWER", f"{ROOT}/build/dev/apps/inet-viewer"))
DELIMITER, SEI = 9, 6


def nal_units(path):
    """NAL units of an Annex B stream that travel: delimiters and SEI do not."""
    with open(path, "rb") as stream:
        units = [unit.rstrip(b"\0") for unit in stream.read().split(b"\0\0\1")[1:]]
    return [unit for unit in units if unit[0] & 31 not in (DELIMITER, SEI)]


class ViewerCase(unittest.TestCase):
    """Cases with a folder, in which viewers run and write."""
    clip = nal_units(clip_file("clip.h264"))

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory(prefix="größe-画-"))  # as paths are UTF-8

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, *arguments):
        return subprocess.Popen([*VIEWER, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                cwd=self.folder)

    def end(self, viewer, status=0):
        """Waits for the end and checks the status: what the tracks counted, and the messages."""
        out, messages = viewer.communicate(timeout=100)
        self.assertEqual(viewer.returncode, status, (viewer.args, messages))
        tracks = [dict(pair.split("=") for pair in line.split()) for line in out.splitlines()]
        return {track["format"]: track for track in tracks}, messages

    def view(self, *arguments, status=0):
        return self.end(self.start(*arguments), status)

    def refuse(self, status, *arguments):
        """A viewer that ends with a status: its message, of one line."""
        _, messages = self.view(*arguments, status=status)
        self.assertRegex(messages, r"^inet-viewer: .+\n$")
        return messages

    def wait_for(self, viewer, name, size=1):
        """Returns when a file of the viewer has so many bytes."""
        while not os.path.exists(self.path(name)) or os.path.getsize(self.path(name)) < size:
            self.assertIsNone(viewer.poll())
            time.sleep(0.02)

    def sound_and_documents(self, name):
        """What was written of sound, which is the clip's, and of metadata."""
        with open(self.path(f"{name}.wav"), "rb") as sound, open(self.path(f"{name}.txt")) as text:
            sound, documents = sound.read(), re.findall(r"<\?xml.*?</tt:MetadataStream>\n", text.read(), re.DOTALL)
        # A block that came before the key picture is silence.
        self.assertIn(sound[58:].lstrip(b"\xff"), clip_sound() * 2)
        self.assertGreaterEqual(len(documents), 10)  # sound and pictures end it
        return sound, documents

    def check_step(self, name, least, slack=0.04):
        """Picture and sound of a film begin together and end together, after so many seconds at least."""
        packets = run("ffprobe", "-v", "error", "-show_entries", "packet=codec_type,pts_time,duration_time", "-of",
                      "csv=p=0", self.path(name)).decode().replace("N/A", "0").split()  # the first one of AAC
        times = {kind: [tuple(map(float, line.split(",")[1:3])) for line in packets if line.startswith(kind)]
                 for kind in ("video", "audio")}
        starts, ends = zip(*((min(each)[0], sum(max(each))) for each in times.values()))
        self.assertEqual(starts[0], starts[1])
        self.assertLess(abs(ends[0] - ends[1]), slack)
        self.assertGreaterEqual(ends[0] - starts[0], least - 0.001)

    def check_pictures(self, name, least):
        units = nal_units(self.path(name))
        self.assertGreaterEqual(len(units), least)
        self.assertIsNotNone(position_in_loop(units, self.clip), "NAL units of the clip, in order, none missing")
