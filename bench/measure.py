"""What the benchmarks have in common: a place to measure in, what is moved, and the table."""

import os
import pathlib
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "end_to_end"))
from local import Box, Server  # noqa: E402
from processor import Meter  # noqa: E402

GIB = 1024**3
# All clients come from one address, and log in one after the other.
CROWDED = "[limits]\nconnections_per_minute = 0"


def row(name, value, aim=""):
    print(f"  {name:<58} {value!s:>28}  {aim}", flush=True)


def seconds(action):
    begun = time.monotonic()
    action()
    return time.monotonic() - begun


def best(action, runs=3):
    return min(seconds(action) for _ in range(runs))


def rate(size, took):
    return f"{size / took / 1e6:.0f} MB/s"


def session_of(server):
    """Process id of the newest session."""
    return max(map(int, server.sessions()))


def fill(box, name, count, size):
    folder = box.folder(name)
    box.fill(folder, count, size)
    return folder


class Place:
    """A local Box and a server, in a directory of their own."""

    def __init__(self, *box_arguments, **server_arguments):
        self.arguments = box_arguments, server_arguments

    def __enter__(self):
        self.directory = tempfile.TemporaryDirectory(prefix="tarvex-bench-")
        path = pathlib.Path(self.directory.name)
        self.box = Box(path, *self.arguments[0])
        self.server = Server(path, self.box, **{"tables": CROWDED, **self.arguments[1]})
        return self.box, self.server

    def __exit__(self, *error):
        self.server.stop()
        self.box.stop()
        self.directory.cleanup()


class Payload:
    """A file of random-looking bytes, and its parts with their digests, as an upload session wants them."""

    def __init__(self, directory, size):
        self.path = directory / f"payload-{size}"
        self.size = size
        block = os.urandom(1024**2)
        with open(self.path, "wb") as file:
            for number in range(0, size, len(block)):
                file.write((number.to_bytes(8, "big") + block)[:min(len(block), size - number)])

    def parts(self, part_size):
        """(offset, bytes) of each part."""
        with open(self.path, "rb") as file:
            for offset in range(0, self.size, part_size):
                yield offset, file.read(part_size)


def store(server, payload, name, announced, meters=None, timeout=600):
    """Seconds of one STOR by a client that only sends. `meters` takes what the session process used."""
    client = server.ftp(timeout=timeout)
    client.voidcmd("TYPE I")
    meter = Meter(session_of(server))

    def run():
        if announced:
            client.sendcmd(f"ALLO {payload.size}")
        with open(payload.path, "rb") as file, client.transfercmd(f"STOR {name}") as data:
            data.sendfile(file)
        client.voidresp()

    took = seconds(run)
    if meters is not None:
        meters.append(meter.stop())
    client.quit()
    return took


def fetch(server, path, meters=None):
    """Seconds of one RETR by a client that only receives, and how many bytes came."""
    client = server.ftp(timeout=600)
    client.voidcmd("TYPE I")
    meter = Meter(session_of(server))
    room, got = bytearray(1 << 20), 0
    begun = time.monotonic()
    with client.transfercmd(f"RETR {path}") as data:
        while count := data.recv_into(room):
            got += count
    client.voidresp()
    took = time.monotonic() - begun
    if meters is not None:
        meters.append(meter.stop())
    client.quit()
    return took, got


def list_folder(server, path, count, meters=None):
    """Seconds of an MLSD of at least `count` lines."""
    client = server.ftp(timeout=600)
    meter = Meter(session_of(server))
    lines = []
    took = seconds(lambda: client.retrlines(f"MLSD {path}", lines.append))
    if meters is not None:
        meters.append(meter.stop())
    client.quit()
    assert len(lines) >= count, f"{len(lines)} lines"
    return took


def least(meters):
    """Of several runs, what the one that used least used."""
    return min(meters, key=lambda meter: meter.total)
