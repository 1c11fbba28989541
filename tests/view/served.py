"""What tests of `kelpa view` share: the command, samples, pictures, and a small WebSocket."""

import base64
import json
import os
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request
import zlib

COMMAND = os.environ["KELPA_COMMAND"]


def run(*words, folder=None):
    return subprocess.run([COMMAND, *map(str, words)], check=True, cwd=folder,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def pixels_of(path_or_bytes):
    """Width, height and the RGB bytes of a PNG."""
    data = path_or_bytes
    if not isinstance(data, bytes):
        with open(data, "rb") as file:
            data = file.read()
    assert data[:8] == b"\x89PNG\r\n\x1a\n", data[:80]
    packed, at = b"", 8
    while at < len(data):
        size, kind = struct.unpack(">I4s", data[at:at + 8])
        body = data[at + 8:at + 8 + size]
        if kind == b"IHDR":
            width, height, _, color = struct.unpack(">IIBB", body[:10])
            assert color == 2, color
        if kind == b"IDAT":
            packed += body
        at += 12 + size
    rows, size = zlib.decompress(packed), 1 + 3 * width
    pixels, above = b"", bytes(size)
    for y in range(height):
        row = bytearray(rows[y * size:(y + 1) * size])
        _unfilter(row, above)
        pixels, above = pixels + row[1:], row
    return width, height, pixels


def _unfilter(row, above):
    """Undoes what a row's first byte names; both rows begin with such a byte."""
    for i in range(1, len(row)):
        a, b, c = (row[i - 3] if i > 3 else 0), above[i], (above[i - 3] if i > 3 else 0)
        p = a + b - c
        near = min((abs(p - a), 0, a), (abs(p - b), 1, b), (abs(p - c), 2, c))[2]
        row[i] = (row[i] + (0, a, b, (a + b) // 2, near)[row[0]]) & 255


class Served:
    """A server of its own folder. `with` ends it, and checks that it was there until then."""

    def __init__(self, *words, folder):
        self.folder = folder
        self.process = subprocess.Popen(
            [COMMAND, "view", *map(str, words)], cwd=folder, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.link = self.process.stdout.readline().strip()
        if not self.link:
            raise AssertionError(self.process.stderr.read())
        _, _, host, self.token, _ = self.link.split("/")
        self.host, port = host.rsplit(":", 1)
        self.port = int(port)

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        wasThere = self.process.poll() is None
        begin = time.monotonic()
        self.process.send_signal(signal.SIGINT)
        self.process.wait(20)
        self.seconds = time.monotonic() - begin
        self.said = self.process.stderr.read()
        self.process.stdout.close()
        self.process.stderr.close()
        if kind is None:
            assert wasThere, self.said

    def get(self, path, **headers):
        """Status and body of a request."""
        request = urllib.request.Request(f"http://{self.host}:{self.port}{path}", headers=headers)
        try:
            with urllib.request.urlopen(request, timeout=60) as answer:
                return answer.status, answer.read()
        except urllib.error.HTTPError as error:
            return error.code, error.read()

    def cpu_seconds(self):
        """Processor time of the server so far."""
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Line:
    """A WebSocket as a page has it, or as nobody should."""

    def __init__(self, served, path=None, **headers):
        self.socket = socket.create_connection((served.host, served.port), timeout=60)
        self.rest = b""
        usual = {
            "Host": f"{served.host}:{served.port}", "Upgrade": "websocket", "Connection": "Upgrade",
            "Sec-WebSocket-Version": "13",
            "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(), **headers}
        lines = [f"GET {path or f'/{served.token}/socket'} HTTP/1.1"]
        lines += [f"{name}: {value}" for name, value in usual.items() if value is not None]
        self.socket.sendall("\r\n".join([*lines, "", ""]).encode())
        while b"\r\n\r\n" not in self.rest and (some := self.socket.recv(4096)):
            self.rest += some
        head, _, self.rest = self.rest.partition(b"\r\n\r\n")
        self.status = int(head.split()[1]) if head else 0

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send_bytes(self, data, opcode=1, length=None, fin=0x80):
        size = len(data) if length is None else length
        head = bytes([fin | opcode])
        head += (bytes([0x80 | size]) if size < 126 else
                 bytes([0x80 | 126]) + struct.pack(">H", size) if size < 65536 else
                 bytes([0x80 | 127]) + struct.pack(">Q", size))
        self.socket.sendall(head + b"\0\0\0\0" + data)

    def send(self, message):
        self.send_bytes(json.dumps(message).encode() if not isinstance(message, str)
                        else message.encode())

    def _take(self, count):
        while len(self.rest) < count:
            some = self.socket.recv(1 << 16)
            if not some:
                raise EOFError
            self.rest += some
        taken, self.rest = self.rest[:count], self.rest[count:]
        return taken

    def receive(self):
        """The next message: a text's JSON, or a picture's facts with its bytes."""
        while True:
            first, size = self._take(2)
            if size == 126:
                size, = struct.unpack(">H", self._take(2))
            elif size == 127:
                size, = struct.unpack(">Q", self._take(8))
            data = self._take(size)
            if first & 15 == 1:
                return json.loads(data), None
            if first & 15 == 2:
                length, = struct.unpack("<I", data[:4])
                return json.loads(data[4:4 + length]), data[4 + length:]
            if first & 15 == 8:
                raise EOFError

    def until(self, wanted):
        """The first message that `wanted(message, picture)` is true for. Tells that pictures are
        shown, as a page does."""
        while True:
            message, picture = self.receive()
            if picture is not None:
                self.send({"drawn": message["number"]})
            if wanted(message, picture):
                return message, picture

    def refined(self):
        """The next picture of all samples."""
        return self.until(lambda m, p: p is not None and m["samples"] == m["of"])

    def text(self, name):
        return self.until(lambda m, p: p is None and name in m)[0][name]


def sample(folder, kind="splash", count=3000, name="sample.ply"):
    run("generate", kind, "--count", count, "--seed", 5, "-o", name, folder=folder)
    return name


class TestCase(unittest.TestCase):
    """Tests of one folder, in which sample.ply lies."""

    @classmethod
    def setUpClass(cls):
        temporary = tempfile.TemporaryDirectory(prefix="kelpa-view-")
        cls.addClassCleanup(temporary.cleanup)
        cls.folder = temporary.name
        sample(cls.folder)

    def serve(self, *words):
        return Served(*words, "-q", folder=self.folder)


if "KELPA_COMMAND" not in os.environ:
    sys.exit("set KELPA_COMMAND to the command")
