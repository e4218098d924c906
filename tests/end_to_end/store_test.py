"""Files stored through real clients: every size, every fault of Box on the way, and clients that die in the middle."""

import ftplib
import hashlib
import pathlib
import signal
import subprocess
import time

import pytest
from local import PASSWORD, Server, pattern, sha1, wait_until

PART = 8 * 1024**2
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


def children(program):
    return pathlib.Path(f"/proc/{program.process.pid}/task/{program.process.pid}/children").read_text().split()


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha1").hexdigest()


def requests(box, mark):
    return [(entry["method"], entry["path"]) for entry in box.journal(mark)]


def uploads(box, mark):
    """Requests that carried file data."""
    return [(method, path) for method, path in requests(box, mark) if path.startswith("/api/2.0/files")]


def store(client, path, content, announce=False, rest=None):
    if announce:
        client.sendcmd(f"ALLO {len(content) if announce is True else announce}")
    with client.transfercmd(f"STOR {path}", rest) as data:
        data.sendall(content)
    return client.voidresp()


@pytest.mark.parametrize("size", [0, 1, CHUNKED, CHUNKED + 1, 200_000_001])
def test_files_of_every_size_arrive(box, server, source, size):
    mark = box.mark()
    server.curl("-T", source(size), f"{server.url}/size-{size}")
    item = box.find(f"/size-{size}")
    assert item["size"] == size and item["sha1"] == digest(source(size))
    chunked = any("upload_sessions" in path for _, path in uploads(box, mark))
    assert chunked == (size > CHUNKED), "the true size decides, whether announced or not"
    if chunked:
        mark = box.mark()
        with open(source(size), "rb") as file:
            md5 = hashlib.file_digest(file, "md5").hexdigest()
        assert server.ftp().sendcmd(f"CKSM MD5 0 -1 /size-{size}") == f"213 {md5}"
        assert not any(path.endswith("/content") for _, path in requests(box, mark)), "known since the upload"


def test_announced_files_go_up_as_they_come(box, server, source):
    for size in (1000, CHUNKED, CHUNKED + 5):
        server.lftp(f"set ftp:use-allo yes; put {source(size)} -o announced-{size}")
        assert box.find(f"/announced-{size}")["sha1"] == digest(source(size))


@pytest.mark.parametrize("sent, announced", [(10, 11), (11, 10), (60_000_000, 60_000_001), (60_000_001, 60_000_000)])
def test_another_number_of_bytes_than_announced_stores_nothing(box, ftp, sent, announced):
    name = f"wrong-{sent}-{announced}"
    with pytest.raises((ftplib.error_perm, ftplib.error_temp, ConnectionError, BrokenPipeError)):
        store(ftp, name, bytes(sent), announce=announced)
    assert box.find(f"/{name}") is None


@pytest.mark.parametrize("name", ["with space", "quo\"te's", "größe ☃", "x" * 255, "-dash", "semi;colon", "[b]{r}*?"])
def test_names_survive_the_way_there_and_back(box, server, ftp, name):
    store(ftp, f"/{name}", b"content of " + name.encode())
    assert box.find(f"/{name}")["size"] == len(b"content of " + name.encode())
    received = bytearray()
    server.ftp().retrbinary(f"RETR /{name}", received.extend)
    assert received == b"content of " + name.encode()


def test_storing_onto_what_is_there(box, ftp):
    store(ftp, "/again", b"first")
    store(ftp, "/again", b"second")
    assert box.content(box.find("/again")["id"]) == b"second"
    ftp.mkd("/a folder")
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="(?s)Path is a folder|550|553"):
        store(ftp, "/a folder", b"x")
    assert box.find("/a folder")["type"] == "folder"
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="^5"):
        store(ftp, "/no/such/folder/x", b"x")
    assert ftp.sendcmd("NOOP").startswith("200")


def test_the_modification_time_is_kept(box, ftp):
    ftp.sendcmd("STORATTR modify=20200102030405;")
    store(ftp, "/dated", b"x")
    assert ftp.sendcmd("MDTM /dated") == "213 20200102030405"
    store(ftp, "/undated", b"x")
    assert not ftp.sendcmd("MDTM /undated").startswith("213 2020")


def test_what_cannot_be_continued_is_refused_and_stays_whole(box, server, source, ftp):
    old, new = b"the whole file, short", source(1000).read_bytes()
    for upload in (["-C", "-"], ["-a"]):
        store(ftp, "/kept", old)
        assert server.curl(*upload, "-T", source(1000), f"{server.url}/kept", check=False).returncode != 0
        assert box.content(box.find("/kept")["id"]) == old
    server.lftp(f"put -c {source(1000)} -o kept", check=False)  # which sends all of it when it is refused
    assert box.content(box.find("/kept")["id"]) in (old, new)
    for command in ("APPE /kept", "APPE /new"):
        ftp.makepasv()
        with pytest.raises(ftplib.error_perm, match="^553"):
            ftp.sendcmd(command)
    ftp.makepasv()
    ftp.sendcmd("REST 10")
    with pytest.raises(ftplib.error_perm, match="^553"):
        ftp.sendcmd("STOR /new")
    assert box.find("/new") is None


