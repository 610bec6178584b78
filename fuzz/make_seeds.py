#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets: fuzz/make_seeds.py. The folders beside it named after the targets hold them."""

import pathlib

ROOT = pathlib.Path(__file__).resolve().parent / "seeds"


def write(target, seeds):
    folder = ROOT / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, data in seeds.items():
        (folder / name).write_bytes(data)


def raw(channel_byte, counter):
    samples = b"".join((37 * i - 2000).to_bytes(2, "big", signed=True) for i in range(112))
    return bytes([0x55, 0x55, 0xE2, channel_byte]) + samples + bytes([counter, 0])


def response(second, data):
    return bytes([0xAA, second]) + data + bytes([~sum(data) & 0xFF])


def envelope(device, payload):
    return b"AT+DAT%d:%d#" % (device, len(payload)) + payload


BATTERY = bytes([0x55, 0x55, 0x02, 0, 0x57, 5, 0, 0])
POST = bytes([0x55, 0x55, 0x20, 0, 1, 8, 2, 4, 3, 0, 0]) + bytes(range(25))
SHORT = response(0xDD, b"\x01\x0a\x0b\x0c\x0d")
LONG = response(0xEE, bytes(range(13)))

# Switches (1 log, 2 dump, 4 merged, 8 gate closed, 16 collection restarted in callbacks), then the lengths of four reads
# in units of 40 bytes.
WHOLE = bytes([7, 255, 255, 255, 255])
PIECES = bytes([1, 0, 1, 3, 2])
RESTARTS = bytes([21, 6, 2, 6, 6])
CLOSED = bytes([9, 3, 3, 3, 3])

FRAMES = {
    "battery": BATTERY,
    "post": POST,
    "responses": SHORT + LONG,
    "response_damaged": SHORT[:7] + b"\x00" + LONG[:15] + b"\x00" + BATTERY,
    "single_losses": raw(0x83, 10) + raw(0x83, 12) + raw(0x83, 15) + raw(0x83, 15),
    "single_wrap": raw(0x80, 254) + raw(0x80, 0) + raw(0xCF, 1),
    "multi": raw(0x43, 7) + raw(0x43, 8) + raw(0x43, 11),
    "multi_15": raw(0x4F, 255) + raw(0x4F, 2),
    "channel_invalid": raw(0x3F, 1) + raw(0x40, 1) + BATTERY,
    "stray": b"\x55\x55\x55\xaa\xaa\x55\x02" + BATTERY + b"\x00\xdd" + POST[:20],
}


def main():
    write("fuzz_direct", {name: WHOLE + data for name, data in FRAMES.items()})
    write("fuzz_direct", {
        "pieces": PIECES + BATTERY + raw(0x81, 1) + POST + LONG,
        "restarts": RESTARTS + raw(0x81, 1) + raw(0x81, 3) + BATTERY,
        "gate_closed": CLOSED + raw(0x81, 1) + raw(0x42, 3) + SHORT,
    })

    write("fuzz_framer", {name: WHOLE + envelope(3, data) for name, data in FRAMES.items()})
    write("fuzz_framer", {
        "pieces": PIECES + envelope(0, raw(0x81, 1)[:100]) + envelope(1, BATTERY) + envelope(0, raw(0x81, 1)[100:]),
        "restarts": RESTARTS + envelope(2, raw(0x81, 1)[:200]) + envelope(2, raw(0x81, 1)[200:] + BATTERY) + envelope(2, POST),
        "gate_closed": CLOSED + envelope(15, raw(0x42, 3)) + envelope(15, raw(0x42, 3)),
        "headset_unknown": WHOLE + envelope(16, BATTERY) + envelope(-1, BATTERY) + envelope(99999999, BATTERY),
        "header_damaged": WHOLE + b"AT+DAT#AT+DAT28#AT+DAT2:-8#AT+DAT0000000002:8#AT+DATAT+DAT2:\x00" + envelope(2, BATTERY),
        "header_odd": WHOLE + b"AT+DAT +2:\t+0#AT+DATx:y#AT+DAT:#" + envelope(2, BATTERY),
        "length_huge": WHOLE + b"AT+DAT2:99999999#" + BATTERY,
        "no_mark": WHOLE + envelope(1, BATTERY) + b"AT+DAT2:8 and then nothing",
        "tail": WHOLE + b"xyz" + envelope(1, BATTERY) + b"AT+DAT1:",
        "history_full": bytes([3, 15, 1, 9, 9]) + envelope(1, bytes(700)) + envelope(1, BATTERY),
    })

    write("fuzz_scan", {
        "line": b"A1B2C3D4E5F6,1 XAI-07\n",
        "lines": b"A1B2C3D4E5F6,0 XAI-07\r\nA1B2C3D4E5F6,1 XAI-07\r\nF1E2D3C4B5A6,1 AI",
        "others": b"Start scan\nA1B2C3D4E5F6,1 Headset\n\n,,,,,,,,,,,,,,,\n",
        "colons": b"A1:B2:C3:D4:E5:F6,1 XAI\nA1B2C3D4E5F6,:1 A:I\nA1B2C3D4E:::,1 AI\n",
        "numbers": b"A1B2C3D4E5F6,x AI\nA1B2C3D4E5F7,99999999999 AI\nA1B2C3D4E5F8, -1 AI\nA1B2C3D4E5F9,+1 AI\n",
        "no_space": b"A1B2C3D4E5F6,1XAI\nA1B2C3D4E5F6 1,XAI\nA1B2C3D4E5 6,1 XAI\n",
        "zero_byte": b"A1B2C3D4E5F6,1 XAI\0\nA1B2C3D4E5F7,1 XAI\n",
        "long_line": b"A1B2C3D4E5F6,1 " + b"AI" * 300 + b"\nA1B2C3D4E5F7,1 AI\n",
        "name_lengths": b"A1B2C3D4E5F6,1 0123456789abcAI\nA1B2C3D4E5F7,1 0123456789abcdAI\n",
        "short": b"A1B2C3D4E5F6",
    })

    write("fuzz_replies", {
        "connected": b"Service connected. C2A1B3D4E5F6,3\n",
        "connected_lines": b"Service connected.C2A1B3\nnoise Service connected.   c2a1b3d4e5f6 , 7\n",
        "connected_nobody": b"Service connected.    \nService connected.\nService connected. AB,1",
        "connected_numbers": b"Service connected. C2A1B3D4E5F6,x\nService connected. C2A1B3D4E5F7,2147483648\n",
        "disconnected": b"Service connected. C2A1B3D4E5F6,1\nClient disconnected,C2A1B3D4E5F6,19",
        "disconnected_end": b"Client disconnected\n,C2A1B3D4E5F6",
        "disconnected_damaged": b"Client disconnected,C2A1B3D4E5F6\nClient disconnected,C2A1B3D4E5F6,1",
        "disconnected_no_comma": b"Client disconnected",
        "list": b"AT+LIST=1,C2A1B3D4E5F6;2,0A1B2C3D4E5F\n",
        "list_none": b"AT+LIST=none\nService connected. C2A1B3D4E5F6,3",
        "list_damaged": b"AT+LIST=x,01;3;3,C2A1-B3;;99999999999,02; -4z,03;3,;",
        "list_long": b"AT+LIST=" + b";".join(b"%d,%012X" % (i, i) for i in range(40)),
        "mixed": b"AT+LIST=1,AB\nClient disconnected,C2A1B3D4E5F6,\nService connected. C2A1B3D4E5F6,3\nService connected. AB",
    })


if __name__ == "__main__":
    main()
