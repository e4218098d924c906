"""Folders and attributes through real clients."""

import re

import pytest
from local import pattern


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
