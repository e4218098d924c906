"""Uploads whose parts go side by side, against a local Box that fails in every way: byte-exact or told, never in between."""

import concurrent.futures
import ftplib
import hashlib
import json
import pathlib
import random
import re
import time

import pytest
from local import Box, Server, pattern, sha1

PART = 40_000
CONTENT = pattern(7 * PART + 123)
PARTS = 8
SETTINGS = {"chunked_minimum": 100_000, "progress_timeout_ms": 700, "max_delay": 1, "part_concurrency": 4}
SESSIONS = "/api/2.0/files/upload_sessions/"
LASTING = 9  # times, more often than a part is tried


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), "--set", "chunked_minimum=1", "--set", f"part_size={PART}")
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def users():
    """Ids of users that share nothing with others on this host, neither seats nor the bucket of parts."""
    given = []

    def new():
        given.append(str(random.randrange(10**14, 10**15)))
        return given[-1]

    yield new
    for user in given:
        for file in (pathlib.Path.home() / ".tarvex/box-r").glob(f"{user}*"):
            file.unlink()


def start(directory, box, user, **settings):
    credential = {"access_token": box.token, "token_expiry": "2099-01-01T00:00:00.000000+00:00", "sub": user,
                  "max_upload": 5 * 1024**3}
    return Server(directory, box, settings={**SETTINGS, **settings}, credential=credential)


@pytest.fixture(scope="module")
def server(tmp_path_factory, box, users):
    program = start(tmp_path_factory.mktemp("server"), box, users())
    yield program
    assert program.stop() == 0


@pytest.fixture
def login(server, users):
    """A session of a new user."""
    server.write_credential({**json.loads(server.credential_path.read_text()), "sub": users()})
    client = server.ftp()
    client.voidcmd("TYPE I")
    yield client
    client.close()


def put(client, name, content=CONTENT, cut_at=None, rest=0):
    """Code and text of the last reply to a store, of which the first bytes alone are sent when it is cut."""
    client.sendcmd(f"ALLO {len(content)}") if not rest else client.sendcmd(f"REST {rest}")
    with client.transfercmd(f"STOR {name}") as data:
        try:
            data.sendall(content[rest:cut_at])
        except OSError:
            pass
    reply = client.getmultiline()
    return int(reply[:3]), reply


def is_stored(box, name, content=CONTENT):
    item = box.find(name)
    if item is None:
        return False
    properties = box.call("GET", f"/2.0/files/{item['id']}/metadata/global/properties")
    assert item["sha1"] == sha1(content) and properties["tarvex-md5"] == hashlib.md5(content).hexdigest()
    return True


def requests(box, mark, method, path=f"{re.escape(SESSIONS)}[^/]+$"):
    return [entry for entry in box.journal(mark) if entry["method"] == method and re.search(path, entry["path"])]


# What happens to a part that is stored in the end.
PASSING = [
    {"cut_before_answer": True}, {"cut_before_answer": True, "store": True}, {"cut_request_after": 10_000},
    {"cut_answer_after": 5}, {"status": 500}, {"status": 500, "store": True}, {"status": 500, "times": 3},
    {"status": 502, "html": "<html>bad gateway</html>"}, {"status": 503, "headers": {"Retry-After": "1"}},
    {"status": 429}, {"status": 429, "headers": {"Retry-After": "600"}}, {"code": "range_overlaps_existing_part"},
    {"code": "range_overlaps_existing_part", "store": True}, {"status": 416, "empty": True, "store": True},
    {"status": 200, "empty": True}, {"status": 200, "empty": True, "store": True},
    {"status": 200, "html": "<html>welcome</html>", "store": True}, {"status": 401}, {"hang": True},
    {"delay_ms": 300}, {"piece_bytes": 10, "piece_delay_ms": 30}, {"read_delay_ms": 50},
]


