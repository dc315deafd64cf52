"""kamailio as a registrar and relay."""
import os
import socket
import subprocess
import tempfile
import time

CONFIGURATION = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data", "sip", "kamailio.cfg")


def free_port():
    """One that is free for both transports."""
    while True:
        with socket.socket() as tcp, socket.socket(type=socket.SOCK_DGRAM) as udp:
            tcp.bind(("127.0.0.1", 0))
            try:
                udp.bind(tcp.getsockname())
            except OSError:
                continue
            return tcp.getsockname()[1]


class Kamailio:
    """Ends with the `with` that it stands in. `arguments` go to its command line."""

    def __init__(self, *arguments):
        self.folder = tempfile.TemporaryDirectory()
        self.port = free_port()
        name, address = self.folder.name, f"127.0.0.1:{self.port}"
        self.process = subprocess.Popen(["kamailio", "-f", CONFIGURATION, "-DD", "-E", "-w", name, "-Y", name, "-m", "64",
                                         "-l", f"tcp:{address}", "-l", f"udp:{address}", *arguments],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
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
