"""The examples against the virtual dongle; publishing needs Debian's mosquitto and python3-paho-mqtt."""
import collections
import importlib.util
import json
import os
import shutil
import signal
import socket
import subprocess
import threading
import time
import unittest

import numpy as np
import velmora
from dongle import PACKAGE, DongleTest

EXAMPLES = PACKAGE / "examples"
BROKER = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin")


# Lets much arrive before the gate closes, so that the end does not come with one reading, and tells how much in all.
LATE = """
import runpy, sys, time, velmora
def stop(dongle, stop=velmora.Dongle.stop):
    begin = dongle.statistics().raw
    while dongle.statistics().raw < begin + 1500:
        time.sleep(0.1)
    stop(dongle)
    print("raw:", dongle.statistics().raw)
    print("damaged:", sum(channel.damaged_counters for headset in dongle.headsets()
                          for channel in dongle.channel_statistics(headset.number).values()))
velmora.Dongle.stop = stop
del sys.argv[0]
runpy.run_path(sys.argv[0], run_name="__main__")
"""


class Examples(DongleTest):
    def test_recording_has_nan_where_packets_were_lost(self):
        self.plug("--headsets", 2, "--rate", 8000, "--channels", 3, "--lose-every", 5)
        file = self.folder / "recording.npz"
        host = self.python("-c", LATE, EXAMPLES / "record_npz.py", file, 1, self.port)
        output = host.communicate(timeout=60)[0]
        self.assertEqual(host.returncode, 0, output)
        recording, got = np.load(file), {}
        packets = sum(np.count_nonzero(~np.isnan(recording[name])) for name in recording if "_" not in name) // 112
        self.assertIn(f"raw: {packets}\n", output)
        for address in ("A1B2C3D4E501", "A1B2C3D4E502"):
            samples = recording[address]
            self.assertEqual(samples.shape[1], 3)
            for channel in range(3):
                there = ~np.isnan(samples[:len(samples) // 112 * 112, channel].reshape(-1, 112))
                self.assertTrue((there.any(axis=1) == there.all(axis=1)).all())
                last = len(there) - there.any(axis=1)[::-1].argmax()  # behind it the recording had ended
                got[address, channel] = there.any(axis=1)[:last].tolist()
        self.check_sent(got, "damaged: 0\n" not in output)

    def test_an_unplugging_costs_no_recording(self):
        self.plug("--hang-up-after", 1000)
        file = self.folder / "recording.npz"
        host = self.python(EXAMPLES / "record_npz.py", file, 1000, self.port)
        output = host.communicate(timeout=60)[0]
        self.assertEqual((host.returncode, set(np.load(file)) >= {"A1B2C3D4E501", "A1B2C3D4E502"}), (0, True), output)

    def test_live_shows_every_channel(self):
        self.plug("--headsets", 2, "--rate", 1000, "--channels", 2, "--packing", "multi")
        host = self.python(EXAMPLES / "live.py", self.port)
        wanted = {f"XAI-0{headset} channel  {channel}" for headset in (1, 2) for channel in (0, 1)}
        for line in host.stdout:
            if line.strip():
                self.assertRegex(line, r"XAI-0[12] channel  [01]: mean +-?\d+\.\d, +\d+\.\d samples/s")
                wanted.discard(line.split(":")[0])
            if not wanted:
                break
        self.assertFalse(wanted)
        host.send_signal(signal.SIGINT)
        self.assertEqual(host.wait(60), 0)

    @unittest.skipUnless(BROKER and importlib.util.find_spec("paho"), "needs mosquitto and paho-mqtt")
    def test_a_subscriber_gets_every_packet(self):
        import paho.mqtt.client as mqtt

        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            number = probe.getsockname()[1]
        settings = self.folder / "mosquitto.conf"
        settings.write_text(f"listener {number} 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n")
        broker = subprocess.Popen([BROKER, "-c", settings], stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (broker.terminate(), broker.wait()))
        topics, subscribed = collections.defaultdict(list), threading.Event()
        subscriber = mqtt.Client()
        subscriber.on_message = lambda _, __, message: topics[message.topic.split("/")[-1]].append(message.payload)
        subscriber.on_subscribe = lambda *_: subscribed.set()
        for _ in range(200):
            try:
                subscriber.connect("127.0.0.1", number)
                break
            except ConnectionRefusedError:
                time.sleep(0.05)
        subscriber.subscribe("velmora/#", qos=2)
        subscriber.loop_start()
        self.addCleanup(subscriber.loop_stop)
        self.assertTrue(subscribed.wait(20))

        self.plug("--headsets", 3, "--rate", 8000, "--channels", 2, "--lose-every", 10)
        host = self.python("-c", LATE, EXAMPLES / "publish_mqtt.py", "127.0.0.1", number, self.port)
        until = time.monotonic() + 60
        while len(topics["records"]) < 15 and time.monotonic() < until:
            time.sleep(0.05)
        host.send_signal(signal.SIGINT)
        output = host.communicate(timeout=60)[0]
        self.assertEqual(host.returncode, 0, output)
        published = 0
        got = collections.defaultdict(list)
        addresses = json.loads(topics["headsets"][0])
        while True:  # what the broker still passes on
            time.sleep(0.3)
            if len(topics["records"]) == published:
                break
            published = len(topics["records"])
        for record in np.frombuffer(b"".join(topics["records"]), velmora.RECORD):
            if record["kind"] == velmora.RAW:
                key = addresses[str(record["headset"])], record["channel"]
                got[key] += [False] * record["lost"] + [True]
        self.assertEqual(len(got), 6)
        self.assertIn(f"raw: {sum(map(sum, got.values()))}\n", output)
        self.check_sent(got, "damaged: 0\n" not in output)


if __name__ == "__main__":
    unittest.main()
