#!/usr/bin/env python3
# view_client.py: shows what a running `velmora view` or `velmora record --view` streams.
# Usage: view_client.py ADDRESS, the one that velmora has printed. Needs Debian's python3-websocket.
import struct
import sys

import websocket

HELLO, SAMPLES, EVENT, SKIPPED, ENDED = 1, 2, 4, 6, 7
stream = websocket.create_connection(sys.argv[1].replace("http://", "ws://").replace("/?", "/stream?"))
packets = lost = 0
while message := stream.recv():
    version, kind, entries, _, time = struct.unpack_from("<BBHIq", message)
    assert version == 1, "another version of the stream"
    if kind == HELLO:
        for i in range(entries):
            number, index, connected, address, name = struct.unpack_from("<hhB3x16s56s", message, 32 + 80 * i)
            print(f"headset {number}: {address.rstrip(bytes(1)).decode()} {name.rstrip(bytes(1)).decode()}")
    elif kind == SAMPLES:
        at = 16
        for _ in range(entries):
            sample, time, missing, dropped, headset, channel, channels, count, flags = struct.unpack_from(
                "<qqIIhBBHH", message, at)
            values = struct.unpack_from(f"<{count * channels}h", message, at + 32)
            at += 32 + 2 * count * channels
            packets, lost = packets + 1, lost + missing + dropped
            if packets % 100 == 0:
                print(f"headset {headset}, channel {channel}, sample {sample}: {values[0]} ...", flush=True)
    elif kind == EVENT:
        print("event", message[18], message[24:].rstrip(bytes(1)).decode())
    elif kind == SKIPPED:
        print("too slow for {1} packets".format(*struct.unpack_from("<QQ", message, 16)))
    elif kind == ENDED:
        print(message[16:].rstrip(bytes(1)).decode())
        break
print(f"{packets} packets, {lost} lost")
