"""The table of bench/compare-rtmp. The servers take turns, so that what else the machine does falls on all of them."""
import argparse
import hashlib
import hmac
import os
import selectors
import socket
import time

from servers import Camera, clip_4m, ffmpeg, median, processor_seconds
from rtmp_peers import NginxRtmp, RtmpPlayer

PRIME = int("FFFFFFFFFFFFFFFFC90FDAA22168C234C4C6628B80DC1CD129024E088A67CC74020BBEA63B139B22514A08798E3404DD"
            "EF9519B3CD3A431B302B0A6DF25F14374FE1356D6D51C245E485B576625E7EC6F44C42E9A637ED6B0BFF5CB6F406B7ED"
            "EE386BFB5A899FA5AE9F24117C4B1FE649286651ECE65381FFFFFFFFFFFFFFFF", 16)  # RFC 2409, 6.2
KEY_SIZE, RUN_OFF = 128, 1536


def rc4(key):
    state, at, other = list(range(256)), 0, 0
    for i in range(256):
        other = (other + state[i] + key[i % len(key)]) & 255
        state[i], state[other] = state[other], state[i]
    other = 0
    while True:
        at = (at + 1) & 255
        other = (other + state[at]) & 255
        state[at], state[other] = state[other], state[at]
        yield state[(state[at] + state[other]) & 255]


class Encrypted(RtmpPlayer):
    """RTMPE. What comes is not read, so only what is said goes through the cipher."""

    def play(self):
        def key_place(packet):
            return sum(packet[1532:1536]) % 632 + 772

        own = int.from_bytes(os.urandom(KEY_SIZE), "big")
        packet = bytearray(os.urandom(1536))
        public = pow(2, own, PRIME).to_bytes(KEY_SIZE, "big")
        packet[key_place(packet):key_place(packet) + KEY_SIZE] = public
        self.socket.sendall(b"\6" + packet)
        answer = self.read(1 + 2 * 1536)[1:1537]
        peer = answer[key_place(answer):key_place(answer) + KEY_SIZE]
        secret = pow(int.from_bytes(peer, "big"), own, PRIME).to_bytes(KEY_SIZE, "big")
        self.cipher = rc4(hmac.new(secret, peer, hashlib.sha256).digest()[:16])
        for _ in range(RUN_OFF):
            next(self.cipher)
        self.socket.sendall(bytes(1536))
        self.ask()

    def send(self, data):
        super().send(bytes(each ^ next(self.cipher) for each in data))


class Ours(Camera):
    """inet-camera, which fetches the stream from another server."""
    player = RtmpPlayer

    def __init__(self, path):
        self.source = NginxRtmp(path)
        super().__init__("--rtmp", "0", "--source", f"live={self.source.address}")
        self.address = self.rtmp["live"]

    def __exit__(self, *error):
        self.told()  # the stream may have come after the first attempt
        super().__exit__(*error)
        self.source.__exit__(*error)


class OursEncrypted(Ours):
    player = Encrypted


class Nginx(NginxRtmp):
    player = RtmpPlayer


def film(path):
    """The clip in a form that ffmpeg sends without changing it."""
    made = os.path.splitext(path)[0] + ".mp4"
    if not os.path.exists(made):
        ffmpeg("-r", "25", "-i", path, "-c", "copy", "-f", "mp4", made + ".part")
        os.rename(made + ".part", made)
    return made


def show(server, viewers, seconds):
    """Processor seconds of the server for each GB that viewers took, and how many bytes that were. The system throws
    away what they read."""
    waiting, room, players = selectors.DefaultSelector(), bytearray(1 << 20), []
    for _ in range(viewers):
        players.append(server.player(server.address))
        players[-1].play()
        waiting.register(players[-1].socket, selectors.EVENT_READ)

    def take(until):
        taken = 0
        while (left := until - time.monotonic()) > 0:
            taken += sum(key.fileobj.recv_into(room, len(room), socket.MSG_TRUNC) for key, _ in waiting.select(left))
        return taken

    take(time.monotonic() + 4)
    before = processor_seconds(server.process)
    taken = take(time.monotonic() + seconds)
    used = processor_seconds(server.process) - before
    for each in players:
        each.socket.close()
    return used / (taken / 1e9), taken


def main():
    parser = argparse.ArgumentParser(prog="bench/compare-rtmp", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=8)
    parser.add_argument("--viewers", type=int, default=50)
    options = parser.parse_args()
    video = film(clip_4m())
    kinds = Ours, Nginx, OursEncrypted
    results = {kind: [] for kind in kinds}
    for number in range(options.rounds):
        for kind in kinds[::1 if number % 2 else -1]:
            with kind(video) as server:
                results[kind].append(show(server, options.viewers, options.seconds))
        print(f"round {number + 1} of {options.rounds} done", flush=True)
    ours, nginx, encrypted = (results[kind] for kind in kinds)

    def ratio(some, others, index):
        return f"{median(a[index] / b[index] for a, b in zip(some, others)):.2f}"

    print(f"\nProcessor seconds of the server for each GB that {options.viewers} viewers took, medians over the "
          f"rounds. Bytes that they took, ours / nginx: {ratio(ours, nginx, 1)}.\n")
    print("| Ours | nginx | Ours / nginx | Ours, encrypted | Encrypted / plain |\n| --- | --- | --- | --- | --- |")
    cells = [f"{median(cost for cost, _ in each):.2f}" for each in (ours, nginx, encrypted)]
    print(f"| {cells[0]} | {cells[1]} | {ratio(ours, nginx, 0)} | {cells[2]} | {ratio(encrypted, ours, 0)} |")


main()
