"""Folders and attributes through real clients."""

import ftplib
import json
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
    sub = box.folder("sub folder", docs)
    box.file("deep.bin", pattern(70000), sub)
    many = box.folder("many")
    box.fill(many, 650, 10)
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


@pytest.mark.parametrize("path, count", [("/many", 650), ("/empty", 0)])
def test_lists_folders_of_every_size(tree, ftp, path, count):
    assert len(ftp.nlst(path)) == count
    ftp.cwd(path)
    assert ftp.pwd() == path and len(ftp.nlst()) == count


def test_walks_up_and_down_without_leaving_the_root(tree, ftp):
    ftp.cwd("/docs/sub folder")
    ftp.cwd("..")
    assert ftp.pwd() == "/docs"
    ftp.cwd("../../../..")
    assert ftp.pwd() == "/"
    ftp.cwd("//docs/./sub folder//")
    assert ftp.pwd() == "/docs/sub folder" and ftp.nlst() == ["deep.bin"]
    assert ftp.size("../readme.txt") == 11 and re.fullmatch(r"213 \d{14}", ftp.sendcmd("MDTM deep.bin"))


@pytest.mark.parametrize("command, code, words", [
    ("CWD /docs/readme.txt", "550", []),
    ("CWD /docs/missing", "550", ["PATH_NOT_FOUND", 'GridFTP-Path: "/docs/missing"']),
    ("SIZE /docs", "550", []),
    ("MDTM /nowhere/at/all", "550", ["PATH_NOT_FOUND"]),
    ("RETR /docs/readme.txt", "425", []),
    ("REST -1", "501", []),
    ("REST 99999999999999999999", "501", []),
    ("TYPE X", "50", []),
    ("MFMT 20200101000000 /docs/readme.txt", "502", []),
    ("NONSENSE", "502", []),
    ("PORT 127,0,0,1,0,80", "50", []),
    ("PORT 10,0,0,1,200,1", "50", []),
    ("PORT 1,2,3", "501", []),
])
def test_refusals_are_clear_and_the_session_goes_on(tree, ftp, command, code, words):
    with pytest.raises((ftplib.error_perm, ftplib.error_temp)) as refused:
        ftp.sendcmd(command)
    text = str(refused.value)
    assert text.startswith(code) and all(word in text for word in words), text
    assert ftp.sendcmd("NOOP").startswith("200")


def test_missing_file_answers_in_the_agreed_lines(tree, ftp):
    with pytest.raises(ftplib.error_perm) as refused:
        ftp.sendcmd("SIZE /docs/missing")
    assert str(refused.value).split("\n") == ["550-PATH_NOT_FOUND", '550-GridFTP-Path: "/docs/missing"', "550 End."]


def test_listing_a_file_or_nothing(tree, ftp):
    assert ftp.nlst("/docs/readme.txt") in (["readme.txt"], ["/docs/readme.txt"])
    with pytest.raises(ftplib.error_perm, match="(?s)550.PATH_NOT_FOUND.*/docs/missing"):
        ftp.nlst("/docs/missing")
    with pytest.raises(ftplib.error_perm, match="50[01]|550"):
        list(ftp.mlsd("/docs/readme.txt"))
    assert len(ftp.nlst("/empty")) == 0


def test_wrong_logins_are_refused(server):
    for user, password in [("alice", "wrong"), ("nobody", PASSWORD), ("alice", ""), ("", "")]:
        client = ftplib.FTP()
        client.connect(server.host, server.port)
        with pytest.raises(ftplib.error_perm, match="^5[03]"):
            client.login(user or " ", password)
        with pytest.raises(ftplib.error_perm, match="^530"):
            client.sendcmd("PWD")
        client.close()


