"""The programs that the interop tests start, and what is compared between them."""
import functools
import glob
import hashlib
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor

from player import Player

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
CLIP_SECONDS = 8.0
KEY_DISTANCE = 50  # pictures
BLOCK = 160  # samples of sound


def command(program):
    """What runs a program: one for Windows runs under Wine, which hands SIGINT on as Ctrl-C."""
    return [os.path.join(ROOT, "scripts", "wine"), program] if program.endswith(".exe") else [program]


CAMERA = command(os.environ.get("INET_CAMERA", f"{ROOT}/build/dev/apps/inet-camera"))
FREE_PORTS = "--rtsp", "0", "--http", "off", "--rtmp", "off"


class Camera:
    """inet-camera on a free port; ends by Ctrl-C and must then have exited cleanly with nothing held."""

    def __init__(self, *arguments, prefix=(), ports=FREE_PORTS, talks=False):
        """`prefix` is a command that starts the program, such as that for another network namespace. One that `talks`
        tells of calls, which is no failure."""
        self.talks = talks
        self.folder = tempfile.TemporaryDirectory()  # where it works: DASH has its files there
        self.messages = tempfile.TemporaryFile("w+")
        self.read = 0
        self.process = subprocess.Popen([*prefix, *CAMERA, *ports, *arguments], stdout=subprocess.PIPE,
                                        stderr=self.messages, text=True, errors="replace", cwd=self.folder.name)
        self.urls, self.rtmp = {}, {}
        self.printed = []
        for line in self.process.stdout:
            self.printed.append(line)
            found = re.search(r"rtsp://\S+/(\w+)", line)
            if found:
                self.urls[found.group(1)] = found.group(0)
            found = re.search(r"^rtmp://\S+/(\w+)", line)
            if found:
                self.rtmp[found.group(1)] = found.group(0)
            if line.startswith("http://"):
                self.web = line.strip()
            if line.startswith("ready"):
                return
        self.__exit__(None, None, None)
        raise AssertionError("camera ended before it was ready")

    def __enter__(self):
        return self

    def url(self, path="live", user=None):
        """Address of a channel, with "name:password" in it when `user` is given."""
        return self.urls[path].replace("rtsp://", f"rtsp://{user}@") if user else self.urls[path]

    def told(self):
        """What it has complained of since the last call. What is left at the end is a failure."""
        text = os.pread(self.messages.fileno(), 1 << 20, self.read)  # at the place where it writes it goes on
        self.read += len(text)
        return text.decode()

    def __exit__(self, kind, value, trace):
        early = self.process.poll() is not None
        self.process.send_signal(signal.SIGINT)
        with self.folder, self.process, self.messages:
            try:
                status = self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.process.kill()
                status = "killed: did not end by Ctrl-C"
            left = " ".join(f"left {path}" for path in glob.glob(f"{self.folder.name}/temp/*"))
            messages = self.told() * (not self.talks) + left
        if kind is None and (status != 0 or messages):
            raise AssertionError(f"camera ended with {status}{' by itself' * early}: {messages}")


class CameraCase(unittest.TestCase):
    """Cases that share a camera."""
    arguments = ()

    @classmethod
    def setUpClass(cls):
        cls.camera = cls.enterClassContext(cls.start_camera())

    @classmethod
    def start_camera(cls):
        return Camera(*cls.arguments)

    def watch(self, *streams, **options):
        """A player that plays them."""
        player = self.enterContext(Player(self.camera.url(), **options))
        player.play(*streams)
        return player

    def check_live(self, table, seconds, tracks=None):
        """What an ffmpeg with LIVE has printed: pictures and sound are those of the clip, in order, none missing, and
        by the times that the player derived they are in step. `tracks` stands for those of the clip."""
        offsets = []  # how far the time of each lies from its place in the clip: the same for all, in both tracks
        for stream, clip in (tracks or clip_tracks()).items():
            places, seen = dict(clip), tracks_of(table)[stream]
            self.assertEqual(len(places), len(clip), "each of the clip occurs once")
            self.assertGreater(len(seen), (seconds - 0.5) / CLIP_SECONDS * len(clip))
            start = position_in_loop([item for item, _ in seen], [*places])
            self.assertIsNotNone(start, "in order, none missing")
            self.assertEqual(start % KEY_DISTANCE if stream == "0" else 0, 0, "a viewer begins with a key picture")
            offsets += [time - places[item] for item, time in seen]
        spread = [(each - offsets[0] + CLIP_SECONDS / 2) % CLIP_SECONDS for each in offsets]
        self.assertLess(max(spread) - min(spread), 0.005)


