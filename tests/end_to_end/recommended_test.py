"""The settings that the packaged configuration switches on: files keep what they are when they are stored anew."""

import concurrent.futures
import hashlib
import json
import time
import tomllib

import pytest
from local import BUILD, SMALL_BOX, SMALL_SERVER, Box, Server, form, pattern, sha1
from model_client import Client

SETTINGS = tomllib.loads((BUILD.parents[1] / "packaging/server.toml").read_text())["storage"]["settings"]
LASTING = 9  # times, more often than anything is tried
OLD, SMALL, LARGE = pattern(70_000), pattern(50_000, seed=2), pattern(3 * 40_000 + 7, seed=3)


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), *SMALL_BOX)
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    program = Server(tmp_path_factory.mktemp("server"), box, settings={**SETTINGS, **SMALL_SERVER},
                     server_lines="end_grace_ms = 15")
    yield program
    assert program.stop() == 0


def put(client, name, content, before_end=None):
    data = client.data()
    client.command(f"ALLO {len(content)}")
    answer = client.command(f"STOR {name}")
    if answer[0] == 150:
        try:
            data.sendall(content)
        except OSError:
            pass
        if before_end:
            before_end()
        data.close()
        answer = client.reply()
    data.close()
    return answer


def requests(box, since):
    return [f"{entry['method']} {entry['path']}" for entry in box.journal(since)]


def md5_of(box, ident):
    kept = box.call("GET", f"/2.0/files/{ident}/metadata/global/properties")["tarvex-md5"]
    return kept == hashlib.md5(box.content(ident)).hexdigest()


@pytest.mark.parametrize("content", [SMALL, LARGE], ids=["small", "parts"])
def test_a_store_over_a_file_keeps_it(server, box, content):
    name = f"kept{len(content)}"
    ident = box.file(name, OLD)
    client = Client(server)
    client.fetch("NLST /")
    for new in (content, content[::-1]):
        since = box.mark()
        assert put(client, name, new)[0] == 226
        asked = requests(box, since)
        assert not any(line.startswith(("DELETE", "GET")) for line in asked), asked
        assert box.find(name)["id"] == ident and box.content(ident) == new and md5_of(box, ident)
    versions = box.call("GET", f"/2.0/files/{ident}/versions")["entries"]
    assert len(versions) == 2
    client.close()


def store_version(box, ident, content):
    box.call("POST", f"/api/2.0/files/{ident}/content", form("{}", content),
             {"Content-Type": "multipart/form-data; boundary=edge"})


STEPS = {"small": (SMALL, "POST", "/api/2.0/files/*/content"),
         "session": (LARGE, "POST", "/api/2.0/files/*/upload_sessions"),
         "part": (LARGE, "PUT", "/api/2.0/files/upload_sessions/*"),
         "commit": (LARGE, "POST", "/api/2.0/files/upload_sessions/*/commit"),
         "md5": (SMALL, "P*", "/2.0/files/*/metadata/**")}
FAULTS = [*({"status": status, "text": "", "times": LASTING} for status in (
              200, 202, 400, 401, 403, 404, 409, 410, 412, 416, 423, 429, 500, 503)),
          {"status": 200, "html": "<html>no</html>", "times": LASTING},
          {"status": 503, "text": "", "headers": {"Retry-After": "1"}, "times": 1},
          {"cut_before_answer": True, "times": LASTING}, {"cut_before_answer": True, "times": 1},
          {"cut_before_answer": True, "store": True, "times": 1}, {"status": 500, "store": True, "times": 1},
          {"status": 500, "store": True, "times": LASTING}]


@pytest.mark.parametrize("step", STEPS)
def test_a_file_is_the_old_one_or_the_new_one_and_what_is_confirmed_is_so(server, box, step):
    content, method, path = STEPS[step]
    wrong = []
    for number, fault in enumerate(FAULTS):
        name = f"{step}{number}"
        ident = box.file(name, OLD)
        client = Client(server)
        client.fetch("NLST /")
        box.fault(method=method, path=path, **fault)
        answer = put(client, name, content)
        box.clear_faults()
        found = box.find(name)
        holds = found and {sha1(OLD): "old", sha1(content): "new"}.get(found["sha1"])
        if not holds or found["id"] != ident or (answer[0] == 226 and holds != "new"):
            wrong.append(f"{fault}: {answer} {found}")
        if fault.get("status") == 401:  # that login is over
            client.close()
            client = Client(server)
        again = put(client, name, content[::-1])
        if again[0] == 553:  # the file was looked at: the next one goes by that
            again = put(client, name, content[::-1])
        if again[0] != 226 or box.content(ident) != content[::-1] or not md5_of(box, ident):
            wrong.append(f"{fault}: not stored again: {answer} then {again}")
        client.close()
    if wrong:
        pytest.fail(f"{len(wrong)} of {len(FAULTS)}:\n" + "\n".join(wrong), pytrace=False)


