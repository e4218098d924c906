"""What accounts may do: every command with every preset, as a table, and what else a preset promises."""

import hashlib
import uuid

import pytest
from local import SMALL_BOX, SMALL_SERVER, Box, Server, pattern
from model_client import Client

CONTENT = b"hello"
NEW = pattern(50_000)
LARGE = pattern(3 * 40_000 + 7, seed=3)
DENIED = "550 PERMISSION_DENIED\r\n"

PRESETS = {"full": "full", "reader": "read-only", "uploader": "upload-only"}
ALL, READ, UPLOAD, FULL = ("full", "reader", "uploader"), ("full", "reader"), ("full", "uploader"), ("full",)
DATA = "EPSV"  # before a row: prepares a data connection

# verb -> who may, how the reply begins then, the argument, and a line before. Each row has a folder of its own, which
# the session is in, with a file "file" and a folder "dir".
TABLE = {
    "ABOR": (ALL, 225), "ALLO": (ALL, 200, "5"), "APPE": (FULL, 553, "file"), "AUTH": (ALL, 502, "TLS"), "CCC": (ALL, 533),
    "CDUP": (ALL, 250), "CKSM": (READ, 213, "MD5 0 -1 file"), "CLNT": (ALL, 200, "lftp"), "CWD": (ALL, 250, "dir"),
    "DCAU": (ALL, 200, "N"), "DELE": (FULL, 250, "file"), "EPRT": (ALL, 200, "|1|127.0.0.1|40000|"), "EPSV": (ALL, 229),
    "ERET": (READ, 226, "P 0 5 file", DATA), "ESTO": (UPLOAD, 226, "A 0 new", DATA), "FEAT": (ALL, 211),
    "HASH": (READ, 213, "file"), "HELP": (ALL, 214), "HOST": (ALL, 503, "box"), "LANG": (ALL, 200), "LIST": (READ, 226, "", DATA),
    "MDTM": (READ, 213, "file"), "MKD": (UPLOAD, 257, "new"), "MLSD": (READ, 226, "", DATA), "MLST": (READ, 250, "file"),
    "MODE": (ALL, 200, "E"), "NLST": (READ, 226, "", DATA), "NOOP": (ALL, 200), "OPTS": (ALL, 200, "UTF8 ON"),
    "PASS": (ALL, 503, "x"), "PASV": (ALL, 227), "PBSZ": (ALL, 503, "0"), "PORT": (ALL, 200, "127,0,0,1,160,0"),
    "PROT": (ALL, 503, "C"), "PWD": (ALL, 257), "QUIT": (ALL, 221), "REIN": (ALL, 220), "REST": (ALL, 350, "3"),
    "RETR": (READ, 226, "file", DATA), "RMD": (FULL, 250, "dir"), "RNFR": (FULL, 350, "file"),
    "RNTO": (FULL, 250, "new", "RNFR file"), "SBUF": (ALL, 200, "65536"), "SITE": (ALL, 214, "HELP"), "SIZE": (READ, 213, "file"),
    "SPAS": (ALL, 229), "SPOR": (ALL, 200, "127,0,0,1,160,0"), "STAT": (READ, 211), "STOR": (UPLOAD, 226, "new", DATA),
    "STORATTR": (UPLOAD, 200, "modify=20200101000000;"), "STRU": (ALL, 200, "F"), "SYST": (ALL, 215), "TYPE": (ALL, 200, "I"),
    "USER": (ALL, 503, "x"), "XCRC": (READ, 250, "file"), "XCUP": (ALL, 250), "XCWD": (ALL, 250, "dir"),
    "XMD5": (READ, 250, "file"), "XMKD": (UPLOAD, 257, "new"), "XPWD": (ALL, 257), "XRMD": (FULL, 250, "dir"),
    "XSHA1": (READ, 250, "file"), "XSHA256": (READ, 250, "file"),
}
# The storage refuses most of these with 500, when it is asked.
SITE_TABLE = {
    "AUTHZ_ASSERT": (FULL, 500, "x"), "BUFSIZE": (ALL, 200, "65536"), "CHGRP": (FULL, 500, "group file"),
    "CHMOD": (FULL, 500, "644 file"), "CHROOT": (READ, 500, "dir"), "CLIENTINFO": (ALL, 250, "x"), "DSI": (ALL, 500, "x"),
    "HELP": (ALL, 214), "RDEL": (FULL, 250, "dir"), "RESTRICT": (READ, 500, "x"), "SETDISKSTACK": (ALL, 500, "x"),
    "SETNETSTACK": (ALL, 500, "x"), "SHARING": (FULL, 500, "x"), "STORATTR": (UPLOAD, 200, "modify=20200101000000;"),
    "SYMLINK": (FULL, 500, "file link"), "SYMLINKFROM": (FULL, 500, "file"), "TASKID": (ALL, 250, "x"),
    "UTIME": (FULL, 500, "20200101000000 file"),
}
ROWS = {**TABLE, **{f"SITE {word}": row for word, row in SITE_TABLE.items()}}


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), *SMALL_BOX)
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    accounts = {name: f'permissions = "{preset}"' for name, preset in PRESETS.items()}
    program = Server(tmp_path_factory.mktemp("server"), box, settings=SMALL_SERVER, others=accounts,
                     server_lines="end_grace_ms = 15\n[limits]\nconnections_per_minute = 0")
    yield program
    assert program.stop() == 0


@pytest.fixture
def folder(box):
    """A folder with a file and a folder: its name and its number."""
    name = "p" + uuid.uuid4().hex[:8]
    number = box.folder(name)
    box.file("file", CONTENT, number)
    box.folder("dir", number)
    return name, number