@pytest.mark.parametrize("change, code, words", [
    ({"access_token": "revoked"}, "530", ["PERMISSION_DENIED"]),
    ({"token_expiry": "2001-01-01T00:00:00.0+00:00"}, "530", ["INTERNAL_ERROR", "expired"]),
    ({"token_expiry": "yesterday"}, "530", ["Error parsing time string"]),
    ({"max_upload": "much"}, "530", ["INTERNAL_ERROR", "Error unpacking user credential"]),
])
def test_login_with_a_bad_credential(tmp_path, box, change, code, words):
    good = {"access_token": box.token, "token_expiry": "2099-01-01T00:00:00.0+00:00", "sub": box.user_id, "max_upload": 1}
    server = Server(tmp_path, box, credential={**good, **change})
    client = ftplib.FTP()
    client.connect(server.host, server.port)
    with pytest.raises(ftplib.error_perm) as refused:
        client.login("alice", PASSWORD)
    assert str(refused.value).startswith(code) and all(word in str(refused.value) for word in words), refused.value
    server.write_credential(good)  # as a renewing program would; the same connection may try again
    client.login("alice", PASSWORD)
    client.close()
    assert server.stop() == 0


@pytest.mark.parametrize("policy, words", [
    ("{", ["Error loading collection storage policy"]),
    ('{"user_api_rate_limit": "16"}', ["INTERNAL_ERROR", "Error unpacking collection storage policy"]),
])
def test_login_with_a_bad_policy(tmp_path, box, policy, words):
    server = Server(tmp_path, box, policy=policy)
    with pytest.raises(ftplib.error_perm) as refused:
        server.ftp()
    assert str(refused.value).startswith("530") and all(word in str(refused.value) for word in words)
    assert server.stop() == 0


@pytest.mark.parametrize("fault, code, words", [
    ({"status": 502, "text": "<html><body>Bad gateway</body></html>"}, "500", ["INTERNAL_ERROR"]),
    ({"status": 200, "text": '{"limit": 300}'}, "500", ["Json object not array when it was expected"]),
    ({"status": 200, "text": '{"entries": [{"id": "1"}]}'}, "500", ["Failed info_parse!"]),
    ({"status": 200, "text": ""}, "500", ["System error in malloc"]),
    ({"status": 429, "text": '{"code": "rate_limit_exceeded", "message": "slow down"}', "times": 2}, "500",
     ["rate_limit_exceeded"]),
    ({"status": 429, "text": "", "times": 2}, "451", ["TOO_BUSY"]),
    ({"status": 404, "text": '{"code": "not_found", "context_info": {"errors": [{"name": "folder"}]}}'}, "550",
     ["PATH_NOT_FOUND", "folder"]),
    ({"cut_before_answer": True, "times": 4}, "500", []),  # a kept connection is tried anew by the client itself
])
def test_failing_listings_answer_clearly(tree, box, server, fault, code, words):
    client = server.ftp()
    box.fault(method="GET", path=f"/2.0/folders/{tree}/items", **fault)
    with pytest.raises((ftplib.error_perm, ftplib.error_temp)) as refused:
        client.nlst("/docs")
    assert str(refused.value).startswith(code) and all(word in str(refused.value) for word in words), refused.value
    box.clear_faults()
    assert "readme.txt" in client.nlst("/docs")
    client.close()


def test_one_lost_listing_request_is_made_again(tree, box, server):
    client = server.ftp()
    for fault in [{"cut_before_answer": True}, {"status": 429, "text": ""}]:
        box.fault(method="GET", path=f"/2.0/folders/{tree}/items", times=1, **fault)
        mark = box.mark()
        assert "readme.txt" in client.nlst("/docs")
        assert len(box.journal(mark)) == 2
    client.close()


def test_names_from_box_cannot_forge_replies(box, server):
    evil = {"entries": [
        {"type": "file", "id": "1", "name": "x\r\n226 done\r\n", "size": -5}, {"type": "file", "id": "2", "name": "big", "size": 1e300},
        {"type": "file", "id": "3", "name": "y" * 70000, "size": 1}, {"type": "web_link", "id": "4", "name": "link"}]}
    client = server.ftp()
    folder = box.folder("evil")
    client.nlst("/")
    box.fault(method="GET", path=f"/2.0/folders/{folder}/items", status=200, text=json.dumps(evil))
    with client.transfercmd("MLSD /evil") as data:
        received = b""
        while piece := data.recv(65536):
            received += piece
    assert client.voidresp().startswith("226")
    text = received.decode()
    assert "226 done" not in text.split("\r\n")
    assert " big" in text and "link" not in text
    assert client.sendcmd("NOOP").startswith("200")
    client.close()
