"""The package against the shared library and the virtual dongle."""
import ast
import collections
import itertools
import re
import signal
import threading
import time
import unittest

import numpy as np
import velmora
from concurrent.futures import ThreadPoolExecutor
from dongle import PACKAGE, UNSURE, DongleTest
from velmora import _errors, _library


class Declarations(unittest.TestCase):
    def test_structs_are_those_of_the_header(self):
        header = (PACKAGE.parent / "velmora/velmora.h").read_text()
        header = re.sub(r"/\*.*?\*/", "", header, flags=re.S)
        for name, value in re.findall(r"VELMORA_(\w+)\s*=\s*(-?\d+)", header):
            plain = re.sub("^(EVENT|FLAG)_", "", name)
            ours = next((vars(place) for place in (_errors, _library) if hasattr(place, name)), vars(velmora))
            if name != "PORT_USB":
                self.assertEqual(ours[name if name in ours else plain], int(value), name)
        structs = {re.sub(r"(?!^)([A-Z])", r"_\1", name).lower(): [(member, getattr(kind, member).size)
                                                                  for member, *_ in kind._fields_]
                   for name, kind in vars(_library).items()
                   if isinstance(kind, type) and issubclass(kind, _library._Struct) and kind is not _library._Struct}
        structs["error"] = structs.pop("error_detail")
        structs["record"] = [(name, velmora.RECORD[name].itemsize) for name in velmora.RECORD.names]
        widths = {"char": 1, "double": 8, "void*": 8, "velmora_log_function": 8, "velmora_status": 4,
                  "velmora_channel_statistics": 48}
        header = header.replace("VELMORA_CHANNELS]", f"{_library.CHANNELS}]")
        for name, members in structs.items():
            body = re.search(r"typedef struct velmora_%s \{(.*?)\} velmora" % name, header, re.S).group(1)
            self.assertEqual(members, [
                (member, int(count or 1) * (widths.get(kind) or int(re.sub(r"\D", "", kind)) // 8))
                for kind, member, count in re.findall(r"([\w*]+) (\w+)(?:\[(\d+)\])?;", body)], name)
        versions = (PACKAGE.parent / "cmake/versions.cmake").read_text()
        self.assertEqual(re.search(r"VELMORA_VERSION (\d+\.\d+\.)", versions).group(1), _library.VERSION)

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
            place, unsure = {}, 0
            for block in itertools.islice(dongle.blocks(timeout=10), 200):
                key = headsets[block.headset].address, block.channel
                self.assertEqual((block.samples.shape, block.samples.dtype), ((112, 1), np.int16))
                unsure |= block.flags & UNSURE
                self.assertTrue(unsure or block.sample == place.get(key, block.sample) + 112 * block.lost)
                place[key] = block.sample + 112
                got[key] += [False] * block.lost + [True]
            self.assertEqual([event.code for event in dongle.events()], [velmora.CONNECTED] * 2)
            self.assertEqual(set(dongle.battery), set(headsets))
            self.assertEqual({len(one.values) for one in dongle.processed()}, {8})
            self.assertEqual(dongle.statistics().damaged_headers, 0)
            self.assertGreaterEqual(dongle.channel_statistics(0)[1].packets, 40)
        self.check_sent(got, unsure)

    def test_records_are_no_copies_and_stay_also_for_two_readers(self):
        self.plug("--headsets", 16, "--fill", 200000, "--no-gaps")
        with velmora.open(self.port) as dongle:
            numbers = {headset.number: headset.address for headset in dongle.connect()}
            with ThreadPoolExecutor(2) as readers:
                held = list(readers.map(lambda _: dongle.records(at_least=100), range(30)))
            copies = [records.tobytes() for records in held]
            made = dongle.statistics().raw
            while dongle.statistics().raw == made:
                time.sleep(0.01)
            block = next(dongle.blocks(timeout=0))
            dongle.records(at_least=1024)
            self.assertEqual([records.tobytes() for records in held], copies)
            self.assertTrue(all(np.shares_memory(a, a.base) for a in held) and block.samples.base is not None)
            self.assertGreater(min(map(len, held)), 0)
        got = collections.defaultdict(list)
        for record in sorted(np.concatenate(held), key=lambda record: record["time"]):
            if record["kind"] == velmora.RAW:
                got[numbers[record["headset"]], record["channel"]] += [False] * (
                    record["lost"] + record["dropped"]) + [True]
        self.check_sent(got, (np.concatenate(held)["flags"] & UNSURE).any())

    def test_a_second_reader_keeps_its_time(self):
        self.plug("--no-scan")
        with velmora.open(self.port) as dongle, ThreadPoolExecutor(1) as other:
            first = other.submit(dongle.read, 30)
            self.assertEqual((dongle.read(timeout=0.3), len(dongle.records(timeout=0.1)), first.done()), ([], 0, False))
            dongle.close()
            self.assertRaises(velmora.Closed, first.result)

    def test_a_headset_that_leaves_ends_its_request(self):
        self.plug("--no-responses", "--headset", "1:disconnect-after=500,rejoin-after=500,rejoin-index=9")
        with velmora.open(self.port) as dongle:
            dongle.connect()
            self.assertRaises(velmora.NotConnected, dongle.request, 1, 0x21, timeout=100)

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
                                (velmora.Invalid, lambda: dongle.connect("A1:B2:C3:D4:E5:01:02")),
                                (velmora.Invalid, lambda: dongle.send(velmora.ALL, 256)),
                                (velmora.Invalid, lambda: dongle.send(velmora.ALL, "a")),
                                (velmora.Invalid, lambda: dongle.send(2**32 + 1, 1)),
                                (velmora.Invalid, lambda: dongle.send(1, 1, 3)),
                                (velmora.NotFound, lambda: dongle.channel_statistics(99)),
                                (TimeoutError, lambda: dongle.request(9, 1, timeout=0.1)),
                                (TimeoutError, lambda: next(dongle.blocks(timeout=0.1)))):
                self.assertRaises(error, call)
            dongle.drop("A1:B2:C3:D4:E5:01")
            self.assertEqual([headset.name for headset in dongle.connect(first)], ["XAI-01"])
        with self.assertRaisesRegex(velmora.Closed, "open it again"):
            for _ in range(100):
                dongle.records(0, at_least=0)

    def test_a_restart_and_an_unplugging_are_raised(self):
        self.plug("--rate", 1000, "--restart-after", 1000, "--replug-every", 4000, "--replug-away", 300)
        with velmora.open(self.port) as dongle:
            raised = set()
            while raised != {velmora.Restarted, velmora.Gone}:
                try:
                    dongle.connect(timeout=20)
                    for _ in dongle.blocks(timeout=20):
                        pass
                except velmora.Timeout:
                    pass  # of a command that a restarting dongle did not hear
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
        try:
            print("waiting", flush=True)
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
        place = block.sample - len(block.samples) * block.lost  # a line that is kept waiting loses some
        assert block.flags & velmora.DAMAGED_COUNTER or got.get(key, place) == place, (key, got[key], place, block.sample)
        got[key] = block.sample + len(block.samples)
signal.signal(signal.SIGINT, signal.SIG_IGN)
dongle.close()
"""
        host = self.python("-c", program, self.port)
        self.assertEqual(host.stdout.readline(), "reading\n")
        until = time.monotonic() + 120
        while host.poll() is None and time.monotonic() < until:
            host.send_signal(signal.SIGINT)
            time.sleep(0.002)
        self.assertIsNotNone(host.poll())
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
        for end in ("", "del dongle; os._exit(0)",
                    "child = os.fork(); child and (os.waitpid(child, 0), dongle.records(), next(dongle.blocks(10)))"):
            self.plug()
            host = self.python("-c", "import os, sys, velmora; dongle = velmora.open(sys.argv[1]); dongle.connect();" + end,
                               self.port)
            self.assertEqual(host.wait(60), 0, host.stdout.read())
            self.dongle.terminate()
            self.assertEqual(self.dongle.communicate()[0].count("AT+DISCONN"), 1, end)

    def test_a_thread_inside_ends_with_the_dongle(self):
        for wait in "read", "connect":
            self.plug("--no-connect")
            dongle = velmora.open(self.port)
            with ThreadPoolExecutor(1) as inside:
                waiting = inside.submit(getattr(dongle, wait))
                if wait == "connect":
                    self.assertTrue(any("GRPCONN" in line for line in self.dongle.stdout))
                dongle.close()
                self.assertRaises(velmora.Closed, waiting.result)
            self.dongle.terminate()
            self.assertEqual("AT+DISCONN" in self.dongle.communicate()[0], wait == "connect")


if __name__ == "__main__":
    unittest.main()
