"""The table of bench/compare-dash. The packagers take turns, so that what else the machine does falls on both."""
import argparse
import os
import resource
import subprocess
import tempfile

from servers import ROOT, clip_300k, clip_4m, ffmpeg, median

PACKER = os.path.join(ROOT, "build", "release", "bench", "dash_packer")
FPS = 25


def processor_time(*command):
    """Processor seconds of a command that packs into a directory of its own, and what it printed."""
    with tempfile.TemporaryDirectory() as folder:
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        text = subprocess.run(command, cwd=folder, stdout=subprocess.PIPE, text=True, check=True).stdout
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime, text


def contained(path):
    """The clip in a file of which the peer reads whole pictures, as we get them."""
    result = os.path.splitext(path)[0] + ".mp4"
    if not os.path.exists(result):
        ffmpeg("-r", str(FPS), "-i", path, "-c", "copy", "-f", "mp4", result + ".part")
        os.rename(result + ".part", result)
    return os.path.abspath(result)


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-dash", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=1000, help="of media that each packs")
    options = parser.parse_args()
    print("CPU seconds per GB of pictures, medians.\n")
    print("| Stream | Ours | ffmpeg | Ours / ffmpeg |\n| --- | --- | --- | --- |")
    for name, path in ("4 Mbit/s", clip_4m()), ("300 kbit/s", clip_300k()):
        ours = [PACKER, os.path.abspath(path), str(options.seconds)]
        peer = ["ffmpeg", "-v", "error", "-nostdin", "-stream_loop", "-1", "-i", contained(path), "-t",
                str(options.seconds), "-c", "copy", "-f", "dash", "-seg_duration", "2", "-window_size", "8",
                "-extra_window_size", "0", "live.mpd"]
        costs = []
        for number in range(options.rounds):
            pair = {}
            for command in (ours, peer)[:: 1 if number % 2 else -1]:
                pair[command[0]], text = processor_time(*command)
                if command is ours:
                    gigabytes = int(text) / 1e9
            costs.append((pair[ours[0]] / gigabytes, pair[peer[0]] / gigabytes))
        print(f"| {name} | {median(a for a, _ in costs):.2f} | {median(b for _, b in costs):.2f} | "
              f"{median(a / b for a, b in costs):.2f} |", flush=True)


main()
