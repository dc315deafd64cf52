"""Three viewers over UDP, each with an address of its own, of which two vanish: prints the longest silence of the third
in the seconds after that. Runs in the namespace of the viewers."""
import socket
import subprocess
import sys
import time

from player import Player

url, near = sys.argv[1:]
players = []
for number in (2, 3, 4):
    receiver = socket.socket(type=socket.SOCK_DGRAM)
    receiver.bind((f"10.81.7.{number}", 7000))
    player = Player(url, source=f"10.81.7.{number}")
    player.play(("video",), "RTP/AVP;unicast;client_port=7000-7001")
    players.append((player, receiver))
for number in (3, 4):
    subprocess.run(["ip", "address", "del", f"10.81.7.{number}/24", "dev", "end"], check=True)
subprocess.run(["ip", "-n", near, "neigh", "flush", "dev", "end"], check=True)
_, receiver = players[0]
receiver.settimeout(10)
longest, last = 0, time.monotonic()
end = last + 6
while last < end:
    receiver.recv(2000)
    longest, last = max(longest, time.monotonic() - last), time.monotonic()
print(longest)
