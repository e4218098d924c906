#!/usr/bin/env python3
"""Prints the private bytes of processes as JSON, {"PID": bytes}.

Private bytes are what a process alone keeps in memory: Private_Clean and Private_Dirty of /proc/PID/smaps_rollup.

    bench/memory.py PID...
"""

import json
import sys


def private_bytes(pid):
    """Raises OSError when there is no such process or it is another user's."""
    total = 0
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        for line in rollup:
            name, _, value = line.partition(":")
            if name in ("Private_Clean", "Private_Dirty"):
                total += int(value.split()[0]) * 1024
    return total


def anonymous_and_shared(pid):
    """Bytes of pages that no file stands behind, and of those that other processes have too. Raises OSError."""
    anonymous = shared = 0
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        for line in rollup:
            name, _, value = line.partition(":")
            if name == "Anonymous":
                anonymous = int(value.split()[0]) * 1024
            elif name in ("Shared_Clean", "Shared_Dirty"):
                shared += int(value.split()[0]) * 1024
    return anonymous, shared


def proportional_bytes(pid):
    """Pages that processes share are divided among them (Pss of /proc/PID/smaps_rollup). Raises OSError."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        return next(int(line.split()[1]) * 1024 for line in rollup if line.startswith("Pss:"))


def main():
    pids = sys.argv[1:]
    if not pids or not all(pid.isdecimal() for pid in pids):
        sys.exit("usage: bench/memory.py PID...")
    try:
        print(json.dumps({pid: private_bytes(pid) for pid in pids}))
    except OSError as error:
        sys.exit(f"bench/memory.py: {error.filename or 'process'}: {error.strerror}")


if __name__ == "__main__":
    main()