@pytest.mark.parametrize("content", [SMALL, LARGE], ids=["small", "parts"])
def test_what_somebody_else_stores_meanwhile_is_not_replaced_unseen(server, box, content):
    name = f"meanwhile{len(content)}"
    ident = box.file(name, OLD)
    client = Client(server)
    client.fetch("NLST /")
    box.fault(method="POST", path="/api/2.0/files/*/upload_sessions", delay_ms=300)
    answer = put(client, name, content, before_end=lambda: (time.sleep(0.5), store_version(box, ident, b"theirs")))
    assert answer[0] == 553 and "changed by somebody else" in answer[1] and box.content(ident) == b"theirs"
    assert put(client, name, content)[0] == 226 and box.content(ident) == content, "now they have been told"
    client.close()


@pytest.mark.parametrize("content", [SMALL, LARGE], ids=["small", "parts"])
def test_of_two_who_replace_a_file_at_once_nothing_confirmed_is_lost(server, box, content):
    """Who comes second has either seen what the first stored, or is told."""
    name = f"race{len(content)}"
    ident = box.file(name, OLD)
    sessions = [Client(server), Client(server)]
    for client in sessions:
        client.fetch("NLST /")
    contents = [content, content[::-1]]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        answers = list(pool.map(lambda pair: put(pair[0], name, pair[1]), zip(sessions, contents)))
    confirmed = {sha1(stored) for stored, answer in zip(contents, answers) if answer[0] == 226}
    assert confirmed and all(answer[0] in (226, 553) for answer in answers), answers
    assert box.find(name)["sha1"] in confirmed
    kept = {entry["sha1"] for entry in box.call("GET", f"/2.0/files/{ident}/versions")["entries"]}
    assert confirmed <= kept | {box.find(name)["sha1"]}
    for client in sessions:
        client.close()


def test_a_replacement_that_was_cut_off_goes_on_unless_the_file_changed(server, box):
    content = pattern(11_000_000)  # what is replaced is left alone until the first 8 MiB are there
    box.call("POST", "/_emulator/settings", {"part_size": 1_000_000})
    for changed in (False, True):
        ident = box.file(f"cut{changed}", OLD)
        client = Client(server)
        client.fetch("NLST /")
        data = client.data()
        client.command(f"ALLO {len(content)}")
        assert client.command(f"STOR cut{changed}")[0] == 150
        data.sendall(content[:10_500_000])
        data.close()
        answer = client.reply()
        assert answer[0] == 426 and "REST 10000000" in answer[1] and box.content(ident) == OLD
        if changed:
            store_version(box, ident, b"theirs")
        data = client.data()
        assert client.command("REST 10000000")[0] == 350 and client.command(f"STOR cut{changed}")[0] == 150
        data.sendall(content[10_000_000:])
        data.close()
        assert client.reply()[0] == (553 if changed else 226)
        assert box.find(f"cut{changed}")["id"] == ident
        assert box.content(ident) == (b"theirs" if changed else content)
        client.close()
    box.call("POST", "/_emulator/settings", {"part_size": 40_000})


@pytest.mark.parametrize("content", [SMALL, LARGE], ids=["small", "parts"])
def test_a_file_that_vanished_meanwhile_is_stored_anew(server, box, content):
    name = f"gone{len(content)}"
    ident = box.file(name, OLD)
    client = Client(server)
    client.fetch("NLST /")
    box.call("DELETE", f"/2.0/files/{ident}")
    assert put(client, name, content)[0] == 226
    found = box.find(name)
    assert found["id"] != ident and found["sha1"] == sha1(content)
    client.close()


def test_listings_take_few_pages_and_show_no_web_links(server, box):
    folder = box.folder("much")
    box.fill(folder, 2500, 1)
    box.call("POST", "/2.0/web_links", {"url": "https://example.org", "name": "link", "parent": {"id": folder}})
    client = Client(server)
    since = box.mark()
    names = client.fetch("NLST /much")[2].split()
    assert len(names) == 2500 and b"link" not in names
    assert sum("/items" in line and folder in line for line in requests(box, since)) == 3
    # Box that says it with an empty marker is asked no more.
    page = json.dumps({"entries": [], "limit": 1000, "next_marker": ""})
    other = box.folder("empty marker")
    client.fetch("NLST /")
    box.fault(path=f"/2.0/folders/{other}/items", status=200, text=page, times=0)
    since = box.mark()
    assert client.fetch("NLST /empty marker")[0] == 226
    assert len(requests(box, since)) == 1
    client.close()
