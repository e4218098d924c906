"""The server beside rclone, before a local Box that is as far away, as slow and as limited as the real one.

Every figure starts with a Box of its own, whose limits nobody has used up yet. A setting that the server does not have
is reported as not there. TARVEX_BENCH_MIB (1024) and TARVEX_BENCH_FILES (1000) make a run shorter.
"""

import collections
import concurrent.futures
import io
import os
import pathlib
import tempfile
import threading
import time
import tomllib

from measure import GIB, Payload, fetch, fill, list_folder, rate, row, seconds, session_of, store
from memory import anonymous_and_shared
from rclone_place import RclonePlace

MIB = 1024**2
SIZE = int(os.environ.get("TARVEX_BENCH_MIB", 1024)) * MIB
FILES = int(os.environ.get("TARVEX_BENCH_FILES", 1000))
ITEMS = 30000
PART_SIZES = (8 * MIB, 32 * MIB)
PART_MEMORY = 128 * MIB
# What the server asks of Box in a second, as its defaults are.
PACED = {"policy": '{"user_api_rate_limit": 16}'}
LETTER = {"upload_per_second": 4}
PACKAGED = pathlib.Path(__file__).resolve().parents[1] / "packaging" / "server.toml"
RECOMMENDED = tomllib.loads(PACKAGED.read_text())["storage"]["settings"]


class RealPlace(RclonePlace):
    """One measurement's Box, the server with some settings, and rclone."""

    def __init__(self, settings=None, part_size=0):
        super().__init__("--like", "box", "--set", f"part_size={part_size}", settings={**LETTER, **(settings or {})},
                         **PACED)

    def __enter__(self):
        super().__enter__()
        # What earlier measurements used of the rates that sessions share; no session of this user runs.
        for file in (pathlib.Path.home() / ".tarvex").glob(f"*/{self.box.user_id}*"):
            file.unlink()
        self.mark = self.box.mark()
        return self

    def asked(self):
        """What the Box was asked for since this was last called, in words."""
        entries = self.box.journal(self.mark)
        self.mark = self.box.mark()
        refused = sum(entry["status"] == 429 for entry in entries)
        return f"{len(entries)} requests, {refused} of them 429"


class Settings:
    """Which settings the server has."""

    def __init__(self):
        self.missing = {name for name, value in RECOMMENDED.items() if not self.has(name, value)}

    @staticmethod
    def has(name, value):
        try:
            with RealPlace({name: value}):
                return True
        except AssertionError as error:  # it did not start
            if name not in str(error):
                raise
            return False

    def recommended(self, **other):
        return {name: value for name, value in {**RECOMMENDED, **other}.items() if name not in self.missing}

    def variants(self, *alone, eight, part_memory=0):
        """(name, settings or None) of the letter, of each setting alone, of all together, and of eight in flight, which
        may need more `part_memory`."""
        yield "by the letter", {}
        for name in alone:
            value = RECOMMENDED[name]
            yield f"{name} = {value}", None if name in self.missing else {name: value}
        without = f" (without {', '.join(sorted(self.missing))})" if self.missing else ""
        yield f"all together{without}", self.recommended()
        room = {"part_memory": part_memory} if part_memory > PART_MEMORY else {}
        name = f"{eight} = 8" + (f", part_memory = {part_memory // MIB} MiB" if room else "")
        yield name, None if eight in self.missing else self.recommended(**{eight: 8}, **room)


class PeakPages:
    """The most that the newest session has in memory while something runs, in MiB."""

    def __init__(self, server):
        self.server, self.anonymous, self.shared = server, 0, 0
        self.over = threading.Event()

    def __enter__(self):
        self.watcher = threading.Thread(target=self.watch)
        self.watcher.start()
        return self

    def watch(self):
        while not self.over.wait(0.1):
            try:
                anonymous, shared = anonymous_and_shared(session_of(self.server))
            except (OSError, ValueError):
                continue  # not begun, or just over
            self.anonymous, self.shared = max(self.anonymous, anonymous / MIB), max(self.shared, shared / MIB)

    def __str__(self):
        return f"{self.anonymous:.0f} MiB + {self.shared:.0f} shared"

    def __exit__(self, *error):
        self.over.set()
        self.watcher.join()


def rates(what, variants, measure, **place):
    """A row for each variant; returns variant -> seconds."""
    took = {}
    for name, settings in variants:
        if settings is None:
            row(f"{what}: {name}", "not there")
            continue
        with RealPlace(settings, **place) as there:
            with PeakPages(there.server) as peak:
                took[name] = measure(there)
            row(f"{what}: {name}", rate(SIZE, took[name]), f"{there.asked()}; {peak}")
    return took


def rclone_rates(what, measure, took, **place):
    for name, options in (("rclone", ()), ("rclone, 8 in flight", ("--transfers", "8", "--multi-thread-streams", "8"))):
        with RealPlace(**place) as there:
            took[name] = measure(there, options)
            row(f"{what}: {name}", rate(SIZE, took[name]), there.asked())


def ratio(took, slower, faster, what, aim):
    """How many times as fast one variant is as another; names are begun."""
    found = [next((value for name, value in took.items() if name.startswith(begin)), None)
             for begin in (slower, faster)]
    if None not in found:
        row(what, f"{found[0] / found[1]:.2f} times", f"aim: at least {aim}")


