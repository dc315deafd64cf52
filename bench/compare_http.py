"""The tables of bench/compare-http. The servers take turns, so that what else the machine does falls on both."""
import argparse
import glob
import itertools
import os
import re
import selectors
import socket
import subprocess
import tempfile
import time

from servers import ROOT, SEND_FLOOR, Program, median, processor_seconds
from peers import Camera, ffmpeg

PAGE = os.path.join(ROOT, "apps", "camera", "page")
TARGETS = "healthz", "page.css"
SIZES = "1920x1080", "640x360"

CONFIGURATION = """
worker_processes 1; daemon off; pid {folder}/pid; error_log {folder}/error;
events {{ worker_connections 512; }}
http {{
    access_log off; keepalive_requests 1000000000; sendfile on; tcp_nopush on; types {{ text/css css; }}
    client_body_temp_path {folder}; proxy_temp_path {folder}; fastcgi_temp_path {folder}; uwsgi_temp_path {folder};
    scgi_temp_path {folder};
    server {{
        listen 127.0.0.1:{port}; root {page};
        location = /healthz {{ default_type text/plain; return 200 "ok\\n"; }}
    }}
}}
"""


class Ours(Camera):
    """inet-camera, its clip unwatched."""

    def __init__(self):
        super().__init__("--http", "0")


class Nginx:
    """The peer, with the same files."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        path = os.path.join(self.folder.name, "configuration")
        with open(path, "w", encoding="ascii") as file:
            file.write(CONFIGURATION.format(folder=self.folder.name, port=port, page=os.path.realpath(PAGE)))
        self.process = subprocess.Popen(["nginx", "-c", path, "-e", self.folder.name + "/error"])
        self.web = f"http://127.0.0.1:{port}/"
        for _ in range(100):
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", port)) == 0:
                    return
            time.sleep(0.1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.folder.cleanup()


def load(server, target, seconds):
    """Requests a second, the 99th percentile of their times in milliseconds, and processor microseconds of the server
    for each."""
    before = processor_seconds(server.process)
    text = subprocess.run(["wrk", "-t1", "-c50", f"-d{seconds}s", "--latency", server.web + target],
                          capture_output=True, text=True, check=True).stdout
    assert "Non-2xx" not in text and "Socket errors" not in text, text
    used = processor_seconds(server.process) - before
    late, unit = re.search(r"99%\s+([\d.]+)(us|ms|s)", text).groups()
    return (float(re.search(r"Requests/sec:\s+([\d.]+)", text).group(1)),
            float(late) * {"us": 1e-3, "ms": 1, "s": 1e3}[unit],
            1e6 * used / int(re.search(r"(\d+) requests in", text).group(1)))


def pictures(size):
    """Ten JPEG pictures, made once and kept under build/clips."""
    folder = os.path.join(ROOT, "build", "clips", "film-" + size)
    if not os.path.exists(folder):
        os.makedirs(folder + ".part", exist_ok=True)
        ffmpeg("-f", "lavfi", "-i", f"testsrc2=size={size}:rate=5,noise=alls=20:allf=t", "-frames:v", "10",
               "-q:v", "5", os.path.join(folder + ".part", "%02d.jpg"))
        os.rename(folder + ".part", folder)
    return sorted(glob.glob(os.path.join(folder, "*.jpg")))


class Film(Camera):
    """inet-camera with pictures, five a second."""

    def __init__(self, size):
        super().__init__("--http", "0", "--jpeg", *pictures(size))
        self.address = self.web + "jpeg.mjpeg"


class BareFilm(Program):
    """The floor: the same pictures with one send each."""

    def __init__(self, size):
        super().__init__(SEND_FLOOR, "--multipart", "5", *pictures(size))


def show_film(server, viewers, seconds):
    """Processor seconds of the server for each GB that viewers took, and how many bytes that were. The system throws
    away what they read."""
    host, port, path = re.fullmatch(r"http://([^:/]+):(\d+)(/.*)", server.address).groups()
    waiting, room = selectors.DefaultSelector(), bytearray(1 << 20)
    for _ in range(viewers):
        one = socket.create_connection((host, int(port)))
        one.sendall(f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode())
        waiting.register(one, selectors.EVENT_READ)

    def take(until):
        taken = 0
        while (left := until - time.monotonic()) > 0:
            taken += sum(key.fileobj.recv_into(room, len(room), socket.MSG_TRUNC) for key, _ in waiting.select(left))
        return taken

    take(time.monotonic() + 1)
    before = processor_seconds(server.process)
    taken = take(time.monotonic() + seconds)
    used = processor_seconds(server.process) - before
    for key in list(waiting.get_map().values()):
        key.fileobj.close()
    return used / (taken / 1e9), taken


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-http", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=4)
    parser.add_argument("--viewers", type=int, default=50)
    options = parser.parse_args()
    results = {}
    for number in range(options.rounds):
        for target in TARGETS:
            for kind in (Ours, Nginx)[::1 if number % 2 else -1]:
                with kind() as server:
                    results.setdefault((target, kind), []).append(load(server, target, options.seconds))
        for size, kind in itertools.product(SIZES, (Film, BareFilm)[::1 if number % 2 else -1]):
            with kind(size) as server:
                results.setdefault((size, kind), []).append(show_film(server, options.viewers, options.seconds))
        print(f"round {number + 1} of {options.rounds} done", flush=True)
    print("\nMedians over the rounds: requests per second (99th percentile of their times, ms; processor time of the "
          "server for a request, µs).\n")
    print("| Target | Ours | nginx | Requests, ours / nginx | Processor time, ours / nginx |\n"
          "| --- | --- | --- | --- | --- |")
    for target in TARGETS:
        ours, peer = (results[target, kind] for kind in (Ours, Nginx))
        cells = [f"{median(rate for rate, _, _ in each):.0f} ({median(late for _, late, _ in each):.1f}; "
                 f"{median(used for _, _, used in each):.2f})" for each in (ours, peer)]
        ratios = [f"{median(a[index] / b[index] for a, b in zip(ours, peer)):.2f}" for index in (0, 2)]
        print(f"| {target} | {' | '.join(cells + ratios)} |")
    print(f"\nMultipart pictures, {options.viewers} viewers: processor seconds of the server for each GB they took.\n")
    print("| Pictures, KB | Ours | Bare sends | Ours / bare sends | Bytes taken, ours / bare sends |\n"
          "| --- | --- | --- | --- | --- |")
    for size in SIZES:
        ours, bare = results[size, Film], results[size, BareFilm]
        files = [os.path.getsize(path) / 1000 for path in pictures(size)]
        cells = [f"{median(cost for cost, _ in each):.2f}" for each in (ours, bare)]
        ratios = [f"{median(a[index] / b[index] for a, b in zip(ours, bare)):.2f}" for index in (0, 1)]
        print(f"| {median(files):.0f} | {' | '.join(cells + ratios)} |")


main()
