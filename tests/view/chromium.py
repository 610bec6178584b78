"""Headless Chromium, driven over its debugging port: pages, what is in them, pictures of them."""
import base64
import itertools
import json
import os
import shutil
import subprocess
import tempfile
import urllib.request

import websocket

from programs import eventually

FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
         "--disable-backgrounding-occluded-windows", "--disable-renderer-backgrounding", "--remote-debugging-port=0"]


class Page:
    def __init__(self, socket):
        self.socket = socket
        self.numbers = itertools.count(1)
        self.errors = []  # of scripts, and what the policy kept out
        self.call("Runtime.enable")
        self.call("Page.enable")
        self.call("Log.enable")

    def call(self, method, **parameters):
        number = next(self.numbers)
        self.socket.send(json.dumps({"id": number, "method": method, "params": parameters}))
        while True:
            message = json.loads(self.socket.recv())
            if message.get("method") == "Runtime.exceptionThrown":
                self.errors.append(json.dumps(message["params"]))
            if message.get("method") == "Log.entryAdded" and message["params"]["entry"]["level"] == "error":
                self.errors.append(message["params"]["entry"]["text"])
            if message.get("id") == number:
                assert "error" not in message, f"{method}: {message['error']}"
                return message["result"]

    def open(self, address):
        self.call("Page.navigate", url=address)
        eventually(lambda: self.run("document.readyState") == "complete", "the page")

    def to_front(self):
        """A page that another one covers draws nothing."""
        self.call("Page.bringToFront")

    def run(self, script):
        result = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        assert "exceptionDetails" not in result, result["exceptionDetails"]
        return result["result"].get("value")

    def sees(self, script, what=None, bound=30):
        return eventually(lambda: self.run(script), what or script, bound)

    def size(self, width, height, mobile=False):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=mobile)

    def scheme(self, name):
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": name}])

    def press(self, key):
        for kind in ("keyDown", "keyUp"):
            self.call("Input.dispatchKeyEvent", type=kind, key=key, text=key if kind == "keyDown" else "")

    def picture(self, path):
        data = self.call("Page.captureScreenshot", format="png")["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))


class Chromium:
    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="velmora-chromium-")
        self.process = subprocess.Popen(
            ["chromium", *FLAGS, f"--user-data-dir={self.folder}", "about:blank"], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
            env={**os.environ, "HOME": self.folder})
        try:
            port_file = os.path.join(self.folder, "DevToolsActivePort")
            eventually(lambda: os.path.exists(port_file) and "\n" in open(port_file).read(), "Chromium", 60)
            self.address = "127.0.0.1:" + open(port_file).readline().strip()
        except BaseException:
            self.__exit__()
            raise
        return self

    def page(self):
        request = urllib.request.Request(f"http://{self.address}/json/new?about:blank", method="PUT")
        with urllib.request.urlopen(request, timeout=30) as answer:
            address = json.load(answer)["webSocketDebuggerUrl"]
        return Page(websocket.create_connection(address, timeout=60, suppress_origin=True))

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)