def free_group():
    """A multicast group with a run of ports that nobody uses on this host, as "GROUP:PORT". They lie below those that
    the system hands out itself: programs beside us would take one of them meanwhile."""
    while True:
        port = random.randrange(10000, 30000, 16)
        try:
            for each in range(port, port + 16):
                for kind in (socket.SOCK_DGRAM, socket.SOCK_STREAM):
                    with socket.socket(socket.AF_INET, kind) as probe:
                        probe.bind(("", each))
        except OSError:
            continue
        return f"239.255.{port >> 8}.{port & 255}:{port}"


def has_namespaces():
    return shutil.which("ip") and subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode == 0


def join_hosts(case, net):
    """Gives a class of cases two hosts with a cable between them: the namespaces `near`, NET.1, and `far`, NET.2."""
    case.near, case.far = (f"inet-{name}-{net.split('.')[-1]}-{os.getpid()}" for name in ("near", "far"))
    for name in (case.near, case.far):
        run("ip", "netns", "add", name)
        case.addClassCleanup(run, "ip", "netns", "del", name)
    run("ip", "link", "add", "end", "netns", case.near, "type", "veth", "peer", "name", "end", "netns", case.far)
    for number, name in enumerate((case.near, case.far), 1):
        for command in (f"address add {net}.{number}/24 dev end", "link set lo up", "link set end up",
                        "route add 224.0.0.0/4 dev end"):
            run("ip", "-n", name, *command.split())
    wait_for_link("end", case.near, case.far)


def wait_for_link(name, *hosts):
    """Until both of its ends are up, and the system has noticed, it drops what is sent. `ip link show` would also look at
    the namespaces of other tests, which may be half made."""
    for host in hosts:
        until_up = f"until grep -qx up /sys/class/net/{name}/operstate; do sleep 0.01; done"
        run("timeout", "10", "ip", "netns", "exec", host, "sh", "-c", until_up)


class Failed(Exception):
    """A program ended with an error; its messages are the text."""


def run(program, *arguments):
    """Runs a program to its end: what it printed, as bytes. Any message on its error stream is a failure."""
    done = subprocess.run([program, *arguments], stdin=subprocess.DEVNULL, capture_output=True, timeout=100)
    if done.returncode or done.stderr:
        raise Failed(f"{program} ended with {done.returncode}: {done.stderr.decode(errors='replace')}")
    return done.stdout


def at_once(call, cases):
    """What a call returns for each case, all of which run at the same time."""
    with ThreadPoolExecutor(len(cases)) as pool:
        return list(pool.map(call, cases))


FFMPEG = ("ffmpeg", "-nostdin", "-hide_banner", "-loglevel", "error", "-xerror")
TABLE = ("-f", "framehash", "-hash", "md5", "-")
# What travels of the pictures: neither delimiters nor SEI.
CODED = ("-c", "copy", "-bsf:v", "filter_units=remove_types=6|9", *TABLE)
LIVE = ("-map", "0:v", "-map", "0:a", *CODED)


def ffmpeg(*arguments):
    return run(*FFMPEG, *arguments)


def tracks_of(table):
    """Of each stream, the hash and the time of everything in it."""
    bases = re.findall(r"#tb (\d): (\d+)/(\d+)", table.decode())
    tick = {stream: int(time) / int(rate) for stream, time, rate in bases}
    tracks = {stream: [] for stream in tick}
    for line in table.decode().splitlines():
        if not line.startswith("#"):
            stream, _, time, _, _, item = (field.strip() for field in line.split(",")[:6])
            tracks[stream].append((item, int(time) * tick[stream]))
    return tracks


def picture_hashes(*source):
    """Those of the decoded pictures, none repeated or left out."""
    return [item for item, _ in tracks_of(ffmpeg(*source, "-map", "0:v", "-fps_mode", "passthrough", *TABLE))["0"]]


def clip_file(name):
    return os.path.join(ROOT, "apps", "camera", "clip", name)


def clip_sound():
    """The samples of the bundled clip, µ-law."""
    return ffmpeg("-i", clip_file("clip.wav"), "-c", "copy", "-f", "mulaw", "-")


@functools.cache
def clip_tracks():
    """Pictures and blocks of sound."""
    sound = clip_sound()
    blocks = [(hashlib.md5(sound[at:at + BLOCK]).hexdigest(), at / 8000) for at in range(0, len(sound), BLOCK)]
    return {"1": blocks, **tracks_of(ffmpeg("-i", clip_file("clip.h264"), *CODED))}


def position_in_loop(run_of, loop):
    """Where a run of items begins in an endlessly repeated list; None when it does not occur."""
    return next((start for start in range(len(loop))
                 if all(item == loop[(start + i) % len(loop)] for i, item in enumerate(run_of))), None)
