"""docs/box-requests.md against what the server really asks the local Box, and docs/tuning.md against the
plug-in's settings and the packaged configuration."""

import ctypes
import ftplib
import pathlib
import re
import tomllib

import pytest
from local import BUILD, SMALL_BOX, SMALL_SERVER, Box, Server, is_sanitized, put

DOCS = pathlib.Path(__file__).parents[2] / "docs"
SMALL, LARGE = b"s" * 1000, b"l" * 150_000  # one request, and four parts
SETTINGS = tomllib.loads((DOCS.parent / "packaging/server.toml").read_text())["storage"]["settings"]


def table(document, columns):
    """Rows of the tables of a document with so many columns, without their headings."""
    rows = [[cell.strip() for cell in line.strip().strip("|").split("|")]
            for line in (DOCS / document).read_text().splitlines() if line.startswith("|")]
    return [row for row in rows if len(row) == columns and not set(row[0]) <= set("-: ") and row[0][0] == "`"]


def announced(client, path, content):
    client.sendcmd(f"ALLO {len(content)}")
    put(client, path, content)


def renamed(client, source, target):
    client.rename(source, target)


def broken_off(client):
    client.sendcmd(f"ALLO {len(LARGE)}")
    with client.transfercmd("STOR /a/new") as data:
        data.sendall(LARGE[:90_000])
    with pytest.raises(ftplib.Error):
        client.voidresp()
    client.quit()


def received(client, path, **arguments):
    client.retrbinary(f"RETR {path}", lambda piece: None, **arguments)


# In a session that has listed "/" and "/a", but for the first ones.
COMMANDS = {
    "`PASS`": lambda client: None,
    "`CWD /a/sub`, first use of the path": lambda client: client.cwd("/a/sub"),
    "`CWD /a/sub`": lambda client: client.cwd("/a/sub"),
    "`MLSD /a`, also `LIST`, `NLST`": lambda client: list(client.mlsd("/a")),
    "`SIZE /a/s`, also `MDTM`, `MLST`": lambda client: client.size("/a/s"),
    "`RETR /a/s`": lambda client: received(client, "/a/s"),
    "`REST 10`, `RETR /a/s`": lambda client: received(client, "/a/s", rest=10),
    "`ALLO`, `STOR /a/new`": lambda client: announced(client, "/a/new", SMALL),
    "`STOR /a/new`": lambda client: put(client, "/a/new", SMALL),
    "`STOR /a/s`, which is there": lambda client: put(client, "/a/s", SMALL + b"!"),
    "`ALLO`, `STOR /a/new`, four parts": lambda client: announced(client, "/a/new", LARGE),
    "`STOR /a/l`, which is there, four parts": lambda client: put(client, "/a/l", LARGE + b"!"),
    "`ALLO`, `STOR /a/new`, broken off in the third part, `QUIT`": broken_off,
    "`DELE /a/s`": lambda client: client.delete("/a/s"),
    "`MKD /a/new`": lambda client: client.mkd("/a/new"),
    "`RMD /a/sub`": lambda client: client.rmd("/a/sub"),
    "`RNFR /a/s`, `RNTO /a/sub/t`": lambda client: renamed(client, "/a/s", "/a/sub/t"),
    "`CKSM SHA1 0 -1 /a/s`": lambda client: client.sendcmd("CKSM SHA1 0 -1 /a/s"),
    "`CKSM MD5 0 -1 /a/s`": lambda client: client.sendcmd("CKSM MD5 0 -1 /a/s"),
    "`CKSM MD5 0 -1 /a/s`, again": lambda client: client.sendcmd("CKSM MD5 0 -1 /a/s"),
    "`CKSM SHA256 0 -1 /a/s`, also `HASH`, `XCRC`": lambda client: client.sendcmd("CKSM SHA256 0 -1 /a/s"),
}
NEW_SESSION = tuple(COMMANDS)[:2]
AGAIN = {"`CKSM MD5 0 -1 /a/s`, again": "`CKSM MD5 0 -1 /a/s`"}


def shape(entry):
    """A request without what differs from file to file."""
    path = re.sub(r"^(/api)?/2\.0/", "", entry["path"])
    path = re.sub(r"(?<=upload_sessions/)[^/]+", "SESSION", re.sub(r"(?<=/)\d+(?=/|$)", "ID", path))
    return f"{entry['method']} {'DOWNLOAD' if path.startswith('/') else path.rstrip('/')}"


def in_words(requests):
    """As the table has them: equal ones in a row once, with their number."""
    runs = []
    for request in requests:
        if runs and runs[-1][1] == request:
            runs[-1][0] += 1
        else:
            runs.append([1, request])
    return "<br>".join(f"{f'{count} x ' if count > 1 else ''}`{request}`" for count, request in runs) or "none"


def asked(box, server, command):
    """What a command asks of Box, in the table's words; the tree is made anew before it."""
    for name, item in box.items().items():
        box.call("DELETE", f"/2.0/folders/{item['id']}?recursive=true")
    folder = box.folder("a")
    box.folder("sub", folder)
    for name, content in (("s", SMALL), ("l", LARGE)):
        box.file(name, content, folder)
    mark = box.mark()
    client = server.ftp()
    if command not in NEW_SESSION:
        client.nlst("/")
        client.nlst("/a")
        if command in AGAIN:
            COMMANDS[AGAIN[command]](client)
        mark = box.mark()
    elif command != NEW_SESSION[0]:
        mark = box.mark()
    COMMANDS[command](client)
    client.close()
    while server.sessions():
        pass  # the end of a session may ask for something, too
    return in_words([shape(entry) for entry in box.journal(mark)])


@pytest.mark.parametrize("column", [1, 2], ids=["default", "recommended"])
def test_the_table_says_what_is_asked(tmp_path, column):
    settings = SETTINGS if column == 2 else {}
    rows = {row[0]: row for row in table("box-requests.md", 3)}
    box = Box(tmp_path, *SMALL_BOX)
    server = Server(tmp_path, box, {**settings, **SMALL_SERVER})
    try:
        found = {command: asked(box, server, command) for command in COMMANDS}
    finally:
        server.stop()
        box.stop()
    says = {command: row[1] if column == 2 and row[2] == "the same" else row[column] for command, row in rows.items()}
    assert says == found


PLUGIN = BUILD / "lib/libtarvex_gridftp_server_box.so"


@pytest.mark.skipif(is_sanitized(PLUGIN), reason="what is built so cannot be loaded into this program")
@pytest.mark.parametrize("row", table("tuning.md", 6), ids=lambda row: row[0].strip("`"))
def test_settings_are_as_documented(row):
    plugin = ctypes.CDLL(str(PLUGIN))
    name = row[0].strip("`")
    least, most = map(int, re.fullmatch(r"(\d+) (?:to|or) (\d+)", row[1]).groups())
    found = [ctypes.c_int.in_dll(plugin, f"tarvex_i_box_{name}{ending}").value for ending in ("", "_min", "_max")]
    assert found == [int(row[2]), least, most]
    assert SETTINGS.get(name, int(row[3])) == int(row[3])
