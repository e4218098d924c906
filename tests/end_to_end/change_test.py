"""Commands that change Box, checksums, and sessions of one account side by side."""

import concurrent.futures
import ftplib
import hashlib
import io
import re
import subprocess
import zlib

import pytest
from local import PASSWORD, pattern, sha1


@pytest.fixture
def place(box, ftp, request):
    """A folder of the test's own, as its path."""
    path = f"/{abs(hash(request.node.nodeid))}"
    ftp.mkd(path)
    return path


def put(client, path, content):
    client.storbinary(f"STOR {path}", io.BytesIO(content))


def test_folders_are_made_and_removed(box, ftp, place):
    assert ftp.mkd(f'{place}/new "one"') == f'{place}/new "one"'
    assert ftp.mkd(f'{place}/new "one"') == f'{place}/new "one"', "a folder that is there is fine"
    assert ftp.sendcmd(f"XMKD {place}/x").startswith("257")
    put(ftp, f"{place}/x/file", b"1")
    with pytest.raises(ftplib.error_perm, match="^[45]"):
        ftp.rmd(f"{place}/x")
    ftp.delete(f"{place}/x/file")
    ftp.rmd(f"{place}/x")
    assert ftp.nlst(place) == ['new "one"']
    put(ftp, f'{place}/new "one"/deep', b"1")
    assert ftp.sendcmd(f'SITE RDEL {place}/new "one"').startswith("250")
    assert ftp.nlst(place) == []


@pytest.mark.parametrize("command, answer", [
    ("MKD {}/missing/new", "553.NOT_A_DIRECTORY"), ("MKD {}/file", "553.NOT_A_DIRECTORY"),
    ("DELE {}/folder", "Path is a folder."), ("RMD {}/file", "Path is a file."), ("DELE {}/missing", "550.PATH_NOT_FOUND"),
    ("SITE RDEL {}/file", "Path is a file."), ("RNFR {}/missing", "550"), ("RNTO {}/x", "503"),
    ("SITE CHMOD 644 {}/file", "500 NOT_IMPLEMETED"), ("SITE UTIME 20200101000000 {}/file", "500 NOT_IMPLEMETED"),
    ("SITE SYMLINK {}/file {}/link", "500 NOT_IMPLEMETED"), ("SITE CHGRP staff {}/file", "500 NOT_IMPLEMETED"),
    ("SITE NONSENSE", "50"), ("MFMT 20200101000000 {}/file", "502"), ("CKSM NOPE 0 -1 {}/file", "504"),
    ("CKSM MD5 0 -1 {}/missing", "550.PATH_NOT_FOUND"), ("CKSM MD5 -1 5 {}/file", "501"), ("XMD5", "501"),
])
def test_refusals(ftp, place, command, answer):
    ftp.mkd(f"{place}/folder")
    put(ftp, f"{place}/file", b"1")
    with pytest.raises(ftplib.error_perm) as refused:
        ftp.sendcmd(command.replace("{}", place))
    assert re.search(answer, str(refused.value), re.S), refused.value
    assert sorted(ftp.nlst(place)) == ["file", "folder"]


def test_items_are_renamed_and_moved(box, ftp, place):
    ftp.mkd(f"{place}/a")
    ftp.mkd(f"{place}/b")
    put(ftp, f"{place}/a/one", b"1")
    put(ftp, f"{place}/b/two", b"2")
    ftp.rename(f"{place}/a/one", f"{place}/a/uno")
    ftp.rename(f"{place}/a/uno", f"{place}/b/uno")
    with pytest.raises(ftplib.error_perm, match="553.PATH_EXISTS"):
        ftp.rename(f"{place}/b/uno", f"{place}/b/two")
    ftp.rename(f"{place}/b", f"{place}/a/b")
    assert sorted(ftp.nlst(f"{place}/a/b")) == ["two", "uno"]
    assert ftp.nlst(place) == ["a"]


def test_checksums(box, ftp, place):
    content = pattern(300_000)
    put(ftp, f"{place}/f", content)
    expected = {"MD5": hashlib.md5, "SHA1": hashlib.sha1, "SHA256": hashlib.sha256, "SHA512": hashlib.sha512,
                "CRC32": lambda data: type("", (), {"hexdigest": lambda self: f"{zlib.crc32(data):08x}"})(),
                "ADLER32": lambda data: type("", (), {"hexdigest": lambda self: f"{zlib.adler32(data):08x}"})()}
    for offset, length in [(0, -1), (100, -1), (0, 1000), (100_000, 100_000), (0, 0), (299_999, 1)]:
        end = None if length == -1 else offset + length
        for algorithm, function in expected.items():
            answer = ftp.sendcmd(f"CKSM {algorithm} {offset} {length} {place}/f")
            assert answer.lower() == f"213 {function(content[offset:end]).hexdigest()}", (algorithm, offset, length)
    assert ftp.sendcmd(f"XSHA1 {place}/f").lower().endswith(sha1(content))
    assert ftp.sendcmd(f"XMD5 {place}/f").lower().endswith(hashlib.md5(content).hexdigest())
    assert hashlib.sha256(content).hexdigest() in ftp.sendcmd(f"XSHA256 {place}/f").lower()
    assert f"{zlib.crc32(content):08x}" in ftp.sendcmd(f"XCRC {place}/f").lower()
    assert sha1(content) in ftp.sendcmd(f"HASH {place}/f").lower()
    ftp.sendcmd("OPTS HASH MD5")
    assert hashlib.md5(content).hexdigest() in ftp.sendcmd(f"HASH {place}/f").lower()


