"""Accounts whose "/" is a folder in Box: it is never left, and its path shows nowhere."""

import hashlib
import uuid

import pytest
from local import SMALL_BOX, SMALL_SERVER, Box, Server, pattern
from model_client import Client, Lost

NAME = "Quarry"   # of the root, in the folder "Projects"; no client says it
AGAIN = "Gallery"  # of another account's root, which clients repeat in it
NEW = pattern(50_000)
LARGE = pattern(3 * 40_000 + 7, seed=3)
GONE = "530 The folder that is this account's root is not there.\r\n"


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), *SMALL_BOX)
    yield program
    assert program.stop() == 0


class Tree:
    """What stands in Box: the root, and beside it what clients must neither see nor change."""

    def __init__(self, box):
        self.projects = box.folder("Projects")
        self.root, self.again = (box.folder(name, self.projects) for name in (NAME, AGAIN))
        self.beside = box.folder(NAME + "2", self.projects)
        box.file("secret", b"secret", self.beside)
        box.file(NAME.lower() + ".txt", b"secret", self.projects)
        box.folder(AGAIN + "2", self.projects)


@pytest.fixture(scope="module")
def tree(box):
    return Tree(box)


@pytest.fixture(scope="module")
def server(tmp_path_factory, box, tree):
    accounts = {"rooted": f'root = "/Projects/{NAME}"', "again": f'root = "/Projects/{AGAIN}"',
                "elsewhere": f'root = "/Projects/{NAME}/missing"',
                "on_file": f'root = "/Projects/{NAME.lower()}.txt"', "below_file": f'root = "/Projects/{NAME.lower()}.txt/a"'}
    program = Server(tmp_path_factory.mktemp("server"), box, settings=SMALL_SERVER, others=accounts,
                     options=("--log-level", "debug"),
                     server_lines="end_grace_ms = 15\n[limits]\nconnections_per_minute = 0")
    yield program
    assert program.stop() == 0
    assert NAME not in program.log(), "the root shows in the log"


class Rooted(Client):
    """A session of the account; what it is told never names the root."""

    def __init__(self, server, user="rooted"):
        super().__init__(server, user=user)

    def reply(self):
        code, text = super().reply()
        assert NAME not in text, text
        return code, text

    def put(self, line, content, announced=0):
        with self.data() as data:
            if announced:
                assert self.command(f"ALLO {announced}")[0] == 200
            code, text = self.command(line)
            if code == 150:
                data.sendall(content)
                data.close()
                code, text = self.reply()
        return code, text


@pytest.fixture
def place(box, tree):
    """A folder in the root with a file "f" and a folder "d" with a file "x": its path to clients, and its number."""
    name = "t" + uuid.uuid4().hex[:8]
    number = box.folder(name, tree.root)
    box.file("f", b"hello", number)
    box.file("x", b"x of d", box.folder("d", number))
    return f"/{name}", number


@pytest.fixture
def session(server):
    """Opens sessions, and closes them."""
    opened = []

    def open_session(**arguments):
        opened.append(Rooted(server, **arguments))
        return opened[-1]

    yield open_session
    for client in opened:
        client.close()


def test_everything_works_inside(box, session, place):
    path, number = place
    client = session()
    rows = [("PWD", '257 "/" '), (f"CWD {path}", f"250 Folder changed to {path}."), ("PWD", f'257 "{path}" '),
            ("SIZE f", "213 5"), ("MLST f", f"250-Listing {path}/f\r\n"), ("STAT f", f"213-Status of {path}/f:"),
            (f"STAT {path}", f"213-Status of {path}:\r\n"), ("MKD new", f'257 "{path}/new" '),
            ("XSHA1 f", f"250 {hashlib.sha1(b'hello').hexdigest()}"), ("CKSM MD5 0 -1 f", f"213 {hashlib.md5(b'hello').hexdigest()}"),
            ("CKSM MD5 1 3 f", f"213 {hashlib.md5(b'ell').hexdigest()}"), ("RNFR f", "350 "),
            ("RNTO new/g", f"250 {path}/f is now {path}/new/g."), ("SIZE new/g", "213 5"), ("DELE new/g", f"250 {path}/new/g "),
            ("RMD new", f"250 {path}/new "), ("SITE RDEL d", "250 "), ("CDUP", "250 Folder changed to /."),
            ("CDUP", "250 Folder changed to /."), ("STAT", "211-")]
    for line, expected in rows:
        assert client.command(line)[1].startswith(expected), line
    for name, content, announced in (("small", NEW, 0), ("counted", NEW, len(NEW)), ("large", LARGE, 0), ("parts", LARGE, len(LARGE)),
                                     ("large", NEW, 0), ('qu"o"te', b"1", 0)):
        assert client.put(f"STOR {path}/{name}", content, announced)[0] == 226
        assert client.fetch(f"RETR {path}/{name}")[2] == content
    assert set(box.items(number)) == {"small", "counted", "large", "parts", 'qu"o"te'}
    for verb in ("NLST", "MLSD", "LIST"):
        code, _, listing = client.fetch(f"{verb} /..{path}")
        assert code == 226 and len(listing.splitlines()) == 5
        assert path[1:].encode() in client.fetch(f"{verb} /")[2] and b"secret" not in client.fetch(f"{verb} /../..")[2]