def compare_with_rclone(took, what, setting):
    ratio(took, "by the letter", f"{setting} = 4", f"{what}: 4 in flight / 1", 3.6)
    ratio(took, "rclone", "all together", f"{what}: all together / rclone", 1.2)
    ratio(took, "rclone, 8", f"{setting} = 8", f"{what}: 8 in flight / rclone's 8", 1)


def up(payload, settings):
    for part_size in PART_SIZES:
        what = f"{SIZE // MIB} MiB up, parts of {part_size // MIB} MiB"
        alone = ("part_concurrency", "replace_as_version") if part_size == PART_SIZES[0] else ("part_concurrency",)

        def ours(place):
            return store(place.server, payload, "new", True)

        def theirs(place, options):
            return place.rclone(*options, "copyto", payload.path, "bx:new")

        variants = settings.variants(*alone, eight="part_concurrency", part_memory=8 * part_size)
        took = rates(what, variants, ours, part_size=part_size)
        rclone_rates(what, theirs, took, part_size=part_size)
        compare_with_rclone(took, what, "part_concurrency")


def down(settings):
    what = f"{SIZE // MIB} MiB down"

    def prepare(place):
        fill(place.box, "large", 1, SIZE)
        (name,) = place.box.items(place.box.items()["large"]["id"])
        place.asked()
        return f"large/{name}"

    def ours(place):
        took, got = fetch(place.server, "/" + prepare(place))
        assert got == SIZE, f"{got} bytes came"
        return took

    def theirs(place, options):
        return place.rclone(*options, "copyto", f"bx:{prepare(place)}", place.top / "down")

    took = rates(what, settings.variants("download_streams", eight="download_streams"), ours)
    rclone_rates(what, theirs, took)
    compare_with_rclone(took, what, "download_streams")


def listing(settings):
    what = f"listing of {ITEMS} items"
    took = {}

    def ours(place):
        return list_folder(place.server, "/many", ITEMS)

    def theirs(place):
        return place.rclone("lsf", "bx:many")

    variants = (("by the letter", {}, ours), ("page_limit = 1000", {"page_limit": 1000}, ours),
                ("all together", settings.recommended(), ours), ("rclone", {}, theirs))
    for name, values, measure in variants:
        with RealPlace(values) as place:
            fill(place.box, "many", ITEMS, 0)
            place.asked()
            took[name] = measure(place)
            row(f"{what}: {name}", f"{took[name]:.1f} s", place.asked())
    row(f"{what}: all together / rclone", f"{took['all together'] / took['rclone']:.2f}", "aim: at most 1.1")


def silent_wait(server, payload):
    """Seconds from the last byte of a client that announces no size to the final reply."""
    client = server.ftp(timeout=600)
    client.voidcmd("TYPE I")
    with open(payload.path, "rb") as file, client.transfercmd("STOR silent") as data:
        data.sendfile(file)
    sent = time.monotonic()
    client.voidresp()
    took = time.monotonic() - sent
    client.quit()
    return took


def silent(payload, settings):
    for name, values in (("by the letter", {}), ("all together", settings.recommended())):
        with RealPlace(values, part_size=PART_SIZES[1]) as place, PeakPages(place.server) as peak:
            took = silent_wait(place.server, payload)
            aim = f"aim: at most {12 * SIZE / GIB:.0f} s; " if name == "all together" else ""
            row(f"{SIZE // MIB} MiB, size not told, last byte to 226: {name}", f"{took:.1f} s", aim + place.asked())
        row(f"{SIZE // MIB} MiB, size not told, memory: {name}", peak, f"aim: at most {PART_MEMORY // MIB + 32}")


def small_files(settings):
    content = os.urandom(10_000)
    with RealPlace(settings.recommended()) as place:
        clients = [place.server.ftp(timeout=600) for _ in range(4)]
        clients[0].mkd("/small")
        for client in clients:
            client.nlst("/small")
        place.mark = place.box.mark()

        def run(which):
            for number in range(FILES // 4):
                clients[which].sendcmd(f"ALLO {len(content)}")
                clients[which].storbinary(f"STOR /small/f{which}-{number}", io.BytesIO(content))

        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            took = seconds(lambda: list(pool.map(run, range(4))))
        entries = place.box.journal(place.mark)
        what = f"{FILES} files of 10 KB by 4 sessions"
        kinds = collections.Counter(f"{entry['method']} {entry['path']}" for entry in entries)
        row(f"{what}: ours", f"{FILES / took:.2f} files/s", place.asked() + "; Box takes 4 a second")
        row(f"{what}: requests a store", f"{len(entries) / FILES:.3f}",
            "; ".join(f"{count} {kind}" for kind, count in kinds.most_common(3)))
    with RealPlace() as place:
        source = place.top / "source"
        source.mkdir()
        for number in range(FILES):
            (source / f"f{number}").write_bytes(content)
        took = place.rclone("--transfers", "4", "copy", source, "bx:small")
        row(f"{what}: rclone --transfers 4", f"{FILES / took:.2f} files/s", place.asked())


def compare():
    settings = Settings()
    for name in sorted(settings.missing):
        row(f"setting {name}", "not there")
    with tempfile.TemporaryDirectory(prefix="tarvex-bench-") as name:
        payload = Payload(pathlib.Path(name), SIZE)
        listing(settings)
        down(settings)
        up(payload, settings)
        silent(payload, settings)
    small_files(settings)
