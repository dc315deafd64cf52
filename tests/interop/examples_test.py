"""The examples do what their first lines say, in as few lines as promised, and README.md shows them as they are."""
import os
import re
import signal
import socket
import subprocess
import unittest

from peers import CAMERA, ROOT, clip_file

PROGRAMS = os.path.join(os.path.dirname(CAMERA[-1]), "..", "examples")
LINES = {"camera": 40, "watcher": 30}


def program(name):
    return os.path.join(PROGRAMS, f"example-{name}")


class Examples(unittest.TestCase):
    def test_they_are_short_and_in_the_readme(self):
        with open(os.path.join(ROOT, "README.md")) as readme:
            shown = re.findall(r"```cpp\n(.*?)```", readme.read(), re.DOTALL)
        for name, lines in LINES.items():
            with open(os.path.join(ROOT, "examples", f"{name}.cpp")) as source:
                text = source.read()
            self.assertLessEqual(text.count("\n"), lines)
            self.assertIn(text, shown)

    def test_the_watcher_watches_the_camera(self):
        with socket.create_server(("127.0.0.1", 0)) as free:
            port = str(free.getsockname()[1])
        camera = subprocess.Popen([program("camera"), clip_file("clip.h264"), port])
        try:
            url = f"rtsp://127.0.0.1:{port}/live"
            seen = subprocess.run([program("watcher"), url], capture_output=True, text=True, timeout=60)
        finally:
            camera.send_signal(signal.SIGKILL)
            camera.wait()
        self.assertEqual((seen.returncode, seen.stderr), (0, ""))
        frames = re.findall(r"^H264 \d+ bytes(, a key,)? at [\d.]+ s$", seen.stdout, re.MULTILINE)
        self.assertGreater(len(frames), 100)
        self.assertTrue(frames[0], "the first is a key picture")
        for name in LINES:
            done = subprocess.run([program(name), "nonsense"], capture_output=True, text=True, timeout=60)
            self.assertEqual(done.returncode, 1)
            self.assertRegex(done.stderr, r"^.+\n$")