@pytest.mark.parametrize("nth", [1, PARTS // 2, PARTS])
def test_a_part_that_meets_trouble_is_stored_once(box, server, users, nth):
    for row in PASSING:
        server.write_credential({**json.loads(server.credential_path.read_text()), "sub": users()})
        with server.ftp() as client:
            name = f"passing-{nth}-{PASSING.index(row)}"
            client.voidcmd("TYPE I")
            box.fault(method="PUT", path=SESSIONS + "*", nth=nth, **row)
            answer = put(client, name)
            box.clear_faults()
            assert answer[0] == 226 and is_stored(box, name), (row, answer)


# What is not cured: the answer to one part, or to all from there on.
LASTING_TROUBLE = [
    {"status": 403}, {"status": 410, "code": "session_expired"}, {"status": 412, "code": "precondition_failed"},
    {"status": 404, "empty": True}, {"status": 401, "times": 0}, {"status": 500, "times": 0},
    {"cut_before_answer": True, "times": 0},
]


@pytest.mark.parametrize("row", LASTING_TROUBLE, ids=str)
def test_what_cannot_be_stored_is_told(box, login, row):
    mark = box.mark()
    name = f"lasting-{LASTING_TROUBLE.index(row)}"
    box.fault(method="PUT", path=SESSIONS + "*", nth=3, **row)
    code, text = put(login, name)
    box.clear_faults()
    assert code in (421, 451, 550) and box.find(name) is None, text
    assert not requests(box, mark, "POST", "/commit$")


@pytest.mark.parametrize("cut_at", [PART // 2, 3 * PART, 5 * PART + 1])
def test_an_upload_that_was_cut_off_goes_on(box, login, cut_at):
    name = f"cut-{cut_at}"
    code, text = put(login, name, cut_at=cut_at)
    assert code == 426 and box.find(name) is None
    whole = cut_at - cut_at % PART
    if whole:
        assert f"REST {whole}" in text
    mark = box.mark()
    assert put(login, name, rest=whole)[0] == 226 and is_stored(box, name)
    assert len(requests(box, mark, "PUT")) == PARTS - whole // PART


@pytest.mark.parametrize("nth", [6, 8])  # whichever is the last to come, those before are on their way
def test_an_upload_goes_on_where_a_part_could_not_be_stored(box, login, nth):
    name = f"refused-{nth}"
    box.fault(method="PUT", path=SESSIONS + "*", nth=nth, status=403)
    code, text = put(login, name)
    gap = int(re.search(r"To go on, send REST (\d+) and STOR", text)[1])
    assert code in (451, 550) and gap % PART == 0 and 0 < gap < len(CONTENT) and box.find(name) is None
    for wrong in (PART + gap, 17):
        with pytest.raises(ftplib.error_perm, match=f"553 .*REST {gap} only"):
            put(login, name, rest=wrong)
    mark = box.mark()
    assert put(login, name, rest=gap)[0] == 226 and is_stored(box, name)
    assert len(requests(box, mark, "PUT")) <= PARTS - gap // PART


def test_sessions_of_a_user_share_their_connections(tmp_path, box, users):
    latency = 0.3
    server = start(tmp_path, box, users(), part_concurrency=8)
    content = pattern(30 * PART)
    mark = box.mark()
    box.fault(method="PUT", path=SESSIONS + "*", times=0, delay_ms=int(latency * 1000))
    clients = [server.ftp() for _ in range(3)]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        answers = list(pool.map(lambda i: put(clients[i], f"shared-{i}", content), range(3)))
    box.clear_faults()
    assert [code for code, _ in answers] == [226] * 3 and all(is_stored(box, f"shared-{i}", content) for i in range(3))
    began = sorted(entry["time_us"] / 1e6 for entry in requests(box, mark, "PUT"))
    assert len(began) == 90
    most = max(sum(1 for other in began if at <= other < at + 0.9 * latency) for at in began)
    assert 6 <= most <= 8 + 2, "eight seats, and two uploads that found none for their first connection"
    for client in clients:
        client.close()
    assert server.stop() == 0


def test_an_abort_ends_all_parts_at_once(box, login):
    box.fault(method="PUT", path=SESSIONS + "*", times=0, hang=True)
    login.sendcmd(f"ALLO {len(CONTENT)}")
    with login.transfercmd("STOR aborted") as data:
        data.sendall(CONTENT)
        time.sleep(0.3)
        begun = time.monotonic()
        login.putline("ABOR")
        codes = [int(login.getmultiline()[:3]) for _ in range(2)]
    assert codes == [426, 226] and time.monotonic() - begun < 0.5
    box.clear_faults()
    assert box.find("aborted") is None
    assert put(login, "aborted")[0] == 226 and is_stored(box, "aborted")


def peak_bytes(pid):
    return int(re.search(r"VmHWM:\s+(\d+) kB", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) * 1024


def test_memory_is_bounded(tmp_path, users):
    mebi = 1 << 20
    box = Box(tmp_path, "--set", f"part_size={8 * mebi}")
    server = start(tmp_path, box, users(), part_memory=16 * mebi, part_concurrency=8, progress_timeout_ms=30000)
    client = server.ftp()
    pid, content = server.sessions()[0], pattern(96 * mebi)
    before = peak_bytes(pid)
    assert put(client, "large", content)[0] == 226 and is_stored(box, "large", content)
    assert peak_bytes(pid) - before < (16 + 32) * mebi
    client.close()
    assert (server.stop(), box.stop()) == (0, 0)


def test_by_default_parts_go_one_by_one(tmp_path, box, users):
    server = start(tmp_path, box, users(), part_concurrency=1)
    mark = box.mark()
    with server.ftp() as client:
        assert put(client, "one-by-one")[0] == 226 and is_stored(box, "one-by-one")
    asked = [(entry["method"], re.sub(r"/[0-9A-Za-z]{8,}", "/S", entry["path"])) for entry in box.journal(mark)]
    stored = asked[asked.index(("POST", SESSIONS[:-1])):]
    assert [method for method, _ in stored[:PARTS + 3]] == ["POST", *["PUT"] * PARTS, "POST", "POST"]
    ranges = [dict(entry["headers"])["Content-Range"] for entry in requests(box, mark, "PUT")]
    assert [int(re.search(r"\d+", text)[0]) for text in ranges] == [PART * i for i in range(PARTS)]
    assert server.stop() == 0
