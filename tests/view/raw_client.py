"""HTTP and WebSocket byte by byte, so that both can be wrong."""
import os
import socket
import struct
import time
from urllib.parse import urlsplit


class Connection:
    def __init__(self, address, receive_buffer=None):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(30)
        self.socket.connect((address.hostname, address.port))
        self.pending = b""

    def send(self, data):
        try:
            self.socket.sendall(data)
        except OSError:
            pass  # refused meanwhile; what was said comes when reading
        return self

    def more(self):
        """False at the end."""
        try:
            data = self.socket.recv(65536)
        except ConnectionError:
            return False
        self.pending += data
        return bool(data)

    def head(self):
        """Status and header fields of an answer; 0 when the connection ends without one."""
        while b"\r\n\r\n" not in self.pending:
            if not self.more():
                return 0, {}
        head, self.pending = self.pending.split(b"\r\n\r\n", 1)
        lines = head.decode().split("\r\n")
        return int(lines[0].split()[1]), {name.lower(): value for name, value in
                                          (line.split(": ", 1) for line in lines[1:])}

    def frame(self):
        """Opcode and payload of the next frame; (None, b"") at the end."""
        def need(size):
            while len(self.pending) < size:
                if not self.more():
                    return False
            return True
        if not need(2):
            return None, b""
        opcode, size, start = self.pending[0] & 15, self.pending[1] & 127, 2
        if size > 125:
            start = 4 if size == 126 else 10
            if not need(start):
                return None, b""
            size = int.from_bytes(self.pending[2:start], "big")
        if not need(start + size):
            return None, b""
        payload, self.pending = self.pending[start:start + size], self.pending[start + size:]
        return opcode, payload

    def closed_with(self):
        """The code with which the other end closes; 0 when it does so without one, None when it does not."""
        deadline = time.monotonic() + 45  # longer than silence is borne
        while time.monotonic() < deadline:
            opcode, payload = self.frame()
            if opcode == 9:
                self.send(frame(payload, opcode=10))
            if opcode is None:
                return 0
            if opcode == 8:
                return int.from_bytes(payload[:2], "big") if payload else 0
        return None

    def close(self):
        self.socket.close()


def frame(payload, opcode=2, final=True, masked=True, reserved=0, size=None):
    size = len(payload) if size is None else size
    mask = os.urandom(4)
    head = bytes([final << 7 | reserved << 4 | opcode])
    bit = 128 if masked else 0
    head += bytes([bit | size]) if size < 126 else (
        bytes([bit | 126]) + struct.pack(">H", size) if size < 65536 else bytes([bit | 127]) + struct.pack(">Q", size))
    return head + (mask + bytes(byte ^ mask[i % 4] for i, byte in enumerate(payload)) if masked else payload)


class Server:
    """What is served at an address that velmora printed."""

    def __init__(self, address):
        self.url = urlsplit(address)
        self.host = self.url.netloc
        self.cookie = None

    def request(self, target="/", method="GET", **fields):
        """Status and header fields. A field that is None is left out."""
        connection = Connection(self.url)
        answer = connection.send(self.text(target, method, **fields)).head()
        connection.close()
        return answer

    def text(self, target, method="GET", **fields):
        fields = {"Host": self.host, "Cookie": self.cookie, **{name.replace("_", "-"): value for name, value in
                                                               fields.items()}}
        return "\r\n".join([f"{method} {target} HTTP/1.1",
                            *(f"{name}: {value}" for name, value in fields.items() if value is not None),
                            "", ""]).encode()

    def enter(self, address):
        """Exchanges the token of that address for a cookie."""
        status, fields = self.request("/?" + urlsplit(address).query)
        assert status == 303, status
        self.cookie = fields["set-cookie"].split(";")[0]
        return fields

    def upgrade(self, receive_buffer=None, target="/stream", **fields):
        """A connection that has asked for the stream."""
        fields = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
                  "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA==", "Origin": f"http://{self.host}", **fields}
        return Connection(self.url, receive_buffer).send(self.text(target, **fields))

    def stream(self, receive_buffer=None):
        """Returned once there are messages."""
        connection = self.upgrade(receive_buffer)
        status, _ = connection.head()
        assert status == 101, status
        return connection
