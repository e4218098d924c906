"""Extended block mode: on loopback against stream mode, and over a long wire that loses packets."""

import contextlib
import json
import pathlib
import subprocess
import sys
import threading
import time

from block_client import CLOSES, EOD, EOF, HEADER, BlockClient
from local import pattern

BLOCK = 1024**2
MIB = 1024**2


def discard(lane, counted):
    """Reads blocks until the last one of the connection, and drops them."""
    buffer = memoryview(bytearray(BLOCK))
    while True:
        bits, count, _ = HEADER.unpack(BlockClient.exactly(lane, HEADER.size))
        counted.append(count)
        while count:
            count -= lane.recv_into(buffer[:min(count, BLOCK)]) or sys.exit("a connection broke")
        if bits & EOD:
            return


def download(client, path, size, streams):
    client.ftp.sendcmd(f"OPTS RETR Parallelism={streams},{streams},{streams};BlockSize={BLOCK};")
    counted = []
    with client.listen() as listener:
        begun = time.monotonic()
        client.ftp.putcmd(f"RETR {path}")
        assert client.reply()[:3] == "150"
        lanes = [listener.accept()[0] for _ in range(streams)]
        threads = [threading.Thread(target=discard, args=(lane, counted)) for lane in lanes]
        for thread in threads:
            thread.start()
        answer = client.reply()
        for thread in threads:
            thread.join()
        took = time.monotonic() - begun
    assert answer.startswith("226") and sum(counted) == size, answer
    return took


def upload(client, path, size, streams):
    block = pattern(BLOCK)
    client.ftp.sendcmd(f"ALLO {size}")
    address = client.passive()
    begun = time.monotonic()
    client.ftp.putcmd(f"STOR {path}")
    assert client.reply()[:3] == "150"
    lanes = [client.connect(address) for _ in range(streams)]

    def send(number):
        for at in range(number * BLOCK, size, streams * BLOCK):
            lanes[number].sendall(HEADER.pack(0, min(BLOCK, size - at), at))
            lanes[number].sendall(block[:size - at])
        lanes[number].sendall(HEADER.pack(EOD | CLOSES | (0 if number else EOF), 0, 0 if number else streams))

    threads = [threading.Thread(target=send, args=(number,)) for number in range(streams)]
    for thread in threads:
        thread.start()
    answer = client.reply()
    took = time.monotonic() - begun
    for thread in threads:
        thread.join()
    for lane in lanes:
        lane.close()
    assert answer.startswith("226"), answer
    return took


def stream_download(ftp, path, size):
    buffer = memoryview(bytearray(BLOCK))
    begun, received = time.monotonic(), 0
    with contextlib.closing(ftp.transfercmd(f"RETR {path}")) as data:
        while got := data.recv_into(buffer):
            received += got
    ftp.voidresp()
    assert received == size
    return time.monotonic() - begun


def stream_upload(ftp, path, size):
    block = pattern(BLOCK)
    ftp.sendcmd(f"ALLO {size}")
    begun = time.monotonic()
    with contextlib.closing(ftp.transfercmd(f"STOR {path}")) as data:
        for _ in range(0, size, BLOCK):
            data.sendall(block)
    ftp.voidresp()
    return time.monotonic() - begun


def loopback(server, name, size, runs=3):
    """Yields (what, bytes per second)."""
    plain = server.ftp(timeout=600)
    plain.voidcmd("TYPE I")
    client = BlockClient(server.ftp(timeout=600))
    yield "stream mode down", size / min(stream_download(plain, name, size) for _ in range(runs))
    for streams in (1, 2, 4, 8):
        yield f"{streams} down", size / min(download(client, name, size, streams) for _ in range(runs))
    yield "stream mode up", size / min(stream_upload(plain, f"/stream-{run}", size) for run in range(runs))
    for streams in (1, 2, 4, 8):
        yield f"{streams} up", size / min(upload(client, f"/up-{streams}-{run}", size, streams) for run in range(runs))


def long_wire(loss, control):
    """The same over 80 ms of round trip, in a network of its own. \\return bytes per second by what was measured."""
    program = pathlib.Path(__file__).with_name("slow_wire.py")
    done = subprocess.run(["unshare", "-rn", sys.executable, program, str(loss), control], stdout=subprocess.PIPE,
                          check=True)
    return json.loads(done.stdout)
