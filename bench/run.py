"""Runs the benchmarks and prints one table. Whole programs on loopback; each figure beside what it is compared with."""

import concurrent.futures
import ftplib
import http.client
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "end_to_end"))
from local import BUILD, PASSWORD, Box, Server  # noqa: E402
from memory import private_bytes  # noqa: E402

GIB = 1024**3
ROWS = []


def row(name, value, aim=""):
    ROWS.append((name, value, aim))
    print(f"  {name:<58} {value:>28}  {aim}", flush=True)


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
    children = pathlib.Path(f"/proc/{server.process.pid}/task/{server.process.pid}/children").read_text().split()
    return max(map(int, children))


def fill(box, name, count, size):
    folder = box.folder(name)
    box.fill(folder, count, size)
    return folder


class Place:
    """A local Box and a server, in a directory of their own."""

    def __enter__(self):
        self.directory = tempfile.TemporaryDirectory(prefix="tarvex-bench-")
        path = pathlib.Path(self.directory.name)
        self.box = Box(path)
        self.server = Server(path, self.box)
        return self.box, self.server

    def __exit__(self, *error):
        self.server.stop()
        self.box.stop()
        self.directory.cleanup()


def download():
    """1 GiB through the server, against curl straight from the local Box."""
    with Place() as (box, server):
        folder = fill(box, "large", 1, GIB)
        (item,) = box.items(folder).values()
        straight = best(lambda: subprocess.run(
            ["curl", "-sfL", "-o", "/dev/null", "-H", f"Authorization: Bearer {box.token}",
             f"{box.base}/2.0/files/{item['id']}/content"], check=True))
        through = best(lambda: server.curl("-o", "/dev/null", f"{server.url}/large/{item['name']}"))
        row("download 1 GiB: curl straight from the local Box", rate(GIB, straight))
        row("download 1 GiB: curl through the server", rate(GIB, through))
        row("download 1 GiB: share of the straight rate", f"{straight / through:.2f}", "aim: at least 0.85")


def raw_listing(box, folder):
    connection = http.client.HTTPConnection(box.host, box.port)
    marker, count = None, 0
    while True:
        query = "fields=type,id,name,parent,size,content_modified_at,sha1&usemarker=true&limit=300"
        connection.request("GET", f"/2.0/folders/{folder}/items?{query}" + (f"&marker={marker}" if marker else ""),
                           headers={"Authorization": f"Bearer {box.token}"})
        page = json.loads(connection.getresponse().read())
        count += len(page["entries"])
        marker = page.get("next_marker")
        if not marker:
            return count


def listing():
    """A folder of 30,000 items, pacing out of the way, against one client that fetches the same pages."""
    with Place() as (box, server):
        folder = fill(box, "many", 30000, 0)
        assert raw_listing(box, folder) == 30000
        raw = best(lambda: raw_listing(box, folder))

        def through():
            client = server.ftp()
            lines = []
            client.retrlines("MLSD /many", lines.append)
            assert len(lines) >= 30000
            client.quit()

        took = best(through)
        row("listing 30,000 items: the same pages, keep-alive client", f"{raw:.2f} s")
        row("listing 30,000 items: MLSD through the server", f"{took:.2f} s")
        row("listing 30,000 items: ratio", f"{took / raw:.2f}", "aim: at most 1.3")


def memory():
    """Private bytes of a session, idle and after a listing of 30,000 items."""
    with Place() as (box, server):
        fill(box, "many", 30000, 0)
        client = server.ftp()
        client.sendcmd("NOOP")
        idle = private_bytes(session_of(server))
        client.retrlines("MLSD /many", lambda line: None)
        client.sendcmd("NOOP")
        time.sleep(0.5)
        listed = private_bytes(session_of(server))
        client.quit()
        row("memory: idle session, private", f"{idle / 1024**2:.2f} MiB", "aim: at most 4 MiB")
        row("memory: session that listed 30,000 items, private", f"{listed / 1024**2:.2f} MiB")
        row("memory: per cached item", f"{(listed - idle) / 30000:.0f} bytes", "aim: at most 600")


def logins():
    """Logins per second, one after the other and eight side by side."""
    with Place() as (_, server):
        def one():
            server.ftp().close()

        took = seconds(lambda: [one() for _ in range(50)])
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            took8 = seconds(lambda: list(pool.map(lambda _: one(), range(200))))
        row("logins per second, one client", f"{50 / took:.0f}")
        row("logins per second, eight clients", f"{200 / took8:.0f}")


def pacing():
    """Spacing of requests at 16 per second, by 1, 2 and 8 processes of one user."""
    for processes in (1, 2, 8):
        done = subprocess.run([BUILD / "bin/pacing_gaps", str(processes), "10", "16"], capture_output=True, check=True)
        found = json.loads(done.stdout)
        row(f"pacing at 16/s, {processes} process{'es' if processes > 1 else ''}: gaps smallest / median / largest",
            f"{found['smallest_ms']:.1f} / {found['median_ms']:.1f} / {found['largest_ms']:.1f} ms", "aim: none below 62.5")
        row(f"pacing at 16/s, {processes} process{'es' if processes > 1 else ''}: share of the permitted rate",
            f"{found['rate_used']:.3f}", "aim: at least 0.95" if processes == 8 else "")


def micro():
    """Pieces inside a process."""
    subprocess.run([BUILD / "bin/micro", "--benchmark_min_time=0.2"], check=True)


BENCHMARKS = {run.__name__: run for run in (download, listing, memory, logins, pacing, micro)}


def main():
    names = sys.argv[1:] or list(BENCHMARKS)
    if names == ["--list"]:
        print("\n".join(f"{name:<10} {run.__doc__}" for name, run in BENCHMARKS.items()))
        return
    unknown = [name for name in names if name not in BENCHMARKS]
    if unknown:
        sys.exit(f"script/bench: no benchmark {unknown[0]}; try --list")
    for name in names:
        print(f"{name}: {BENCHMARKS[name].__doc__}")
        BENCHMARKS[name]()


if __name__ == "__main__":
    main()
