"""The table of bench/compare-rtsp. Both servers take turns, so that what else the machine does falls on both."""
import argparse

from servers import GStreamer, Ours, clip_4m, cost, floor, load, median

FLOOR = "floor"
CASES = [(viewers, transport) for transport in ("tcp", "udp", "udp-gro") for viewers in (50, 400)]


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-rtsp", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=8, help="measured in each run, after a warm-up of 2")
    options = parser.parse_args()
    video = clip_4m()
    results = {}
    for number in range(options.rounds):
        for case in CASES:
            # Who begins changes with the round.
            for kind in (Ours, GStreamer) if number % 2 == 0 else (GStreamer, Ours):
                with kind(video) as server:
                    results.setdefault((kind, case), []).append(load(server, *case, options.seconds))
            results.setdefault((FLOOR, case), []).append(floor(*case, options.seconds))
        print(f"round {number + 1} of {options.rounds} done", flush=True)
    print_table(results)


def print_table(results):
    print("\nCPU seconds per GB served (RTP of a 4 Mbit/s stream), medians; in brackets what the system took of it.\n"
          "Missed: packets lost, pictures missing, viewers that did not play, over all rounds.\n")
    print("| Transport | Viewers | Ours | GStreamer | Ratio | Bare sends | Ours above them | GStreamer above them | "
          "Picture delay p99, ms | Missed, ours | Missed, GStreamer |")
    print("|---|---|---|---|---|---|---|---|---|---|---|")
    for viewers, transport in CASES:
        ours, peer = (results[kind, (viewers, transport)] for kind in (Ours, GStreamer))
        ratio = median(cost(a) / cost(b) for a, b in zip(ours, peer))
        delay = " and ".join(f"{median(r['delay_p99_ms'] for r in each):.1f}" for each in (ours, peer))
        bare = results[FLOOR, (viewers, transport)]
        above = [median(cost(a) - b for a, b in zip(each, bare)) for each in (ours, peer)]
        print(f"| {transport} | {viewers} | {costs(ours)} | {costs(peer)} | {ratio:.2f} | {median(bare):.2f} | "
              f"{above[0]:.2f} | {above[1]:.2f} | {delay} | {missed(ours)} | {missed(peer)} |")


def costs(rounds):
    system = median(each["server_sys"] / (each["bytes"] / 1e9) for each in rounds)
    return f"{median(cost(each) for each in rounds):.2f} ({system:.2f})"


def missed(rounds):
    parts = (sum(each["lost"] for each in rounds), sum(each["missing"] for each in rounds),
             sum(each["viewers"] - each["playing"] for each in rounds))
    return ", ".join(f"{part:.0f}" for part in parts)


main()
