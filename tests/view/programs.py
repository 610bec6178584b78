"""The programs under test: a virtual dongle, and velmora on its port."""
import os
import re
import signal
import subprocess
import tempfile
import time


def eventually(condition, what, bound=30):
    """What `condition` returns once it is true; fails when it does not become so."""
    deadline = time.monotonic() + bound
    while not (value := condition()):
        assert time.monotonic() < deadline, f"not seen: {what}"
        time.sleep(0.05)
    return value


class Program:
    def __init__(self, folder, name, *command):
        self.out = os.path.join(folder, f"{name}.out")
        self.name = name
        with open(self.out, "w") as out:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out, cwd=folder)

    def text(self):
        with open(self.out, encoding="utf-8") as file:
            return file.read()

    def says(self, pattern, bound=30):
        """The last thing it said of that kind."""
        eventually(lambda: re.search(pattern, self.text()) or self.process.poll() is not None,
                   f"{pattern} of {self.name}", bound)
        found = re.findall(pattern, self.text())
        assert found, f"{self.name} ended without {pattern}:\n{self.text()}"
        return found[-1]

    def end(self, number=signal.SIGINT):
        """Its exit code."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            return self.process.wait(30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None


class Setting:
    """A folder with a virtual dongle in it, and with velmora, which serves."""

    def __init__(self, velmora, dongle):
        self.velmora_path, self.dongle_path = velmora, dongle
        self.folder = None
        self.programs = []

    def __enter__(self):
        self.place = tempfile.TemporaryDirectory(prefix="velmora-view-")
        self.folder = self.place.name
        self.port = os.path.join(self.folder, "port")
        return self

    def plug(self, *arguments):
        for name, value in (("--scan-duration", "100"), ("--connect-duration", "20")):
            arguments += () if name in arguments else (name, value)
        self.dongle = Program(self.folder, "dongle", self.dongle_path, "--link", self.port, *arguments)
        self.programs.append(self.dongle)
        self.dongle.says("ready on")

    def serve(self, *arguments):
        """Returns the address that it prints."""
        self.velmora = Program(self.folder, "velmora", self.velmora_path, *arguments, "--port", self.port, "--all",
                               "--no-browser")
        self.programs.append(self.velmora)
        return self.velmora.says(r"live view: (\S+)")

    def address(self):
        """The next one, once the last was used."""
        return self.velmora.says(r"live view[^:]*: (\S+)")

    def __exit__(self, *_):
        for program in reversed(self.programs):
            program.end()
        self.place.cleanup()