def snapshot(box, folder):
    return {name: (item["id"], item["type"], item["type"] == "folder" and snapshot(box, item["id"]))
            for name, item in box.items(folder).items()}


def test_it_is_never_left(box, tree, session, place):
    outside = snapshot(box, tree.beside), set(box.items(tree.projects)), set(box.items("0"))
    client = session()
    assert client.command(f"CWD {place[0]}")[0] == 250
    for up in ("../..", "/..", "/../../..", "../../Projects", f"{place[0]}/../..", "/./../.."):
        for line in ("CWD {}/secret", "SIZE {}/secret", "MDTM {}/secret", "MLST {}/secret", "STAT {}/secret", "DELE {}/secret",
                     "RMD {}/secret", "SITE RDEL {}/secret", "RNFR {}/secret", "CKSM MD5 0 -1 {}/secret", "XCRC {}/secret"):
            code, text = client.command(line.format(f"{up}"))
            assert code == 550 and "PATH_NOT_FOUND" in text, line.format(up)
        for line in ("RETR {}/secret", "NLST {}/secret"):
            assert client.fetch(line.format(up))[0] == 550
    for up in ("/..", "../../../..", "/", ""):
        for line, code in (("DELE /{}", 553), ("RMD /{}", 553), ("SITE RDEL /{}", 553), ("RNFR /{}", 553), ("MKD /{}", 553),
                           ("CWD /{}", 250), ("MLST /{}", 250)):
            assert client.command(line.format(up))[0] == code, line
    with client.data():
        assert client.command("STOR /..")[0] == 553
    assert client.put("STOR ../../above", NEW)[0] == 226 and "above" in box.items(tree.root)
    assert client.command("MKD ../../../beside")[0] == 257 and "beside" in box.items(tree.root)
    assert outside == (snapshot(box, tree.beside), set(box.items(tree.projects)), set(box.items("0")))


def test_names_that_repeat_or_begin_with_it_stay_whole(box, server, tree):
    client = Client(server, user="again")
    again, longer = f"/Projects/{AGAIN}", f"/Projects/{AGAIN}2"
    for path in ("/Projects", again, longer):
        assert client.command(f"MKD {path}")[1] == f'257 "{path}" is made.\r\n'
    box.file("f", b"hello", box.find(f"{again}{again}")["id"])
    for path in (again, longer, f"{again}{again}", f"/x{again}", f"{again} 2"):
        for verb in ("SIZE", "DELE"):
            assert client.command(f"{verb} {path}/missing")[1].splitlines()[1] == f'550-GridFTP-Path: "{path}/missing"'
            assert f"{verb} {path}/missing failed: PATH_NOT_FOUND; GridFTP-Path: \"{path}/missing\"\n" in server.log()
    assert client.command(f"RNFR {again}/f")[0] == 350
    assert client.command(f"RNTO {longer}/f")[1] == f"250 {again}/f is now {longer}/f.\r\n"
    assert client.command(f"MLST {longer}/f")[1].endswith(f" {longer}/f\r\n250 End.\r\n")
    client.close()
    assert box.find(f"{again}{longer}/f") and not box.items(box.find(longer)["id"])


def test_a_broken_upload_goes_on(box, session, place):
    path, number = place
    client = session()
    code, text = client.put(f"STOR {path}/large", LARGE[:90_000], announced=len(LARGE))
    assert code == 426 and "REST 80000" in text
    assert client.command(f"MKD {path}/meanwhile")[0] == 257
    assert client.command("REST 80000")[0] == 350 and client.put(f"STOR {path}/large", LARGE[80_000:])[0] == 226
    assert box.items(number)["large"]["sha1"] == hashlib.sha1(LARGE).hexdigest()
    assert client.put(f"STOR {path}/again", LARGE[:90_000], announced=len(LARGE))[0] == 426
    assert client.put(f"STOR {path}/again", NEW)[0] == 226, "and another may begin afresh"


