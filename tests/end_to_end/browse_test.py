"""Folders and attributes through real clients, and logins with a bad credential."""

import ftplib
import re

import pytest
from local import PASSWORD, Server, pattern


@pytest.fixture(scope="module")
def tree(box):
    """/docs with three files and names that are hard to handle, /many with 650 files, /empty."""
    docs = box.folder("docs")
    for name, size in [("readme.txt", 11), ("a b  c.txt", 1), ("o'quote\"d.txt", 2), ("größe ☃.dat", 3), ("n" * 255, 4),
                       ("-la", 5), ("*?[x]", 6)]:
        box.file(name, pattern(size), docs)
    box.folder("sub folder", docs)
    box.fill(box.folder("many"), 650, 10)
    box.folder("empty")
    return docs


def test_lists_as_every_client_asks(tree, server, ftp):
    names = {"readme.txt", "a b  c.txt", "o'quote\"d.txt", "größe ☃.dat", "n" * 255, "-la", "*?[x]", "sub folder"}
    assert set(ftp.nlst("/docs")) == names
    facts = dict(ftp.mlsd("/docs"))
    assert {name for name, fact in facts.items() if fact["type"] in ("file", "dir")} == names
    assert facts["readme.txt"]["size"] == "11" and facts["sub folder"]["type"] == "dir"
    assert re.fullmatch(r"\d{14}", facts["readme.txt"]["modify"])
    lines = []
    ftp.retrlines("LIST -la /docs", lines.append)
    assert len(lines) == len(names) and any(line.startswith("d") and line.endswith(" sub folder") for line in lines)
    assert server.curl("-l", f"{server.url}/docs/").stdout.decode().splitlines() == ftp.nlst("/docs")
    listed = server.lftp("cd /docs; cls -1").stdout.splitlines()
    assert {line.rstrip("/") for line in listed} == names
    assert [len(ftp.nlst(path)) for path in ("/many", "/empty")] == [650, 0]


@pytest.mark.parametrize("change, words", [
    ({"access_token": "revoked"}, ["PERMISSION_DENIED"]),
    ({"token_expiry": "2001-01-01T00:00:00.0+00:00"}, ["INTERNAL_ERROR", "expired"]),
])
def test_login_with_a_bad_credential(tmp_path, box, change, words):
    good = {"access_token": box.token, "token_expiry": "2099-01-01T00:00:00.0+00:00", "sub": box.user_id, "max_upload": 1}
    server = Server(tmp_path, box, credential={**good, **change})
    client = ftplib.FTP()
    client.connect(server.host, server.port)
    with pytest.raises(ftplib.error_perm, match="^530") as refused:
        client.login("alice", PASSWORD)
    assert all(word in str(refused.value) for word in words), refused.value
    server.write_credential(good)  # as a renewing program would; the same connection may try again
    client.login("alice", PASSWORD)
    client.close()
    assert server.stop() == 0
