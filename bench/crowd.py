"""The table of bench/crowd."""
import argparse
import os

from servers import FPS, Ours, clip_300k, load

VIEWERS_OF_A_THREAD = 500


def processor_times():
    """(idle, all) of the machine, in ticks."""
    with open("/proc/stat", encoding="ascii") as file:
        ticks = [int(each) for each in file.readline().split()[1:9]]
    return ticks[3] + ticks[4], sum(ticks)


def measure(transport, viewers, seconds):
    # One more than must be: the threads are filled evenly, and none to its brim.
    threads = viewers // VIEWERS_OF_A_THREAD + 1
    with Ours(clip_300k(), "--threads", str(threads)) as server:
        before = processor_times()
        result = load(server, viewers, transport, seconds, "--threads", "2")
        after = processor_times()
    idle = (after[0] - before[0]) / (after[1] - before[1])
    late = viewers * FPS * seconds - result["pictures"]
    print(f"| {transport} | {viewers} | {threads} | {result['playing']:.0f} | {result['lost']:.0f} | "
          f"{result['missing']:.0f} | {late / viewers:+.2f} | {result['delay_p50_ms']:.1f} | "
          f"{result['delay_p99_ms']:.1f} | {result['server_cpu'] / result['seconds']:.2f} | "
          f"{result['load_cpu'] / result['seconds']:.2f} | {idle:.0%} |", flush=True)


def main():
    parser = argparse.ArgumentParser(prog="bench/crowd", description=__doc__)
    parser.add_argument("--viewers", type=int, nargs="+", default=[1000, 2000, 3000])
    parser.add_argument("--transport", nargs="+", default=["tcp", "udp"])
    parser.add_argument("--seconds", type=int, default=20)
    options = parser.parse_args()
    print(f"Stream of 300 kbit/s at {FPS} pictures a second; {os.cpu_count()} cores for camera, load and whatever else runs. "
          "Behind: pictures fewer than the time has room for.\n\n"
          "| Transport | Viewers | Threads | Played | Packets lost | Pictures missing | Behind, a viewer | Delay p50, ms "
          "| Delay p99, ms | Camera, cores | Load, cores | Idle |\n|---|---|---|---|---|---|---|---|---|---|---|---|")
    for transport in options.transport:
        for viewers in options.viewers:
            measure(transport, viewers, options.seconds)


main()
