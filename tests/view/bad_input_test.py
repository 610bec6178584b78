"""What bad clients do, beside a recording that loses nothing and a viewer that misses nothing:
bad_input_test.py VELMORA VELMORA_DONGLE ACCOUNT_CHECK"""
import os
import random
import struct
import subprocess
import sys
import threading
import time

from programs import Setting, eventually
from raw_client import Connection, Server, frame

CHANNELS = 16
HEADSETS = 3
SAMPLES, SKIPPED = 2, 6
MARK = bytes([1, 1, 0, 0])


def packets(message):
    """Headset, channel, first sample, count, lost of each packet of a message."""
    at = 16
    for _ in range(struct.unpack_from("<H", message, 2)[0]):
        sample, _, lost, _, headset, channel, channels, count, _ = struct.unpack_from("<qqIIhBBHH", message, at)
        yield headset, channel, sample, count, lost
        at += 32 + 2 * channels * count


class Viewer(threading.Thread):
    """One that reads all the time, and looks whether anything is missing."""

    def __init__(self, server):
        super().__init__(daemon=True)
        self.connection = server.stream()
        self.ends, self.packets, self.problems, self.stopping = {}, 0, [], False
        self.start()

    def run(self):
        while not self.stopping:
            opcode, message = self.connection.frame()
            if opcode == 9:
                self.connection.send(frame(message, opcode=10))
            if opcode in (8, None):
                self.problems += [] if self.stopping else ["closed"]
                return
            if opcode != 2:
                continue
            if message[1] == SKIPPED:
                self.problems.append("left out")
            if message[1] == SAMPLES:
                for headset, channel, sample, count, lost in packets(message):
                    end = self.ends.get((headset, channel), sample - lost * count)
                    if sample != end + lost * count:
                        self.problems.append(f"channel {channel} jumps from {end} to {sample}, lost {lost}")
                    self.ends[headset, channel] = sample + count
                    self.packets += 1


def memory(process):
    with open(f"/proc/{process.pid}/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")


def check_policy(fields):
    assert "default-src 'none'" in fields["content-security-policy"] and "unsafe" not in fields["content-security-policy"]
    assert fields["cache-control"] == "no-store" and fields["referrer-policy"] == "no-referrer"


def check_access(server, address):
    assert server.request()[0] == 403, "a page without a cookie"
    assert server.request("/?token=" + "0" * 64)[0] == 403
    assert server.request("/?token=")[0] == 403
    token = "/?" + server.url.query
    assert server.request(token, method="HEAD")[0] == 403, "looked at by a program that follows addresses"
    for wrong in ({"Sec-WebSocket-Version": "8"}, {"Sec-WebSocket-Key": "AAAA"}):
        assert server.upgrade(target="/stream" + token[1:], **wrong).head()[0] in (400, 426), wrong
    fields = server.enter(address)  # with a token that all these have not used up
    for part in ("HttpOnly", "SameSite=Lax", "Path=/"):
        assert part in fields["set-cookie"]
    stranger = Server(address)
    assert stranger.request("/?" + stranger.url.query)[0] == 403, "a token is good once"
    assert stranger.upgrade(target="/stream?" + stranger.url.query).head()[0] == 403, "for the stream as well"
    stranger.cookie = server.cookie[:-1] + ("0" if server.cookie[-1] != "0" else "1")
    assert stranger.request()[0] == 403
    status, fields = server.request()
    assert status == 200
    check_policy(fields)
    check_policy(stranger.request()[1])
    check_policy(server.upgrade().head()[1])
    for target in ("/view.js", "/view.css", "/stream.js", "/strips.js", "/icon.svg"):
        assert server.request(target)[0] == 200, target
    for target in ("/stream", "/../view.js", "/view.js/", "//", "/%00", "*", "http://example.com/"):
        assert server.request(target)[0] in (400, 404), target


def check_strangers(server):
    port = server.url.port
    for host in ("example.com", f"example.com:{port}", f"127.0.0.1:{port + 1}", "127.0.0.1", f"0.0.0.0:{port}", "", None):
        assert server.request(Host=host)[0] in (400, 403), host
    assert server.request(Host=f"localhost:{port}")[0] == 200
    for origin in ("http://example.com", "null", f"https://{server.host}", f"http://localhost:{port}", "http://127.0.0.1"):
        assert server.request(Origin=origin)[0] == 403, origin
        assert server.upgrade(Origin=origin).head()[0] == 403, origin
    assert server.upgrade(Cookie=None).head()[0] == 403
    assert server.upgrade(target="/stream?token=" + "0" * 64, Cookie=None).head()[0] == 403
    plain = server.upgrade(Origin=None)  # no browser
    assert plain.head()[0] == 101
    plain.close()


def check_requests(server):
    for method in ("POST", "PUT", "DELETE", "OPTIONS", "BREW"):
        assert server.request(method=method)[0] in (400, 405), method
    for body, fields in (b"hello", {"Content-Length": "5"}), (b"5\r\nhello\r\n", {"Transfer-Encoding": "chunked"}):
        connection = Connection(server.url).send(server.text("/", **fields) + body)
        assert connection.head()[0] == 413, fields
        connection.close()
    for big, refusals in (9000, (431,)), (2_000_000, (431, 0)):  # so much is not read to its end
        assert server.request(X=big * "x")[0] in refusals, big
        assert server.request("/" + big * "x")[0] in refusals, big
    assert server.request(**{f"X-{i}": "x" for i in range(3000)})[0] == 431
    busy = Connection(server.url).send(server.text("/icon.svg", method="HEAD") * 100)
    assert 429 in [busy.head()[0] for _ in range(60)], "one connection asks as often as it likes"
    busy.close()
    dice = random.Random(1)
    for size in (1, 10, 1000, 100_000):
        connection = Connection(server.url).send(dice.randbytes(size) + b"\r\n\r\n")
        assert connection.head()[0] in (0, 400, 431)
        connection.close()
    # Half a request is not waited for.
    half = [Connection(server.url).send(server.text("/")[:size]) for size in (0, 1, 20, 60)]
    for connection in half:
        assert connection.head()[0] in (0, 408)
        connection.close()


