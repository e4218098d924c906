"""Commands that change Box, checksums, and sessions of one account side by side."""

import concurrent.futures
import hashlib
import subprocess

import pytest
from local import PASSWORD, pattern, put, sha1


@pytest.fixture
def place(box, ftp, request):
    """A folder of the test's own, as its path."""
    path = f"/{abs(hash(request.node.nodeid))}"
    ftp.mkd(path)
    return path


def test_checksums_come_from_what_costs_least(box, server, ftp, place):
    content = pattern(300_000)
    put(ftp, f"{place}/f", content)
    digests = {name: hashlib.new(name, content).hexdigest() for name in ("md5", "sha1", "sha256")}

    def downloads_of(client, name):
        mark = box.mark()
        assert client.sendcmd(f"CKSM {name} 0 -1 {place}/f").lower() == f"213 {digests[name]}"
        return sum(entry["path"].startswith("/d/") for entry in box.journal(mark))

    assert [downloads_of(ftp, name) for name in ("md5", "sha1", "sha256")] == [1, 0, 1]
    other = server.ftp()
    assert [downloads_of(other, name) for name in ("md5", "md5", "sha1")] == [0, 0, 0], "known in Box since the first"
    box.fault(method="GET", path="/d/**", times=1, cut_answer_after=70_000)
    answer = other.sendcmd(f"CKSM MD5 100 200000 {place}/f")
    assert answer == f"213 {hashlib.md5(content[100:200_100]).hexdigest()}", "what broke is counted once"
    other.close()


def test_sessions_make_one_folder_at_once(box, server, place):
    def make(client):
        for i in range(10):
            client.mkd(f"{place}/{i}")
            put(client, f"{place}/{i}/{id(client)}", b"1")

    clients = [server.ftp() for _ in range(4)]
    for client in clients:
        client.nlst(place)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        for done in [pool.submit(make, client) for client in clients]:
            done.result()
    for i in range(10):
        assert len(clients[0].nlst(f"{place}/{i}")) == len(clients)
    for client in clients:
        client.close()


def tree(directory):
    """Forty folders with four files each, some empty. \\return name -> SHA-1."""
    expected = {}
    for i in range(40):
        folder = directory / f"folder {i % 7}" / f"sub {i}"
        folder.mkdir(parents=True)
        for j in range(4):
            content = pattern(37 * i + 1000 * j, seed=j)
            (folder / f"file {j}.dat").write_bytes(content)
            expected[str((folder / f"file {j}.dat").relative_to(directory))] = sha1(content)
    return expected


def found(directory):
    return {str(path.relative_to(directory)): sha1(path.read_bytes()) for path in directory.rglob("*.dat")}


def test_lftp_mirrors_there_and_back(server, place, tmp_path):
    expected = tree(tmp_path / "there")
    server.lftp(f"mirror -R --parallel=4 {tmp_path}/there {place}/mirror")
    server.lftp(f"mirror --parallel=4 {place}/mirror {tmp_path}/back")
    assert found(tmp_path / "back") == expected


def test_rclone_copies_and_checks(server, place, tmp_path):
    expected = tree(tmp_path / "there")
    config = tmp_path / "rclone.conf"
    obscured = subprocess.run(["rclone", "obscure", PASSWORD], capture_output=True, text=True, check=True).stdout.strip()
    config.write_text(f"[f]\ntype = ftp\nhost = {server.host}\nport = {server.port}\nuser = alice\npass = {obscured}\n"
                      "concurrency = 5\n")
    for arguments in (["copy", f"{tmp_path}/there", f"f:{place}/r"], ["check", f"{tmp_path}/there", f"f:{place}/r", "--download"],
                      ["copy", f"f:{place}/r", f"{tmp_path}/back"], ["purge", f"f:{place}/r"]):
        done = subprocess.run(["rclone", "--config", config, "--retries", "1", "--transfers", "4", *arguments],
                              capture_output=True, text=True, timeout=170)
        assert done.returncode == 0, done.stderr
    assert found(tmp_path / "back") == expected