@pytest.fixture
def session(server, folder):
    """Opens sessions in the folder, and closes them."""
    opened = []

    def open_session(user):
        opened.append(Client(server, user=user))
        assert opened[-1].command(f"CWD /{folder[0]}")[0] == 250
        return opened[-1]

    yield open_session
    for client in opened:
        client.close()


def carry_out(client, line, content=CONTENT, before_end=None, data=None):
    """The last reply to a line, whose data go where they belong."""
    code, text = client.command(line)
    if code == 150:
        if line.startswith(("STOR", "ESTO")):
            data.sendall(content)
            if before_end:
                before_end()
            data.close()
        else:
            while data.recv(1 << 16):
                pass
        code, text = client.reply()
    return code, text


def store(client, name, content, announced=False, before_end=None, rest=0):
    with client.data() as data:
        for line in filter(None, (announced and f"ALLO {announced}", rest and f"REST {rest}")):
            assert client.command(line)[0] in (200, 350)
        return carry_out(client, f"STOR {name}", content, before_end, data)


def test_every_command_stands_in_the_table(session):
    client = session("full")
    assert set(" ".join(client.command("HELP")[1].splitlines()[1:-1]).split()) == set(TABLE)
    words = [line.split()[0] for line in client.command("SITE HELP")[1].splitlines()[1:-1]]
    assert set(words) == set(SITE_TABLE)


@pytest.mark.parametrize("user", PRESETS)
@pytest.mark.parametrize("verb", ROWS)
def test_commands(box, folder, session, verb, user):
    allowed, expected, argument, before = (*ROWS[verb], "", "")[:4]
    client = session(user)
    data = client.data() if before == DATA else None
    if before and not data:
        client.command(before)
    mark = box.mark()
    code, text = carry_out(client, f"{verb} {argument}".strip(), data=data)
    if user in allowed:
        assert (code, text.startswith("550")) == (expected, False), text
    else:
        assert text == DENIED
        assert box.journal(mark) == [] and set(box.items(folder[1])) == {"file", "dir"}
        assert client.command(verb) == (550, DENIED), "whatever its argument is"
    if data:
        data.close()


def test_before_the_login_nothing_is_denied(server):
    for line, code in (("RETR x", 530), ("SITE HELP", 530), ("FEAT", 211), ("STAT", 530), ("QUIT", 221)):
        client = Client(server, login=False)
        assert client.command(line)[0] == code
        client.close()


def test_who_logs_in_anew_has_its_permissions_again(session):
    client = session("uploader")
    assert client.command("SIZE file") == (550, DENIED)
    assert client.command("REIN")[0] == 220 and client.command("SIZE file")[0] == 530
    assert [client.command(line)[0] for line in ("USER uploader", "PASS correct horse")] == [331, 230]
    assert client.command("SIZE file") == (550, DENIED)


def test_a_refusal_is_logged_and_uses_up_what_was_said_before(session, server, folder):
    client = session("uploader")
    assert client.command("REST 3")[0] == 350 and client.command("RETR file") == (550, DENIED)
    assert store(client, "new", NEW)[0] == 226, "the REST was meant for the RETR"
    assert f": RETR file failed: PERMISSION_DENIED" in server.log()


@pytest.mark.parametrize("announced", [0, len(NEW), len(LARGE)])
@pytest.mark.parametrize("comes", ["before", "meanwhile, from elsewhere", "meanwhile, from a session"])
def test_an_upload_only_account_overwrites_nothing(box, folder, session, announced, comes):
    client, other = session("uploader"), session("uploader")
    content = LARGE if announced == len(LARGE) else NEW

    def make():
        if "session" in comes:
            assert store(other, "taken", CONTENT)[0] == 226
        else:
            box.file("taken", CONTENT, folder[1])

    if comes == "before":
        make()
    mark = box.mark()
    answer = store(client, "taken", content, announced, before_end=make if comes != "before" else None)
    assert answer == (550, DENIED)
    assert box.content(box.items(folder[1])["taken"]["id"]) == CONTENT
    assert not any(entry["method"] == "DELETE" and "/files/" in entry["path"] and "upload_sessions" not in entry["path"]
                   for entry in box.journal(mark))


def test_an_upload_only_account_goes_on_with_its_own_upload(box, folder, session):
    client = session("uploader")
    code, text = store(client, "large", LARGE[:90_000], announced=len(LARGE))
    assert code == 426 and "REST 80000" in text
    assert store(client, "large", LARGE[80_000:], rest=80_000)[0] == 226
    assert box.items(folder[1])["large"]["sha1"] == hashlib.sha1(LARGE).hexdigest()
    assert store(client, "large", LARGE[80_000:], rest=80_000) == (550, DENIED)


def test_checksums_of_a_read_only_account_leave_no_trace(box, session):
    client, digest = session("reader"), hashlib.md5(CONTENT).hexdigest()
    mark = box.mark()
    for line in ("CKSM MD5 0 -1 file", "XMD5 file", "OPTS HASH MD5", "HASH file"):
        code, text = client.command(line)
        assert code < 300 and (digest in text or line.startswith("OPTS"))
    assert client.command("CKSM SHA1 0 -1 file")[1] == f"213 {hashlib.sha1(CONTENT).hexdigest()}\r\n"
    assert {entry["method"] for entry in box.journal(mark)} == {"GET"}


def test_facts_tell_what_may_be_done(session):
    perms = {user: session(user).command("MLST file")[1].split("perm=")[1].split(";")[0] for user in READ}
    assert perms == {"full": "rdfw", "reader": "r"}
