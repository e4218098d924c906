"""Many clients at once, and one hostile one."""

import os
import subprocess
import sys
import time

from local import Box, Server
from memory import proportional_bytes

SESSIONS = 500
FLOOD_SECONDS = 20
# 421s from as many connections at once as one address can have, at the lowest priority: what it costs itself is not
# what it costs others.
FLOOD = """
import socket, sys, threading, time
end, refused = time.monotonic() + float(sys.argv[2]), [0] * 16
def run(n):
    while time.monotonic() < end:
        try:
            with socket.create_connection(("127.0.0.1", int(sys.argv[1])), 5, ("127.0.0.9", 0)) as s:
                refused[n] += s.recv(100).startswith(b"421")
        except OSError:
            pass
threads = [threading.Thread(target=run, args=(n,)) for n in range(16)]
for t in threads: t.start()
for t in threads: t.join()
print(sum(refused))
"""


def cpu_seconds(pid):
    """Of the process itself, without its children."""
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def idle_sessions(row, directory):
    """As many sessions as a busy day has, logged in and silent: what they hold, and what they cost the listener."""
    box = Box(directory)
    server = Server(directory, box, tables="[limits]\nsessions_per_address = 0\nconnections_per_minute = 0")
    before = cpu_seconds(server.process.pid)
    clients = [server.ftp() for _ in range(SESSIONS)]
    made = cpu_seconds(server.process.pid)
    time.sleep(2)
    pids = [server.process.pid, *server.sessions()]
    assert len(pids) == SESSIONS + 1
    held = sum(map(proportional_bytes, pids))
    begun = cpu_seconds(server.process.pid)
    time.sleep(10)
    idle = cpu_seconds(server.process.pid) - begun
    row(f"{SESSIONS} idle sessions and the listener: memory (PSS)", f"{held / 1024**2:.0f} MiB", "aim: under 400")
    row(f"{SESSIONS} idle sessions: listener, for each that came", f"{(made - before) / SESSIONS * 1000:.2f} ms of CPU")
    row(f"{SESSIONS} idle sessions: listener, in 10 s of silence", f"{idle:.2f} s of CPU")
    for client in clients:
        client.close()
    server.stop()
    box.stop()


def hostile_client(row, directory):
    """A flood of connections from one address, default limits: what a download of somebody else's loses."""
    box = Box(directory)
    server = Server(directory, box)
    box.fill("0", 1, 256 * 1024**2, "good-")
    (name,) = box.items()

    def best():
        took = []
        for _ in range(4):
            begun = time.monotonic()
            server.curl("-o", "/dev/null", f"{server.url}/{name}")
            took.append(time.monotonic() - begun)
        return min(took)

    alone = best()
    before = cpu_seconds(server.process.pid)
    with subprocess.Popen(["nice", "-n", "19", sys.executable, "-c", FLOOD, str(server.port), str(FLOOD_SECONDS)],
                          stdout=subprocess.PIPE, text=True) as flood:
        time.sleep(1)
        flooded = best()
        refused = int(flood.communicate(timeout=120)[0])
    spent = cpu_seconds(server.process.pid) - before
    row("one hostile client: connections turned away a second", f"{refused / FLOOD_SECONDS:.0f}")
    row("one hostile client: listener", f"{spent / FLOOD_SECONDS:.3f} of a processor")
    row("one hostile client: share of its rate that another keeps", f"{alone / flooded:.2f}", "aim: at least 0.8")
    server.stop()
    box.stop()