def test_a_range_is_read_once_and_whatever_breaks_counted_once(box, ftp, place):
    content = pattern(300_000)
    put(ftp, f"{place}/f", content)
    box.fault(method="GET", path="/d/**", times=1, cut_answer_after=70_000)
    mark = box.mark()
    answer = ftp.sendcmd(f"CKSM MD5 100 200000 {place}/f")
    assert answer == f"213 {hashlib.md5(content[100:200_100]).hexdigest()}"
    assert sum(entry["path"].startswith("/d/") for entry in box.journal(mark)) == 2, "one, and one more after the cut"
    with pytest.raises(ftplib.error_perm, match="501"):
        ftp.sendcmd(f"CKSM SHA256 0 300001 {place}/f")
    with pytest.raises(ftplib.error_perm, match="550"):
        ftp.sendcmd(f"CKSM MD5 0 -1 {place}")
    with pytest.raises(ftplib.error_perm, match="550"):
        ftp.retrbinary(f"RETR {place}", lambda data: None)


def test_a_known_checksum_is_answered_without_a_download(box, server, ftp, place):
    content = pattern(100_000)
    put(ftp, f"{place}/f", content)
    mark = box.mark()
    assert ftp.sendcmd(f"CKSM MD5 0 -1 {place}/f").lower() == f"213 {hashlib.md5(content).hexdigest()}"
    assert any(entry["path"].startswith("/d/") for entry in box.journal(mark))
    other = server.ftp()
    mark = box.mark()
    for _ in range(2):
        assert other.sendcmd(f"CKSM MD5 0 -1 {place}/f").lower() == f"213 {hashlib.md5(content).hexdigest()}"
    assert other.sendcmd(f"CKSM SHA1 0 -1 {place}/f").lower() == f"213 {sha1(content)}"
    assert not any("content" in entry["path"] or entry["path"].startswith("/d/") for entry in box.journal(mark))
    other.close()


def test_sessions_see_each_others_changes(box, server, place):
    one, two = server.ftp(), server.ftp()
    two.nlst(place)
    one.mkd(f"{place}/made by one")
    put(one, f"{place}/made by one/f", b"1")
    two.cwd(f"{place}/made by one")
    assert two.size("f") == 1
    put(two, f"{place}/made by one/g", b"22")
    assert one.size(f"{place}/made by one/g") == 2
    one.delete(f"{place}/made by one/f")
    put(one, f"{place}/made by one/f", b"333")
    received = bytearray()
    two.retrbinary(f"RETR {place}/made by one/f", received.extend)
    assert received == b"333"
    one.close()
    two.close()


def test_a_folder_that_was_replaced_is_found_again(box, server, place):
    one, two = server.ftp(), server.ftp()
    for turn in b"1", b"22":
        one.mkd(f"{place}/d")
        put(one, f"{place}/d/f", turn)
        received = bytearray()
        two.retrbinary(f"RETR {place}/d/f", received.extend)
        assert received == turn
        put(two, f"{place}/d/by two", turn)
        one.sendcmd(f"SITE RDEL {place}/d")
    one.close()
    two.close()


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


def test_without_a_change_no_request_is_added(box, server, place):
    client = server.ftp()
    client.nlst(place)
    mark = box.mark()
    for _ in range(3):
        with pytest.raises(ftplib.error_perm):
            client.size(f"{place}/missing")
    assert box.journal(mark) == []
    client.close()


def tree(directory, folders, files):
    expected = {}
    for i in range(folders):
        folder = directory / f"folder {i % 7}" / f"sub {i}"
        folder.mkdir(parents=True)
        for j in range(files):
            content = pattern(37 * i + 1000 * j, seed=j)
            (folder / f"file {j}.dat").write_bytes(content)
            expected[str((folder / f"file {j}.dat").relative_to(directory))] = sha1(content)
    return expected


def found(directory):
    return {str(path.relative_to(directory)): sha1(path.read_bytes()) for path in directory.rglob("*.dat")}


def test_lftp_mirrors_there_and_back(server, place, tmp_path):
    expected = tree(tmp_path / "there", 34, 15)
    server.lftp(f"mirror -R --parallel=4 {tmp_path}/there {place}/mirror")
    server.lftp(f"mirror --parallel=4 {place}/mirror {tmp_path}/back")
    assert found(tmp_path / "back") == expected


def test_rclone_copies_and_checks(server, place, tmp_path):
    expected = tree(tmp_path / "there", 8, 5)
    config = tmp_path / "rclone.conf"
    obscured = subprocess.run(["rclone", "obscure", PASSWORD], capture_output=True, text=True, check=True).stdout.strip()
    config.write_text(f"[f]\ntype = ftp\nhost = {server.host}\nport = {server.port}\nuser = alice\npass = {obscured}\n"
                      "concurrency = 5\n")

    def rclone(*arguments):
        return subprocess.run(["rclone", "--config", config, "--retries", "1", "--transfers", "4", *arguments],
                              capture_output=True, text=True, timeout=170)

    for arguments in (["copy", f"{tmp_path}/there", f"f:{place}/r"], ["check", f"{tmp_path}/there", f"f:{place}/r", "--download"],
                      ["copy", f"f:{place}/r", f"{tmp_path}/back"], ["purge", f"f:{place}/r"]):
        done = rclone(*arguments)
        assert done.returncode == 0, done.stderr
    assert found(tmp_path / "back") == expected
