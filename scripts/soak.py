"""Viewers come and go at random while the camera's memory and descriptors are sampled once a second.

Half a minute of coming and going is followed by a quiet moment, in which all have left. After a warm-up, the first quarter
of the time, the camera is flat when
- in every quiet moment it holds as many descriptors as in the first one,
- the median of its resident memory over the last third of the samples is at most 5% and 1 MiB above that of the first third,
- no viewer that was to play was turned away,
and at the end it exits cleanly with no block of memory held, which it checks itself."""
import csv
import os
import random
import signal
import statistics
import subprocess
import sys
import threading
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
BUILD = os.path.join(ROOT, "build")
PROGRAMS = os.path.join(BUILD, "release", "apps")
os.environ.setdefault("INET_CAMERA", os.path.join(PROGRAMS, "inet-camera"))
sys.path.insert(0, os.path.join(ROOT, "tests", "interop"))
from peers import CAMERA, Camera  # noqa: E402

LOAD = os.path.join(BUILD, "release", "bench", "rtsp_load")
VIEWER = os.path.join(PROGRAMS, "inet-viewer")
SLOTS = 6
BUSY = 30  # seconds of coming and going before a quiet moment
LONGEST_STAY = 6
SETTLING = 15  # seconds after which a quiet moment is taken as it is
GROUP = "239.255.77.1:5000"


def load(url, transport, viewers, seconds, *arguments):
    return [LOAD, url, "--transport", transport, "--viewers", str(viewers), "--seconds", str(seconds), "--warmup", "0",
            *arguments]


def offers_multicast():
    usage = subprocess.run([*CAMERA, "--help"], capture_output=True, text=True, check=True).stdout
    return "--multicast" in usage


def is_served(url, transport):
    """A viewer gets pictures over it."""
    done = subprocess.run(load(url, transport, 1, 1), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          check=False)
    return done.returncode == 0 and " pictures=0 " not in done.stdout


class Visitors:
    """Slots in which one party of viewers after the other comes, stays for seconds and goes, some without a word."""

    def __init__(self, url, transports, seed):
        self.url = url
        self.transports = transports
        self.welcome = threading.Event()
        self.over = threading.Event()
        self.lock = threading.Lock()
        self.present = 0
        self.parties = dict.fromkeys(transports, 0)
        self.turned_away = []
        self.slots = [threading.Thread(target=self.run, args=(random.Random(seed + i),)) for i in range(SLOTS)]
        for slot in self.slots:
            slot.start()

    def run(self, chance):
        while not self.over.is_set():
            if not self.welcome.wait(0.2):
                continue
            transport = chance.choice(self.transports)
            with self.lock:
                self.present += 1
                self.parties[transport] += 1
            try:
                self.visit(chance, transport)
            finally:
                with self.lock:
                    self.present -= 1

    def visit(self, chance, transport):
        stay = chance.uniform(0.2, LONGEST_STAY)
        kind = chance.choice(["crowd", "crowd", "player", "viewer"])
        # Programs of one machine cannot share the group's ports; the load can.
        if kind == "crowd" or transport == "multicast":
            return self.crowd(chance, transport, stay)
        if kind == "player":
            way = ["-rtsp_transport", transport]
            return self.stay(chance, stay, ["ffmpeg", "-nostdin", "-loglevel", "quiet", *way, "-i", self.url, "-c",
                                            "copy", "-f", "null", "-"])
        return self.stay(chance, stay, [VIEWER, self.url, "--transport", transport])

    def crowd(self, chance, transport, stay):
        arguments = load(self.url, transport, chance.randint(1, 40), max(1, round(stay)))
        if chance.random() < 0.3:
            arguments += ["--stall", "2", "--slow", "3"]
        done = subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
        if done.returncode:
            self.turned_away.append(done.stdout + done.stderr)

    @staticmethod
    def stay(chance, seconds, command):
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL)
        time.sleep(seconds)
        process.send_signal(chance.choice([signal.SIGINT, signal.SIGKILL]))
        process.wait()

    def close(self):
        self.welcome.clear()
        self.over.set()
        for slot in self.slots:
            slot.join()


