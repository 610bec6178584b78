"""The package against the shared library and the virtual dongle."""
import ast
import collections
import ctypes
import itertools
import re
import signal
import threading
import time
import unittest

import numpy as np
import velmora
from dongle import PACKAGE, DongleTest
from velmora import _library


class Declarations(unittest.TestCase):
    def test_structs_are_those_of_the_header(self):
        header = (PACKAGE.parent / "velmora/velmora.h").read_text()
        header = re.sub(r"/\*.*?\*/", "", header, flags=re.S).replace("VELMORA_CHANNELS]", "17]")
        names = {re.sub(r"(?!^)([A-Z])", r"_\1", name).lower(): [member for member, *_ in kind._fields_]
                 for name, kind in vars(_library).items()
                 if isinstance(kind, type) and issubclass(kind, _library._Struct) and kind is not _library._Struct}
        names["error"] = names.pop("error_detail")
        names["record"] = list(velmora.RECORD.names)
        for name, members in names.items():
            body = re.search(r"typedef struct velmora_%s \{(.*?)\} velmora" % name, header, re.S).group(1)
            self.assertEqual(re.findall(r"(\w+)(?:\[\w+\])?;", body), members, name)
        sizes = {_library.ErrorDetail: 512, _library.Port: 768, _library.Found: 80, _library.Wanted: 32,
                 _library.Headset: 88, _library.Statistics: 120, _library.HeadsetStatistics: 824}
        self.assertEqual({kind: ctypes.sizeof(kind) for kind in sizes}, sizes)
        self.assertEqual(velmora.RECORD.itemsize, 320)

    def test_is_python_3_9(self):
        for file in PACKAGE.rglob("*.py"):
            if "build" not in file.parts:
                ast.parse(file.read_text(), feature_version=(3, 9))


class Dongle(DongleTest):
    def test_delivers_every_packet_and_counts_the_lost(self):
        self.plug("--headsets", 3, "--rate", 2000, "--channels", 2, "--lose-every", 7, "--battery-interval", 100,
                  "--post-interval", 100)
        got = collections.defaultdict(list)  # by (address, channel): True for a packet, False for each lost
        with velmora.open(self.port) as dongle:
            found = dongle.scan()
            self.assertEqual([one.name for one in found], ["XAI-01", "XAI-02", "XAI-03"])
            headsets = {one.number: one for one in dongle.connect([found[2], found[0].address])}
            self.assertEqual([one.name for one in headsets.values()], ["XAI-01", "XAI-03"])
            place = {}
            for block in itertools.islice(dongle.blocks(timeout=10), 200):
                key = headsets[block.headset].address, block.channel
                self.assertEqual((block.samples.shape, block.samples.dtype), ((112, 1), np.int16))
                self.assertEqual(block.sample, place.get(key, block.sample) + 112 * block.lost)
                place[key] = block.sample + 112
                got[key] += [False] * block.lost + [True]
            self.assertEqual([event.code for event in dongle.events()], [velmora.CONNECTED] * 2)
            self.assertEqual(set(dongle.battery), set(headsets))
            self.assertEqual({len(one.values) for one in dongle.processed()}, {8})
            self.assertEqual(dongle.statistics().damaged_headers, 0)
            self.assertGreaterEqual(dongle.channel_statistics(0)[1].packets, 40)
        sent = self.sent()
        for key, packets in got.items():
            self.assertEqual(packets, sent[key][:len(packets)])

    def test_records_are_no_copies_and_stay(self):
        self.plug("--headsets", 16, "--fill", 200000, "--no-gaps")
        with velmora.open(self.port) as dongle:
            dongle.connect()
            held = [dongle.records(at_least=100) for _ in range(30)]
            copies = [records.tobytes() for records in held]
            block = next(dongle.blocks(timeout=10))
            dongle.records(at_least=1024)
            self.assertEqual([records.tobytes() for records in held], copies)
            self.assertTrue(all(np.shares_memory(a, a.base) for a in held) and block.samples.base is not None)
            raw = np.concatenate(held)
            raw = raw[raw["kind"] == velmora.RAW]
            self.assertEqual(raw["lost"].sum() + raw["dropped"].sum(), 0)
            for headset in range(16):
                samples = raw["sample"][(raw["headset"] == headset) & (raw["channel"] == 0)]
                self.assertEqual(set(np.diff(samples)), {112})

    def test_commands_and_failures(self):
        with self.assertRaisesRegex(velmora.NotFound, "There is no port"):
            velmora.open("/dev/nothing")
        self.plug("--headsets", 2, "--headset", "2:fails=yes")
        with velmora.open(self.port) as dongle:
            with self.assertRaises(velmora.Error) as held:
                velmora.open(self.port)
            self.assertIsInstance(held.exception, velmora.Held)
            with self.assertRaisesRegex(velmora.NotConnected, "A1B2C3D4E502"):
                dongle.connect()
            first, second = dongle.headsets()
            self.assertEqual((first.connected, second.connected), (True, False))
            self.assertEqual(dongle.request(first, 0x21, b"\1\2\3").frame[:6], b"\xaa\xdd\x21\1\2\3")
            for error, call in ((velmora.Busy, dongle.scan), (velmora.NotAddressable, lambda: dongle.send(12, 1)),
                                (velmora.Invalid, lambda: dongle.send(1, 1, bytes(5))),
                                (velmora.NotConnected, lambda: dongle.send(second, 1)),
                                (TimeoutError, lambda: dongle.request(9, 1, timeout=0.1)),
                                (TimeoutError, lambda: next(dongle.blocks(timeout=0.1)))):
                self.assertRaises(error, call)
            dongle.drop(first)
        with self.assertRaises(velmora.Closed):
            for _ in range(100):
                dongle.read(0)

    def test_a_restart_and_an_unplugging_are_raised(self):
        self.plug("--rate", 1000, "--restart-after", 1000, "--replug-every", 4000, "--replug-away", 300)
        with velmora.open(self.port) as dongle:
            raised = set()
            while raised != {velmora.Restarted, velmora.Gone}:
                try:
                    dongle.connect()
                    for _ in dongle.blocks(timeout=60):
                        pass
                except (velmora.Restarted, velmora.Gone) as error:
                    raised.add(type(error))
                    dongle.reopen(60)


