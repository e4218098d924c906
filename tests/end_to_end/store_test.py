"""Files stored through real clients: every size and name, and clients that die in the middle."""

import hashlib
import signal
import subprocess
import time

import pytest
from local import PASSWORD, pattern, put, wait_until

CHUNKED = 52428800


@pytest.fixture(scope="module")
def source(tmp_path_factory):
    """Makes a file of a size, once."""
    directory = tmp_path_factory.mktemp("source")

    def make(size):
        path = directory / str(size)
        if not path.exists():
            block, left = pattern(1024**2, seed=size), size
            with open(path, "wb") as out:
                while left:
                    left -= out.write(block[:min(left, len(block))])
        return path

    return make


def digest(path, algorithm="sha1"):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, algorithm).hexdigest()


def requests(box, mark):
    return [(entry["method"], entry["path"]) for entry in box.journal(mark)]


@pytest.mark.parametrize("size", [0, 1, CHUNKED, CHUNKED + 1, 200_000_001])
def test_files_of_every_size_arrive(box, server, source, size):
    for announced in (False, True):
        name, mark = f"size-{size}-{announced}", box.mark()
        if announced:
            server.lftp(f"set ftp:use-allo yes; put {source(size)} -o {name}")
        else:
            server.curl("-T", source(size), f"{server.url}/{name}")
        item = box.find(name)
        assert item["size"] == size and item["sha1"] == digest(source(size))
        chunked = any("upload_sessions" in path for _, path in requests(box, mark))
        assert chunked == (size > CHUNKED), "the true size decides, whether announced or not"
        if chunked:
            mark = box.mark()
            assert server.ftp().sendcmd(f"CKSM MD5 0 -1 /{name}") == f"213 {digest(source(size), 'md5')}"
            assert not any(path.endswith("/content") for _, path in requests(box, mark)), "known since the upload"


@pytest.mark.parametrize("name", ["with space", "quo\"te's", "größe ☃", "x" * 255, "-dash", "semi;colon", "[b]{r}*?"])
def test_names_survive_the_way_there_and_back(box, server, ftp, name):
    put(ftp, f"/{name}", b"content of " + name.encode())
    assert box.find(f"/{name}")["size"] == len(b"content of " + name.encode())
    received = bytearray()
    server.ftp().retrbinary(f"RETR /{name}", received.extend)
    assert received == b"content of " + name.encode()


def test_the_modification_time_is_kept(ftp):
    ftp.sendcmd("STORATTR modify=20200102030405;")
    put(ftp, "/dated", b"x")
    assert ftp.sendcmd("MDTM /dated") == "213 20200102030405"


def test_what_cannot_be_continued_is_refused_and_stays_whole(box, server, source, ftp):
    old, new = b"the whole file, short", source(1000).read_bytes()
    for upload in (["-C", "-"], ["-a"]):
        put(ftp, "/kept", old)
        assert server.curl(*upload, "-T", source(1000), f"{server.url}/kept", check=False).returncode != 0
        assert box.content(box.find("/kept")["id"]) == old
    server.lftp(f"put -c {source(1000)} -o kept", check=False)  # which sends all of it when it is refused
    assert box.content(box.find("/kept")["id"]) in (old, new)


@pytest.mark.parametrize("size, announce", [(40_000_000, False), (120_000_000, False), (120_000_000, True)])
def test_killed_clients_leave_nothing_behind(box, server, source, size, announce):
    path = source(size)
    for moment in range(10):
        name = f"killed-{size}-{announce}-{moment}"
        if announce:
            arguments = ["lftp", "-u", f"alice,{PASSWORD}", "-e",
                         f"set ftp:use-allo yes; set net:limit-rate 0:400M; put {path} -o {name}; bye", server.url]
        else:
            arguments = ["curl", "-sS", "--limit-rate", "400M", "-u", f"alice:{PASSWORD}", "-T", str(path),
                         f"{server.url}/{name}"]
        client = subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.02 + 0.04 * moment)
        client.send_signal(signal.SIGKILL)
        client.wait()
    wait_until(lambda: not server.sessions())
    left = {name: item for name, item in box.items().items() if name.startswith(f"killed-{size}-{announce}")}
    assert all(item["size"] == size and item["sha1"] == digest(path) for item in left.values()), left
