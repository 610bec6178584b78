#!/usr/bin/env python3
"""Processor time of Python beside the C host, at a full line of 16 headsets: bench/python_line.py [SECONDS] [BUILD_FOLDER]

The host is examples/many_headsets; the programs in Python do as much: count packets and losses. Each has the virtual
dongle for itself, and is looked at while data flows, all of its threads together.
"""
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
PRELUDE = """
import signal, sys, velmora
signal.signal(signal.SIGINT, signal.default_int_handler)
packets = lost = 0
with velmora.open(sys.argv[1]) as dongle:
    dongle.connect()
    print("data", flush=True)
    try:
"""
PYTHON = {
    "Python, blocks()": """
        for block in dongle.blocks():
            packets += 1
            lost += block.lost""",
    "Python, blocks(), mean of every packet": """
        for block in dongle.blocks():
            packets += 1
            lost += block.lost
            block.samples.mean(axis=0)""",
    "Python, blocks(batch=0)": """
        for block in dongle.blocks(batch=0):
            packets += 1
            lost += block.lost""",
    "Python, records(), sums by NumPy": """
        while True:
            records = dongle.records(timeout=0.1, at_least=256)
            raw = records[records["kind"] == velmora.RAW]
            packets += len(raw)
            lost += int(raw["lost"].sum()) + int(raw["dropped"].sum())""",
}
EPILOGUE = """
    except KeyboardInterrupt:
        print(packets, "packets,", lost, "lost")
"""


def processor_time(process):
    return sum(int(thread.read_text().split()[0]) for thread in pathlib.Path(f"/proc/{process.pid}/task").glob("*/schedstat"))


def measure(build, seconds, command, environment):
    with tempfile.TemporaryDirectory() as folder:
        port = folder + "/port"
        dongle = subprocess.Popen([build / "dongle/velmora-dongle", "--link", port, "--headsets", "16", "--fill", "200000",
                                   "--no-gaps", "--scan-duration", "100", "--connect-duration", "10"],
                                  stdout=subprocess.PIPE, text=True)
        dongle.stdout.readline()
        with open(folder + "/out", "w+", encoding="utf-8") as out:
            host = subprocess.Popen([*command, port], stdout=out, stderr=subprocess.STDOUT, env=environment)
            time.sleep(3)
            before, began = processor_time(host), time.monotonic()
            time.sleep(seconds)
            used, took = processor_time(host) - before, time.monotonic() - began
            host.send_signal(signal.SIGINT)
            host.wait()
            dongle.terminate()
            dongle.communicate()
            out.seek(0)
            text = out.read().splitlines()
    last = text[-16:] if text and "lost" in text[-1] and "connected" in text[-1] else text[-1:]
    lost = sum(int(line.split(",")[1].split()[0]) for line in last)
    packets = sum(int(line.split(" packets")[0].split()[-1]) for line in last)
    return used / took / 1e7, packets, lost


def main(seconds="10", build=ROOT / "build/linux"):
    build = pathlib.Path(build)
    environment = {"PYTHONPATH": str(ROOT / "python"), "VELMORA_LIBRARY": str(build / "libvelmora.so")}
    commands = {"C, examples/many_headsets": [build / "examples/many_headsets"]}
    for name, body in PYTHON.items():
        commands[name] = ["/usr/bin/python3", "-c", PRELUDE + body + EPILOGUE]
    base = None
    for name, command in commands.items():
        percent, packets, lost = measure(build, float(seconds), command, environment)
        base = base or percent
        print(f"{name:40} {packets:6} packets, {lost} lost, {percent:5.2f} % of a core, {percent / base:4.1f} of the C host",
              flush=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