def test_a_cut_chunked_upload_goes_on_at_the_next_part(box, server, source):
    content = source(CHUNKED + PART).read_bytes()
    client = server.ftp()
    mark = box.mark()
    client.sendcmd(f"ALLO {len(content)}")
    with client.transfercmd("STOR /resumed") as data:
        data.sendall(content[:3 * PART + 1000])
    with pytest.raises((ftplib.error_perm, ftplib.error_temp)):
        client.voidresp()
    assert box.find("/resumed") is None
    for offset in (1000, 4 * PART):  # not at a part's start; beyond what has arrived
        client.makepasv()
        client.sendcmd(f"REST {offset}")
        with pytest.raises(ftplib.error_perm, match="^553"):
            client.sendcmd("STOR /resumed")
    assert store(client, "/resumed", content[3 * PART:], rest=3 * PART).startswith("226")
    assert box.find("/resumed")["sha1"] == sha1(content)
    assert len([1 for method, path in uploads(box, mark) if method == "POST" and path.endswith("upload_sessions")]) == 1
    client.close()


@pytest.mark.parametrize("size, path, row, stored", [
    (10, "/api/2.0/files/content", {"status": 429, "text": "", "headers": {"Retry-After": "1"}}, False),
    (10, "/api/2.0/files/content", {"status": 500, "text": "<html>"}, False),
    (10, "/api/2.0/files/content", {"cut_before_answer": True}, False),
    (10, "/api/2.0/files/content", {"status": 403, "text": '{"code": "storage_limit_exceeded"}'}, False),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions", {"status": 429, "text": "", "times": 2}, True),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions", {"status": 429, "text": "", "headers": {"Retry-After": "1"}}, True),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions", {"status": 500, "text": ""}, False),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*", {"method": "PUT", "status": 429, "text": "", "times": 2}, True),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*", {"method": "PUT", "cut_before_answer": True, "times": 2}, True),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*", {"method": "PUT", "status": 500, "text": ""}, False),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*", {"method": "PUT", "status": 200, "text": ""}, False),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*/commit", {"status": 202, "text": "", "times": 2}, True),
    (CHUNKED + 1, "/api/2.0/files/upload_sessions/*/commit", {"status": 500, "text": ""}, False),
])
def test_faults_of_box_on_the_way(box, server, source, request, size, path, row, stored):
    client = server.ftp()
    name = f"/fault-{abs(hash(request.node.name))}"
    box.fault(**{"method": "POST", "times": 1, "path": path, **row})
    content = source(size).read_bytes()
    if stored:
        assert store(client, name, content).startswith("226")
        assert box.find(name)["sha1"] == sha1(content)
    else:
        with pytest.raises((ftplib.error_perm, ftplib.error_temp)):
            store(client, name, content)
        assert box.find(name) is None
    box.clear_faults()
    assert store(client, f"{name}-next", b"next").startswith("226")
    assert store(client, name, content).startswith("226"), "the same session may try again"
    client.close()


def test_a_commit_that_is_never_ready(tmp_path, box, source):
    server = Server(tmp_path, box, settings={"commit_attempts": 2})
    client = server.ftp()
    box.fault(method="POST", path="/api/2.0/files/upload_sessions/*/commit", status=202, text="", times=9)
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="Upload is not ready to commit"):
        store(client, "/never", source(CHUNKED + 1).read_bytes())
    box.clear_faults()
    assert store(client, "/next", b"next").startswith("226")
    client.close()
    assert server.stop() == 0


def test_above_the_upload_limit(tmp_path, box):
    server = Server(tmp_path, box, credential={"access_token": box.token, "token_expiry": "2099-01-01T00:00:00.0+00:00",
                                               "sub": box.user_id, "max_upload": 100})
    client = server.ftp()
    assert store(client, "/limit-100", bytes(100)).startswith("226")
    with pytest.raises(ftplib.error_temp, match="(?s)451-QUOTA_EXCEEDED.*Box-Upload-Size: \"101\""):
        store(client, "/limit-101", bytes(101))
    client.close()
    assert server.stop() == 0


def test_a_full_spool_directory(tmp_path, box, source):
    server = Server(tmp_path, box, server_lines="spool_limit = 60000000")
    result = server.curl("-T", source(70_000_000), f"{server.url}/spooled", check=False)
    assert result.returncode != 0 and b"452" in result.stderr
    assert box.find("/spooled") is None
    server.curl("-T", source(1000), f"{server.url}/spooled")
    assert server.stop() == 0


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
    wait_until(lambda: not children(server))
    left = {name: item for name, item in box.items().items() if name.startswith(f"killed-{size}-{announce}")}
    assert all(item["size"] == size and item["sha1"] == digest(path) for item in left.values()), left


def test_abort_in_the_middle_of_a_store(box, server):
    client = server.ftp()
    data = client.transfercmd("STOR /aborted")
    data.sendall(bytes(1000))
    client.putcmd("ABOR")
    assert client.getmultiline().startswith("426") and client.getmultiline().startswith("226")
    data.close()
    assert box.find("/aborted") is None
    assert store(client, "/after abort", b"x").startswith("226")
    client.close()
