"""Sends datagrams to the group of WS-Discovery, or listens to it.

probe.py ADDRESS COUNT   sends the texts of the standard input, a JSON list, from that address; prints what comes back: so
                         many datagrams, and what comes in the second behind them
probe.py ADDRESS         prints "ready", then the first datagram of the group that it hears
"""
import json
import socket
import sys

GROUP = "239.255.255.250", 3702
address, *count = sys.argv[1:]
peer = socket.socket(type=socket.SOCK_DGRAM)
peer.settimeout(20)
if count:
    peer.bind((address, 0))
    peer.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(address))
    for text in json.load(sys.stdin):
        peer.sendto(text.encode(), GROUP)
    found = []
    try:
        while True:
            found.append(peer.recv(65536).decode())
            if len(found) >= int(count[0]):
                peer.settimeout(1)
    except TimeoutError:
        print(json.dumps(found))
else:
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    peer.bind(GROUP)
    peer.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, socket.inet_aton(GROUP[0]) + socket.inet_aton(address))
    print("ready", flush=True)
    print(peer.recv(65536).decode())