WAITS = {
    "find": "velmora.find(True)",
    "scan": "dongle.scan(None)",
    "connect": "dongle.connect('A1B2C3D4E501')",
    "request": "dongle.request(1, 1, timeout=100)",
    "read": "dongle.read()",
    "blocks": "next(dongle.blocks())",
}


class Leaving(DongleTest):
    def test_ctrl_c_ends_every_wait(self):
        self.plug("--no-scan", "--no-connect")
        program = """
import sys, time, velmora
with velmora.open(sys.argv[1]) as dongle:
    for wait in sys.argv[2:]:
        print("waiting", flush=True)
        try:
            eval(compile(wait, "wait", "eval"))  # a text that Ctrl-C ends would end the process with it
        except KeyboardInterrupt:
            print("ended", flush=True)
        except velmora.Error as error:
            print(wait, error, flush=True)
"""
        waits = [wait for name, wait in WAITS.items() if name != "find"]  # it ends by itself
        host = self.python("-c", program, self.port, *waits)
        for wait in waits:
            self.assertEqual(host.stdout.readline(), "waiting\n")
            time.sleep(0.1)
            began = time.monotonic()
            host.send_signal(signal.SIGINT)
            self.assertEqual(host.stdout.readline(), "ended\n", wait)
            self.assertLess(time.monotonic() - began, 20, wait)  # 0.1 s on an idle machine
        self.assertEqual(host.wait(60), 0, host.stdout.read())

    def test_ctrl_c_loses_nothing(self):
        self.plug("--headsets", 16, "--fill", 200000, "--no-gaps")
        program = """
import signal, sys, velmora
got, interrupted, armed = {}, 0, False
def on_interrupt(*_):
    global armed
    if armed:
        armed = False
        raise KeyboardInterrupt
signal.signal(signal.SIGINT, on_interrupt)
dongle = velmora.open(sys.argv[1])
dongle.connect()
print("reading", flush=True)
while interrupted < 300:
    blocks, armed = [], True
    try:
        if interrupted % 2:
            blocks = dongle.read()
        else:
            for block in dongle.blocks(batch=0):
                blocks = [block]
                break
        armed = False
    except KeyboardInterrupt:
        interrupted += 1
    for block in blocks:
        key = block.headset, block.channel
        assert block.lost == 0 and got.get(key, block.sample) == block.sample, (key, got[key], block.sample)
        got[key] = block.sample + len(block.samples)
signal.signal(signal.SIGINT, signal.SIG_IGN)
dongle.close()
"""
        host = self.python("-c", program, self.port)
        self.assertEqual(host.stdout.readline(), "reading\n")
        while host.poll() is None:
            host.send_signal(signal.SIGINT)
            time.sleep(0.002)
        self.assertEqual(host.returncode, 0, host.stdout.read())

    def test_may_happen_at_any_moment(self):
        self.plug("--headsets", 2, "--fill", 200000)
        program = """
import sys, threading, time, velmora
dongle = velmora.open(sys.argv[1])
def work():
    while True:
        try:
            eval(sys.argv[2])
        except velmora.Busy:
            dongle.drop_all()
threading.Thread(target=work, daemon=True).start()
time.sleep(float(sys.argv[3]))
sys.exit(7)
"""
        waits = dict(WAITS, blocks="(dongle.connect(), [0 for block in dongle.blocks(batch=0)])")
        for number, (name, wait) in enumerate(list(waits.items()) * 3):
            host = self.python("-c", program, self.port, wait, 0.05 + 0.037 * number)
            output = host.communicate(timeout=60)[0]
            self.assertEqual(host.returncode, 7, name + output)

    def test_leaves_no_headset_connected(self):
        self.plug()
        host = self.python("-c", "import sys, velmora; dongle = velmora.open(sys.argv[1]); dongle.connect()", self.port)
        self.assertEqual(host.wait(60), 0, host.stdout.read())
        self.dongle.terminate()
        self.assertIn("AT+DISCONN", self.dongle.communicate()[0])

    def test_a_thread_that_reads_ends_with_the_dongle(self):
        self.plug("--no-scan")
        dongle, ended = velmora.open(self.port), []

        def read():
            try:
                dongle.read()
            except velmora.Closed:
                ended.append(True)

        thread = threading.Thread(target=read)
        thread.start()
        dongle.close()
        thread.join(20)
        self.assertTrue(ended)


if __name__ == "__main__":
    unittest.main()
