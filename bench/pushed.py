"""The tables of bench/pushed."""
import argparse
import contextlib
import itertools
import os
import re
import subprocess
import threading
import time

from servers import FPS, PUSH_SERVER, Ours, clip_4m, cost, load, median
from peers import Camera


class Turns:
    """A server that takes turns between pushing from its own thread and from one beside it."""

    def __init__(self, path):
        self.process = subprocess.Popen([PUSH_SERVER, path, str(FPS)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.address = self.process.stdout.readline().strip()
        self.process.stdout.readline()

    def end(self):
        told, _ = self.process.communicate()
        return {name: float(value) for name, value in (pair.split("=") for pair in told.split())}


class Piped(Camera):
    """inet-camera on a pipe that brings a picture at a time."""

    def __init__(self, path):
        with open(path, "rb") as file:
            pictures = re.split(b"(?=\0\0\0\1\x09)", file.read())[1:]
        reading, writing = os.pipe()
        threading.Thread(target=self.feed, args=(pictures, writing), daemon=True).start()
        os.dup2(reading, 0)  # servers inherit it
        os.close(reading)
        super().__init__("--source", "-")
        self.address = self.url()
        with open(os.devnull, "rb") as nothing:
            os.dup2(nothing.fileno(), 0)

    @staticmethod
    def feed(pictures, writing):
        due = time.monotonic()
        with contextlib.suppress(BrokenPipeError), open(writing, "wb", buffering=0) as pipe:
            for picture in itertools.cycle(pictures):
                pipe.write(picture)
                due += 1 / FPS
                time.sleep(max(due - time.monotonic(), 0))


class Fetched(Camera):
    """inet-camera on another one, fetched over udp."""

    def __init__(self, path):
        self.first = Ours(path)
        super().__init__("--source", f"live={self.first.address}", "--transport", "udp")
        self.address = self.url()

    def __exit__(self, *error):
        super().__exit__(*error)
        self.first.__exit__(*error)


def main():
    parser = argparse.ArgumentParser(prog="bench/pushed", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--viewers", type=int, default=50)
    options = parser.parse_args()
    video = clip_4m()
    print(f"{options.viewers} viewers; medians over {options.rounds} rounds. A push, in microseconds a picture:\n\n"
          "| Transport | From the sending thread | From beside | Ratio |\n|---|---|---|---|")
    for transport in ("tcp", "udp"):
        told = []
        for _ in range(options.rounds):
            server = Turns(video)
            load(server, options.viewers, transport, 2 * options.seconds)
            told.append(server.end())
        within, beside, ratio = (median(each[name] for each in told) for name in ("within", "beside", "ratio"))
        print(f"| {transport} | {within:.0f} | {beside:.0f} | {ratio:.2f} |", flush=True)
    print("\nThe camera, in processor seconds for each GB:\n\n"
          "| Transport | Clip | Pipe | Pipe / clip | Fetched | Fetched / clip |\n|---|---|---|---|---|---|")
    kinds = [Ours, Piped, Fetched]
    for transport in ("tcp", "udp"):
        rounds = []
        for number in range(options.rounds):
            costs = {}
            for kind in kinds[number % 3:] + kinds[:number % 3]:
                with kind(video) as server:
                    costs[kind] = cost(load(server, options.viewers, transport, options.seconds))
            rounds.append(costs)
        row = [f"{median(each[Ours] for each in rounds):.2f}"]
        for kind in kinds[1:]:
            row += [f"{median(each[kind] for each in rounds):.2f}",
                    f"{median(each[kind] / each[Ours] for each in rounds):.2f}"]
        print(f"| {transport} | {' | '.join(row)} |", flush=True)


main()
