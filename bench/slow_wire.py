"""Measures downloads and uploads between two networks that a wire joins which delays packets and loses some of them.

The wire is this program: it carries packets from one tun device to the other. Run by `unshare -rn`."""

import collections
import ctypes
import fcntl
import json
import os
import pathlib
import random
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "end_to_end"))
from block_client import BlockClient  # noqa: E402
from block_mode import MIB, download, upload  # noqa: E402
from local import PASSWORD, Box, Server  # noqa: E402

DELAY = 0.040  # each way
NEW_NETWORK = 0x40000000
SIZE = 16 * MIB
HERE, THERE = "10.9.0.1", "10.9.0.2"


def open_device(address, control):
    """A tun device with an address, in the network that this process is in. \\return its descriptor."""
    device = os.open("/dev/net/tun", os.O_RDWR)
    tun, no_header, set_up = 0x0001, 0x1000, 0x400454CA
    fcntl.ioctl(device, set_up, struct.pack("16sH22x", b"wire", tun | no_header))
    for command in (f"addr add {address}/24 dev wire", "link set lo up", "link set wire up txqueuelen 10000"):
        subprocess.run(["ip", *command.split()], check=True)
    pathlib.Path("/proc/sys/net/ipv4/tcp_congestion_control").write_text(control)
    return device


def carry(devices, loss):
    """Passes packets on until it is ended."""
    queues = {one: collections.deque() for one in devices}
    other = {devices[0]: devices[1], devices[1]: devices[0]}
    for device in devices:
        os.set_blocking(device, False)
    while True:
        due = min((queue[0][0] for queue in queues.values() if queue), default=None)
        ready = select.select(devices, [], [], None if due is None else max(0, due - time.monotonic()))[0]
        now = time.monotonic()
        for device in ready:
            try:
                for _ in range(64):
                    packet = os.read(device, 65536)
                    if random.random() >= loss:
                        queues[device].append((now + DELAY, packet))
            except BlockingIOError:
                pass
        for device, queue in queues.items():
            while queue and queue[0][0] <= now:
                try:
                    os.write(other[device], queue.popleft()[1])
                except OSError:
                    pass  # a full device loses it


def start_client(ours, control):
    """A process in a network of its own: hands its device over, and measures once it is told the server's port."""
    child = os.fork()
    if child:
        return child
    assert ctypes.CDLL(None, use_errno=True).unshare(NEW_NETWORK) == 0, os.strerror(ctypes.get_errno())
    socket.send_fds(ours, [b"device"], [open_device(THERE, control)])
    port = int(ours.recv(16))
    import ftplib
    ftp = ftplib.FTP(timeout=600)
    ftp.connect(HERE, port)
    ftp.login("alice", PASSWORD)
    client = BlockClient(ftp)
    found = {}
    for streams in (1, 8):
        found[f"{streams} down"] = SIZE / download(client, "/large", SIZE, streams)
        found[f"{streams} up"] = SIZE / upload(client, f"/up-{streams}", SIZE, streams)
    ours.sendall(json.dumps(found).encode())
    os._exit(0)


def main():
    loss, control = float(sys.argv[1]), sys.argv[2]
    device = open_device(HERE, control)
    ours, theirs = socket.socketpair()
    client = start_client(theirs, control)
    _, (remote,), _, _ = socket.recv_fds(ours, 16, 1)
    wire = os.fork()
    if wire == 0:
        carry([device, remote], loss)
    with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as directory:
        box = Box(pathlib.Path(directory))
        box.file("large", os.urandom(SIZE))
        server = Server(pathlib.Path(directory), box, listen=f"{HERE}:0", server_lines="allow_plaintext_login = true")
        ours.sendall(str(server.port).encode())
        print(ours.recv(65536).decode())
        os.waitpid(client, 0)
        os.kill(wire, signal.SIGKILL)
        server.stop()
        box.stop()


if __name__ == "__main__":
    main()
