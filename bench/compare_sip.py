"""The tables of bench/compare-sip. The servers take turns, so that what else the machine does falls on both."""
import argparse
import os
import socket
import subprocess
import sys
import tempfile
import time

from servers import ROOT, Program, median, processor_seconds

SIP_LOAD = os.path.join(ROOT, "build", "release", "bench", "sip_load")
SIP_RELAY = os.path.join(ROOT, "build", "release", "bench", "sip_relay")
REQUESTS = 3  # of a call: INVITE, ACK, BYE
PLACES = 500  # connections of a network thread

# As little as a registrar and relay needs: one worker, users in memory, neither transactions nor passwords nor a log.
CONFIGURATION = """
children=1
tcp_children=1
debug=-1
log_stderror=yes
auto_aliases=no
dns=no
rev_dns=no
tcp_connection_lifetime=3605
tcp_max_connections=2048
listen=tcp:127.0.0.1:{port}

loadmodule "sl.so"
loadmodule "pv.so"
loadmodule "usrloc.so"
loadmodule "registrar.so"
modparam("usrloc", "db_mode", 0)

request_route {{
    if (method == "REGISTER") {{
        save("location");
        exit;
    }}
    if (method == "INVITE") {{
        sl_send_reply("100", "Trying");
        if (!lookup("location")) {{
            sl_send_reply("480", "Temporarily Unavailable");
            exit;
        }}
    }}
    forward();
}}
"""


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Ours(Program):
    def __init__(self):
        super().__init__(SIP_RELAY, str(free_port()))
        self.port = int(self.address)


class Kamailio:
    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.port = free_port()
        name = self.folder.name
        with open(f"{name}/configuration", "w", encoding="ascii") as file:
            file.write(CONFIGURATION.format(port=self.port))
        command = "kamailio", "-f", f"{name}/configuration", "-DD", "-E", "-w", name, "-Y", name
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not self.answers():
            assert self.process.poll() is None
            time.sleep(0.02)

    def answers(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()
        self.folder.cleanup()


def load(server, *arguments):
    """What sip_load counted, by name, and the processor seconds of the server for a call."""
    before = processor_seconds(server.process)
    done = subprocess.run([SIP_LOAD, str(server.port), *map(str, arguments)], stdout=subprocess.PIPE, text=True,
                          timeout=120, check=False)
    if done.returncode:
        sys.exit(f"sip_load ended with {done.returncode}")
    result = {name: float(value) for name, value in (pair.split("=") for pair in done.stdout.split())}
    return {**result, "rate": REQUESTS * result["calls"] / result["seconds"],
            "cost": (processor_seconds(server.process) - before) / (REQUESTS * result["calls"]) * 1e6}


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-sip", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=4)
    parser.add_argument("--pairs", type=int, default=50)
    options = parser.parse_args()
    kinds = Ours, Kamailio
    results = {kind: [] for kind in kinds}
    quiet = []
    for number in range(options.rounds):
        for kind in kinds[::1 if number % 2 else -1]:
            with kind() as server:
                results[kind].append(load(server, "--pairs", options.pairs, "--seconds", options.seconds))
        with Ours() as server:
            quiet.append(load(server, "--pairs", 1, "--idle", PLACES - 2, "--pause", 5, "--seconds", options.seconds))
        print(f"round {number + 1} of {options.rounds} done", flush=True)

    def ratio(name):
        return f"{median(a[name] / b[name] for a, b in zip(results[Ours], results[Kamailio])):.2f}"

    print(f"\n{options.pairs} pairs of phones, medians over the rounds.\n")
    print("| | Ours | kamailio | Ours / kamailio |\n| --- | --- | --- | --- |")
    for title, name in (("Requests per second", "rate"), ("Processor time for a request, µs", "cost")):
        cells = [f"{median(each[name] for each in results[kind]):.{0 if name == 'rate' else 1}f}" for kind in kinds]
        print(f"| {title} | {cells[0]} | {cells[1]} | {ratio(name)} |")
    half, most = (median(each[f"setup_{name}_ms"] for each in quiet) for name in ("p50", "p99"))
    print(f"\nFrom INVITE to 200 through ours, {PLACES - 2} other phones registered: median {half:.2f} ms, "
          f"99th percentile {most:.2f} ms, over {sum(each['calls'] for each in quiet):.0f} calls.")


main()
