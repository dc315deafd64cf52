"""The table of bench/compare-rtsp. The servers take turns, so that what else the machine does falls on all of them."""
import argparse

from servers import Floor, GStreamer, Ours, clip_4m, cost, load, median

TRANSPORTS = ("tcp", "udp", "udp-gro")


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-rtsp", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=8, help="measured in each run, after a warm-up of 2")
    parser.add_argument("--no-peer", action="store_true", help="ours and bare sends alone")
    parser.add_argument("--transport", nargs="+", choices=TRANSPORTS, default=TRANSPORTS)
    options = parser.parse_args()
    cases = [(viewers, transport) for transport in options.transport for viewers in (50, 400)]
    kinds = [Ours, Floor] if options.no_peer else [Ours, Floor, GStreamer]
    video = clip_4m()
    results = {}
    for number in range(options.rounds):
        for case in cases:
            # Who begins changes with the round.
            for kind in kinds[number % len(kinds):] + kinds[:number % len(kinds)]:
                with kind(video) as server:
                    results.setdefault((kind, case), []).append(load(server, *case, options.seconds))
        print(f"round {number + 1} of {options.rounds} done", flush=True)
    print_table(results, cases, kinds)


def print_table(results, cases, kinds):
    with open("/proc/sys/net/ipv4/tcp_congestion_control", encoding="ascii") as file:
        congestion = file.read().strip()
    print("\nCPU seconds per GB served (RTP of a 4 Mbit/s stream); in brackets what the system took of it. Figures and "
          f"ratios are medians over\nthe rounds. Congestion control: {congestion}. Missed: packets lost, pictures "
          "missing, viewers that did not play, over all rounds.\n")
    names = {Ours: "ours", Floor: "bare sends", GStreamer: "GStreamer"}
    heads = ["Transport", "Viewers", "Ours", "Bare sends", "Ours / bare sends"]
    if GStreamer in kinds:
        heads += ["GStreamer", "Ours / GStreamer"]
    heads += [f"Picture delay p99, ms: {', '.join(names[each] for each in kinds)}"]
    heads += [f"Missed, {names[each]}" for each in kinds if each is not Floor]
    print_row(heads)
    print_row(["---"] * len(heads))
    for viewers, transport in cases:
        of = {kind: results[kind, (viewers, transport)] for kind in kinds}
        row = [transport, str(viewers), costs(of[Ours])]
        for kind in kinds[1:]:
            row += [costs(of[kind]), f"{median(cost(a) / cost(b) for a, b in zip(of[Ours], of[kind])):.2f}"]
        row += [", ".join(f"{median(each['delay_p99_ms'] for each in of[kind]):.1f}" for kind in kinds)]
        print_row(row + [missed(of[kind]) for kind in kinds if kind is not Floor])


def print_row(cells):
    print(f"| {' | '.join(cells)} |")


def costs(rounds):
    system = median(each["server_sys"] / (each["bytes"] / 1e9) for each in rounds)
    return f"{median(cost(each) for each in rounds):.2f} ({system:.2f})"


def missed(rounds):
    parts = (sum(each["lost"] for each in rounds), sum(each["missing"] for each in rounds),
             sum(each["viewers"] - each["playing"] for each in rounds))
    return ", ".join(f"{part:.0f}" for part in parts)


main()