def check_frames(server):
    wrong = [
        ("not masked", frame(MARK, masked=False), (1002, 0)),
        ("reserved bit", frame(MARK, reserved=4), (1002, 0)),
        ("unknown opcode", frame(MARK, opcode=3), (1002, 0)),
        ("continues nothing", frame(MARK, opcode=0), (1002, 0)),
        ("too large", frame(bytes(65)), (1009, 0)),
        ("announced much too large", frame(b"", size=1 << 40), (1009, 0)),
        ("announced as negative", frame(b"", size=(1 << 64) - 1), (1002, 1009, 0)),
        ("a large ping", frame(bytes(126), opcode=9), (1002, 0)),
        ("a ping in pieces", frame(b"", opcode=9, final=False), (1002, 0)),
        ("grows piece by piece", frame(bytes(60), final=False) + frame(bytes(60), opcode=0), (1009, 0)),
        ("text", frame(MARK, opcode=1), (1007,)),
        ("empty", frame(b""), (1007,)),
        ("another version", frame(bytes([2, 1, 0, 0])), (1007,)),
        ("another kind", frame(bytes([1, 2, 0, 0])), (1007,)),
        ("too long", frame(MARK + b"\0"), (1007,)),
        ("too many marks", frame(MARK) * 200, (1008, 0)),
        ("too many pings", frame(b"x", opcode=9) * 2000, (1008, 0)),
        ("noise", random.Random(2).randbytes(5000), (1002, 1007, 1009, 0)),
    ]
    for what, data, codes in wrong:
        connection = server.stream()
        code = connection.send(data).closed_with()
        assert code in codes, f"{what}: {code}"
        connection.close()
    connection = server.stream()  # a mark that is not there is nobody's
    connection.send(frame(bytes([1, 1, 255, 255])))
    connection.close()


def check_numbers(server, setting, limit):
    viewers = [server.stream() for _ in range(limit - 1)]  # beside the one that reads all the time
    assert server.upgrade().head()[0] == 503
    for viewer in viewers:
        viewer.close()

    def free():
        connection = server.upgrade()
        status = connection.head()[0]
        connection.close()
        return status == 101
    eventually(free, "room for a viewer when others have gone")
    crowd = []
    for _ in range(1000):
        try:
            crowd.append(Connection(server.url))
        except OSError:
            pass  # refused
    assert any(connection.head()[0] == 503 for connection in crowd[100::100]), "nobody of a thousand is refused"
    for connection in crowd:
        connection.close()
    eventually(lambda: server.request()[0] == 200, "the page after the crowd has gone")
    assert setting.velmora.process.poll() is None


def check_silence(server, viewer):
    """One that never reads is left out of batches, and told once it does."""
    lazy = server.stream(receive_buffer=4096)
    deadline = time.monotonic() + 120
    began = viewer.packets
    eventually(lambda: viewer.packets - began > 5500, "data that a lazy viewer does not read", 60)
    told = False
    while not told:
        opcode, message = lazy.frame()
        assert opcode is not None, "closed before it was told"
        assert time.monotonic() < deadline, "not told that it was left out"
        if opcode == 2 and message[1] == SKIPPED:
            told = struct.unpack_from("<Q", message, 24)[0] > 0
    lazy.close()


def main(velmora, dongle, account_check):
    with Setting(velmora, dongle) as setting:
        setting.plug("--headsets", str(HEADSETS), "--channels", str(CHANNELS), "--rate", "1000", "--packing", "single",
                     "--account", "account", "--quiet")
        limit = 3
        address = setting.serve("record", "--view", "--clients", str(limit), "-o", "take", "--rate", "1000",
                                "--max-loss", "100")
        server = Server(address)
        check_access(server, address)
        viewer = Viewer(server)
        eventually(lambda: viewer.packets > 1000, "data")
        begun = memory(setting.velmora.process)
        check_strangers(server)
        check_requests(server)
        check_frames(server)
        check_numbers(server, setting, limit)
        check_silence(server, viewer)
        grown = memory(setting.velmora.process) - begun
        print(f"memory: {begun / 1e6:.1f} MB, {grown / 1e6:+.1f} MB after all that; viewer: {viewer.packets} packets")
        assert grown < 16e6, grown
        assert not viewer.problems, viewer.problems[:5]
        viewer.stopping = True
        marks = setting.velmora.text().count("marked at")
        assert 0 < marks < 30, f"{marks} marks of 200 that were asked for at once"
        assert setting.velmora.end() == 0, setting.velmora.text()
        viewer.join(10)
        setting.dongle.end()
        for headset in range(HEADSETS):
            name = f"A1B2C3D4E50{headset + 1}"
            subprocess.run([account_check, f"take-{name}.edf", "account", name, str(CHANNELS), "3"], check=True,
                           cwd=setting.folder, timeout=60)


began = time.monotonic()
main(*(os.path.abspath(path) for path in sys.argv[1:]))
print(f"{time.monotonic() - began:.1f} s")
