"""The table of bench/request-cost."""
import argparse
import glob
import os
import re
import signal
import socket
import subprocess
import tempfile
import time

from servers import Camera

CONNECTIONS = 50


class Clients:
    """Kept connections; each sends its requests in one piece, and then all are read."""

    def __init__(self, web, at_once):
        port = int(re.search(r":(\d+)/", web).group(1))
        request = b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n\r\n"
        self.requests = request * at_once
        self.sockets = [socket.create_connection(("127.0.0.1", port)) for _ in range(CONNECTIONS)]
        self.sockets[0].sendall(request)
        answer = b""
        while not answer.endswith(b"ok\n"):
            answer += self.sockets[0].recv(4096)
        self.size = len(answer) * at_once
        self.run(10)

    def run(self, rounds):
        for _ in range(rounds):
            for one in self.sockets:
                one.sendall(self.requests)
            for one in self.sockets:
                left = self.size
                while left:
                    left -= len(one.recv(left))


def instructions(at_once, rounds):
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        prefix = ("valgrind", "-q", "--tool=callgrind", "--separate-threads=yes", "--instr-atstart=no",
                  f"--log-file={folder}/log", f"--callgrind-out-file={out}")
        with Camera("--http", "0", prefix=prefix) as camera:
            clients, pid = Clients(camera.web, at_once), str(camera.process.pid)
            subprocess.run(["callgrind_control", "-i", "on", pid], check=True, capture_output=True)
            clients.run(rounds)
            subprocess.run(["callgrind_control", "-d", "counted", pid], check=True, capture_output=True)
        threads = []
        for path in glob.glob(out + ".1-*"):
            with open(path, encoding="utf-8") as file:
                threads.append(int(re.search(r"^totals: (\d+)", file.read(), re.M).group(1)))
        return max(threads)


def system_calls(at_once, rounds):
    with Camera("--http", "0") as camera:
        clients = Clients(camera.web, at_once)
        with subprocess.Popen(["strace", "-f", "-c", "-p", str(camera.process.pid)], stderr=subprocess.PIPE,
                              text=True) as counter:
            time.sleep(1)  # it does not tell when it counts
            clients.run(rounds)
            counter.send_signal(signal.SIGINT)
            told = counter.communicate()[1]
    calls = {}
    for line in told.splitlines():
        fields = line.split()
        if len(fields) >= 5 and fields[3].isdigit():
            calls[fields[-1]] = int(fields[3])
    return calls


def main():
    parser = argparse.ArgumentParser(prog="bench/request-cost", description=__doc__)
    parser.add_argument("--rounds", type=int, default=100)
    options = parser.parse_args()
    print("| Requests in a read | Instructions | recv | send | epoll_wait |\n| --- | --- | --- | --- | --- |")
    for at_once in (1, 10):
        requests = CONNECTIONS * at_once * options.rounds
        counted, calls = instructions(at_once, options.rounds) / requests, system_calls(at_once, options.rounds)
        sends = calls.get("sendto", 0) + calls.get("sendmsg", 0)
        each = [number / requests for number in (calls["recvfrom"], sends, calls["epoll_pwait2"])]
        print(f"| {at_once} | {counted:.0f} | {' | '.join(f'{number:.2f}' for number in each)} |")


main()