def faults():
    for status in (400, 401, 403, 404, 409, 412, 500, 503):
        yield {"status": status, "times": 99}
    yield {"status": 409, "times": 99, "html": "<html>no</html>"}
    yield {"cut_before_answer": True, "times": 99}
    yield {"cut_before_answer": True, "times": 1, "store": True}


@pytest.mark.parametrize("fault", range(len(list(faults()))))
def test_errors_of_box_show_no_root(box, session, place, fault):
    path, row = place[0], list(faults())[fault]
    for method, line in (("GET", "SIZE {}/d/x"), ("GET", "MLST {}/new"), ("PUT", "RNTO {}/g"), ("DELETE", "DELE {}/f"),
                         ("DELETE", "RMD {}/d"), ("POST", "MKD {}/new"), ("POST", "STOR {}/new")):
        client = session()
        if line.startswith("RNTO"):
            assert client.command(f"RNFR {path}/d/x")[0] == 350
        try:
            box.fault(method=method, path="/**", **row)
            if line.startswith("STOR"):
                client.put(line.format(path), NEW)
                client.put(line.format(path), LARGE, announced=len(LARGE))
            else:
                client.command(line.format(path))
        except Lost:
            pass  # the reply that came before shows nothing, either
        finally:
            box.clear_faults()
        client.close()


def test_too_large_an_upload_names_its_path(session, place):
    client = session()
    with client.data():
        assert client.command(f"ALLO {6 * 1024**4}")[0] == 200
        code, text = client.command(f'STOR {place[0]}/a "b"\\c')
    assert code == 451 and f'451-Box-Path: "{place[0]}/a \\"b\\"\\\\c"' in text


def test_sessions_of_the_account_know_of_each_others_changes(session, place):
    path = place[0]
    one, other = session(), session()
    for client in (one, other):
        assert client.command(f"SIZE {path}/d/x")[0] == 213
    assert one.put(f"STOR {path}/d/y", NEW)[0] == 226 and other.command(f"SIZE {path}/d/y")[1] == f"213 {len(NEW)}\r\n"
    assert one.command(f"RNFR {path}/d")[0] == 350 and one.command(f"RNTO {path}/e")[0] == 250
    assert other.command(f"SIZE {path}/d/x")[0] == 550 and other.command(f"SIZE {path}/e/x")[0] == 213
    assert other.command(f"DELE {path}/f")[0] == 250 and one.command(f"SIZE {path}/f")[0] == 550


@pytest.mark.parametrize("user", ["elsewhere", "on_file", "below_file"])
def test_a_root_that_is_not_there_is_a_refusal(server, user):
    client = Client(server, login=False)
    for _ in range(2):
        assert client.command(f"USER {user}")[0] == 331
        assert client.command("PASS correct horse") == (530, GONE)
    client.close()


def test_a_root_that_is_renamed_shows_nothing_else(box, tree, server, session, place):
    path = place[0]
    stays, other = session(), session()
    assert stays.command(f"SIZE {path}/f")[0] == 213
    box.call("PUT", f"/2.0/folders/{tree.root}", {"name": "Renamed"})
    instead = box.folder("Other", tree.projects)
    try:
        assert other.command(f"DELE {path}/f")[0] in (250, 550)  # a session that has seen the folder knows its number
        for _ in range(2):
            for line in (f"SIZE {path}/f", f"SIZE {path}/d/x", f"MLST {path}/missing", "MLST /", "CWD /"):
                code, text = stays.command(line)
                assert code in (213, 250) or "PATH_NOT_FOUND" in text, text
                assert "Renamed" not in text and "Other" not in text
            # Elsewhere the account changes something that makes the session look anew.
            assert other.command(f"DELE {path}/d/x")[0] in (250, 550)
        with pytest.raises(Lost, match="530.*root is not there"):
            session()
        box.call("PUT", f"/2.0/folders/{instead}", {"name": NAME})
        client = session()
        assert client.fetch("NLST /")[2] == b"" and client.command(f"SIZE {path}/f")[0] == 550
    finally:
        box.call("DELETE", f"/2.0/folders/{instead}")
        box.call("PUT", f"/2.0/folders/{tree.root}", {"name": NAME})
