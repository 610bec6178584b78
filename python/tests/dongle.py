"""The virtual dongle for tests: VELMORA_DONGLE names its program."""
import collections
import csv
import faulthandler
import os
import signal
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import velmora

PACKAGE = Path(__file__).resolve().parent.parent
UNSURE = velmora.ESTIMATED | velmora.DAMAGED_COUNTER
faulthandler.dump_traceback_later(280, exit=True)  # a test that hangs says where, before ctest ends it after 300 s


class DongleTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.port = str(self.folder / "port")

    def plug(self, *options):
        """A dongle whose headsets answer soon and send only when a program that connects them has come to reading."""
        command = [os.environ["VELMORA_DONGLE"], "--link", self.port, "--account", self.folder / "account",
                   "--scan-duration", "50", "--connect-duration", "20", "--stream-delay", "500", *options]
        self.dongle = subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, text=True)
        self.addCleanup(self.unplug)
        self.assertIn("ready on", self.dongle.stdout.readline())

    def unplug(self):
        if self.dongle.poll() is None:
            self.dongle.send_signal(signal.SIGTERM)
            self.dongle.communicate()
        self.dongle.stdout.close()

    def sent(self):
        """What the dongle says it sent: for each (address, channel) the packets in order, True for those not lost."""
        self.unplug()
        packets = collections.defaultdict(list)
        with open(self.folder / "account", encoding="utf-8") as file:
            for row in csv.DictReader(file):
                packets[row["headset"], int(row["channel"])].append(row["outcome"] == "whole")
        return packets

    def check_sent(self, got, unsure):
        """got: of each (address, channel) the packets in order, True for one that came, False for one said to be lost.
        unsure: whether the library could not be sure of all places. A dongle that a busy machine stops for a while sends
        late, which makes a counter look damaged; its losses have no exact place then."""
        sent = self.sent()
        for key, packets in got.items():
            if unsure:
                self.assertLessEqual(sum(packets), sum(sent[key]), key)
            else:
                self.assertEqual(packets, sent[key][:len(packets)], key)

    def python(self, *arguments):
        environment = dict(os.environ, PYTHONPATH=str(PACKAGE))
        program = subprocess.Popen([sys.executable, *map(str, arguments)], env=environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True)
        self.addCleanup(lambda: (program.kill(), program.communicate()))
        return program
