"""The servers that are measured, what they serve, and the load on them."""
import glob
import os
import statistics
import subprocess
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "tests", "interop"))
os.environ.setdefault("INET_CAMERA", os.path.join(ROOT, "build", "release", "apps", "inet-camera"))
from peers import Camera, ffmpeg  # noqa: E402

LOAD = os.path.join(ROOT, "build", "release", "bench", "rtsp_load")
SEND_FLOOR = os.path.join(ROOT, "build", "release", "bench", "send_floor")
PUSH_SERVER = os.path.join(ROOT, "build", "release", "bench", "push_server")
GST_SERVER = os.path.join(ROOT, "build", "gst_server")
FPS = 25


def clip(name, size, rate, noise):
    """A clip of 8 s at a bit-rate, with a key picture every 2 s; made once and kept under build/clips."""
    path = os.path.join(ROOT, "build", "clips", name + ".h264")
    if not os.path.exists(path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        ffmpeg("-f", "lavfi", "-i", f"testsrc2=size={size}:rate={FPS},noise=alls={noise}:allf=t", "-t", "8",
               "-c:v", "libx264", "-preset", "fast", "-g", "50", "-keyint_min", "50", "-sc_threshold", "0", "-bf", "0",
               # The peer takes the file apart at access unit delimiters; threads of their own would cut slices.
               "-x264-params", "aud=1:repeat-headers=1:sliced-threads=0",
               "-b:v", rate, "-maxrate", rate, "-bufsize", rate, "-f", "h264", path + ".part")
        os.rename(path + ".part", path)
    return path


def clip_4m():
    return clip("4mbit", "1280x720", "4M", 20)


def clip_300k():
    return clip("300kbit", "320x180", "300k", 8)


class Ours(Camera):
    """inet-camera on a clip."""

    def __init__(self, path, *arguments):
        super().__init__("--video", path, *arguments)
        self.address = self.url("live")


class Program:
    """A server that prints its address, and "ready" when it serves."""

    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.address = self.process.stdout.readline().strip()
        self.process.stdout.readline()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()


class GStreamer(Program):
    """The peer on a clip, by the system's packages."""

    def __init__(self, path):
        super().__init__(GST_SERVER, path, "0", str(FPS))


class Floor(Program):
    """A bare sender of a clip: what the system takes on the loopback, whoever sends."""

    def __init__(self, path):
        super().__init__(SEND_FLOOR, path, str(FPS))


def load(server, viewers, transport, seconds, *arguments):
    """What rtsp_load counted, by name; its complaints go to the error stream."""
    done = subprocess.run([LOAD, server.address, "--viewers", str(viewers), "--transport", transport, "--fps", str(FPS),
                           "--seconds", str(seconds), "--pid", str(server.process.pid), *arguments],
                          stdout=subprocess.PIPE, text=True, timeout=seconds + 180, check=False)
    return {name: float(value) for name, value in (pair.split("=") for pair in done.stdout.split())}


def cost(result):
    """Processor seconds of the server for each GB of RTP that reached the viewers."""
    return result["server_cpu"] / (result["bytes"] / 1e9)


def processor_seconds(process):
    """Of a process and its children."""
    times, pids = 0, [str(process.pid)]
    for pid in pids:
        for path in glob.glob(f"/proc/{pid}/task/*/"):
            with open(path + "schedstat", encoding="ascii") as file:
                times += int(file.read().split()[0])
            with open(path + "children", encoding="ascii") as file:
                pids += file.read().split()
    return times / 1e9


def median(values):
    return statistics.median(values)
