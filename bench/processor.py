"""CPU seconds of a session process, by thread, and those that digests take by themselves."""

import os
import pathlib
import re
import subprocess


class Meter:
    """What a process uses between `start` and `stop`."""

    def __init__(self, pid):
        self.pid = int(pid)
        self.begun, self.used, self.total = threads_of(self.pid), {}, process_seconds(self.pid)

    def stop(self):
        ended = threads_of(self.pid)
        self.total = process_seconds(self.pid) - self.total
        operation = min((thread for thread in ended if thread != self.pid), default=None)
        for thread, seconds in ended.items():
            role = "I/O" if thread == self.pid else "operation" if thread == operation else "others"
            self.used[role] = self.used.get(role, 0) + seconds - self.begun.get(thread, 0)
        over = self.total - sum(self.used.values())
        if over > 0.02:  # of threads that are over; the total comes in hundredths
            self.used["others"] = self.used.get("others", 0) + over
        self.total = sum(self.used.values())
        return self

    def __str__(self):
        shares = ", ".join(f"{role} {seconds:.2f}" for role, seconds in self.used.items() if seconds >= 0.005)
        return f"{self.total:.2f} s ({shares})"


def process_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def threads_of(pid):
    """Thread id -> CPU seconds, to the nanosecond."""
    found = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        try:
            found[int(task.name)] = int((task / "schedstat").read_text().split()[0]) / 1e9
        except OSError:
            pass  # over
    return found


def digest_seconds(size, passes):
    """CPU seconds of passes over `size` bytes, {algorithm: passes}, by openssl's own measure at this moment."""
    return sum(count * size / digest_speed(algorithm) for algorithm, count in passes.items())


def digest_speed(algorithm):
    """Bytes per CPU second."""
    done = subprocess.run(["openssl", "speed", "-seconds", "1", "-bytes", str(1 << 20), "-evp", algorithm],
                          capture_output=True, text=True, check=True)
    return float(re.search(rf"^{algorithm}\s+([\d.]+)k", done.stdout, re.IGNORECASE | re.MULTILINE).group(1)) * 1000