class Samples:
    """What the camera holds, once a second."""

    def __init__(self, pid):
        self.pid = pid
        self.begin = time.monotonic()
        self.rows = []
        self.quiet = []

    def resident(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def seconds(self):
        return time.monotonic() - self.begin

    def take(self):
        self.rows.append((round(self.seconds(), 1), self.resident(), self.descriptors()))
        time.sleep(max(0.0, 1 - (self.seconds() - self.rows[-1][0])))

    def take_quiet(self):
        self.quiet.append(self.rows[-1])


def soak(samples, visitors, length):
    while samples.seconds() < length:
        visitors.welcome.set()
        until = min(samples.seconds() + BUSY, length)
        while samples.seconds() < until:
            samples.take()
        visitors.welcome.clear()
        while visitors.present:
            samples.take()
        usual = samples.quiet[0][2] if samples.quiet else 0
        settled = samples.seconds() + (SETTLING if usual else 3)
        samples.take()
        while samples.seconds() < settled and samples.rows[-1][2] != usual:
            samples.take()
        samples.take_quiet()


def judge(samples, visitors, warm_up):
    """Complaints; none when the camera is flat."""
    complaints = [f"turned away: {each.strip()}" for each in visitors.turned_away]
    held = [row[2] for row in samples.quiet]
    if set(held) != {held[0]}:
        complaints.append(f"descriptors in the quiet moments: {held}")
    memory = [row[1] for row in samples.rows if row[0] > warm_up]
    third = len(memory) // 3
    first, last = statistics.median(memory[:third]), statistics.median(memory[-third:])
    print(f"resident memory, medians: {first / 1024:.1f} MiB in the first third after warm-up, {last / 1024:.1f} MiB in "
          f"the last; descriptors in {len(held)} quiet moments: {min(held)} to {max(held)}, at most "
          f"{max(row[2] for row in samples.rows)} in between")
    if last > 1.05 * first + 1024:
        complaints.append(f"resident memory grew from {first:.0f} to {last:.0f} KiB")
    return complaints


def write(samples, warm_up):
    with open(os.path.join(BUILD, "soak.csv"), "w", newline="", encoding="ascii") as file:
        csv.writer(file).writerows([("seconds", "resident_kib", "descriptors"), *samples.rows])
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    figure, (memory, descriptors) = pyplot.subplots(2, 1, sharex=True, figsize=(10, 6))
    times = [row[0] / 60 for row in samples.rows]
    memory.plot(times, [row[1] / 1024 for row in samples.rows])
    memory.set_ylabel("resident memory, MiB")
    descriptors.plot(times, [row[2] for row in samples.rows], label="sampled")
    descriptors.plot([row[0] / 60 for row in samples.quiet], [row[2] for row in samples.quiet], "o", label="all have left")
    descriptors.set_ylabel("descriptors")
    descriptors.set_xlabel("minutes; warm-up is shaded")
    descriptors.legend()
    for axes in (memory, descriptors):
        axes.set_ylim(bottom=0)
        axes.axvspan(0, warm_up / 60, alpha=0.1)
    figure.tight_layout()
    figure.savefig(os.path.join(BUILD, "soak.png"))


def main(minutes):
    length = minutes * 60
    arguments = ["--threads", "2", *(["--multicast", GROUP] if offers_multicast() else [])]
    with Camera(*arguments) as camera:
        url = camera.url("live")
        transports = [each for each in ("tcp", "udp", "http", "multicast") if is_served(url, each)]
        print(f"transports served: {', '.join(transports)}", flush=True)
        samples = Samples(camera.process.pid)
        visitors = Visitors(url, transports, seed=1)
        try:
            soak(samples, visitors, length)
        finally:
            visitors.close()
    write(samples, length / 4)
    print("parties of viewers: " + ", ".join(f"{count} {name}" for name, count in visitors.parties.items()))
    complaints = judge(samples, visitors, length / 4)
    if not {"tcp", "udp"} <= set(transports):
        complaints.append("not served over tcp and udp")
    for each in complaints:
        print(f"NOT FLAT: {each}")
    if not complaints:
        print("flat")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main(float(sys.argv[1])))
