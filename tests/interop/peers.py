"""The programs that the interop tests start, and what is compared between them."""
import functools
import os
import random
import re
import signal
import socket
import subprocess
import threading

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
CLIP = os.path.join(ROOT, "apps", "camera", "clip")
CLIP_SECONDS = 8.0


def command(program):
    """What runs a program: one for Windows runs under Wine, which hands SIGINT on as Ctrl-C."""
    return [os.path.join(ROOT, "scripts", "wine"), program] if program.endswith(".exe") else [program]


CAMERA = command(os.environ.get("INET_CAMERA", "build/dev/apps/inet-camera"))
VIEWER = command(os.environ.get("INET_VIEWER", "build/dev/apps/inet-viewer"))


class Camera:
    """inet-camera on a free port; ends by Ctrl-C and must then have exited cleanly with nothing held."""

    def __init__(self, *arguments, prefix=()):
        """`prefix` is a command that starts the program, such as that for another network namespace."""
        self.process = subprocess.Popen([*prefix, *CAMERA, "--rtsp", "0", *arguments], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        self.errors = []
        self.reader = threading.Thread(target=lambda: self.errors.extend(self.process.stderr))
        self.reader.start()
        self.urls = {}
        for line in self.process.stdout:
            found = re.search(r"rtsp://\S+/(\w+)", line)
            if found:
                self.urls[found.group(1)] = found.group(0)
            if line.startswith("ready"):
                return
        self.__exit__(None, None, None)
        raise AssertionError("camera ended before it was ready")

    def __enter__(self):
        return self

    def url(self, path, user=None):
        """Address of a channel, with "name:password" in it when `user` is given."""
        return self.urls[path].replace("rtsp://", f"rtsp://{user}@") if user else self.urls[path]

    def __exit__(self, kind, value, trace):
        self.process.send_signal(signal.SIGINT)
        try:
            status = self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            status = "killed: did not end by Ctrl-C"
        self.reader.join()
        self.process.stdout.close()
        self.process.stderr.close()
        if kind is None and (status != 0 or self.errors):
            raise AssertionError(f"camera ended with {status}: {''.join(self.errors)}")


def up_to_three_times(case):
    """Repeats a test that depends on time until it passes: a stall of the machine fails one attempt, a fault all."""
    @functools.wraps(case)
    def attempts(self):
        for left in (2, 1, 0):
            try:
                return case(self)
            except (AssertionError, OSError, EOFError) as error:
                if not left:
                    raise
                print(f"\nonce more after: {error}")
    return attempts


def is_free(port):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        try:
            probe.bind(("", port))
        except OSError:
            return False
    return True


def free_group():
    """A multicast group with a run of ports that nobody uses on this host, as "GROUP:PORT". They lie below those that the
    system hands out itself: programs beside us would take one of them meanwhile."""
    while True:
        port = random.randrange(10000, 30000, 16)
        if all(is_free(port + i) for i in range(16)):
            return f"239.255.{port >> 8}.{port & 255}:{port}"


class Failed(Exception):
    """A program ended with an error; its messages are the text."""


def run(program, *arguments, timeout=60):
    """Runs a program to its end: what it printed, as bytes. Any message on its error stream is a failure."""
    done = subprocess.run([program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=timeout)
    if done.returncode or done.stderr:
        raise Failed(f"{program} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return done.stdout


def ffmpeg(*arguments, timeout=60):
    return run("ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-xerror", *arguments, timeout=timeout)


HASHES = ("-map", "0:v", "-fps_mode", "passthrough", "-f", "framehash", "-hash", "md5", "-")


def hashes_of(table):
    """What an ffmpeg with HASHES has printed: those of the decoded pictures, none repeated or left out."""
    return [line.split(",")[-1].strip() for line in table.decode().splitlines() if not line.startswith("#")]


def picture_hashes(*source):
    return hashes_of(ffmpeg(*source, *HASHES))


def clip_file(name):
    return os.path.join(CLIP, name)


def clip_sound():
    """The samples of the bundled clip, µ-law."""
    return ffmpeg("-i", clip_file("clip.wav"), "-c", "copy", "-f", "mulaw", "-")


def position_in_loop(run_of, loop):
    """Where a run of items begins in an endlessly repeated list; None when it does not occur."""
    for start in range(len(loop)):
        if all(item == loop[(start + i) % len(loop)] for i, item in enumerate(run_of)):
            return start
    return None
