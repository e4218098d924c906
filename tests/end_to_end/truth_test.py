"""What the server confirms is so, where Box's answers leave room for something else: rows of faults and of other sessions."""

import concurrent.futures
import hashlib
import socket
import time
import uuid

import pytest
from local import SMALL_BOX, SMALL_SERVER, Box, Server, pattern, wait_until
from model_client import Client, Foreign, Lost

CONTENT = pattern(90_000)
NEW = pattern(50_000, seed=2)
LARGE = pattern(3 * 40_000 + 7, seed=3)
REFUSED = (4, 5)
LASTING = 9  # times, more often than anything is tried


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), "--account", "alice:another-token", *SMALL_BOX)
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    program = Server(tmp_path_factory.mktemp("server"), box, settings=SMALL_SERVER)
    yield program
    assert program.stop() == 0


class Scene:
    """A folder with a file "f" and a folder "d" with a file "x", and sessions that know it."""

    def __init__(self, box, server):
        self.box, self.server = box, server
        self.name = "t" + uuid.uuid4().hex[:8]
        self.foreign = Foreign(box, "another-token", box.folder(self.name))
        self.file = box.file("f", CONTENT, self.foreign.root)
        self.folder = box.folder("d", self.foreign.root)
        box.file("x", b"x of d", self.folder)
        self.sessions = []

    def session(self, *known):
        """A session that has listed the folder, and others in it."""
        client = Client(self.server)
        self.sessions.append(client)
        for path in ("", "d", *known):
            client.fetch(f"NLST /{self.name}/{path}")
        return client

    def ask(self, client, line):
        """(code, text) of a line with {} for the folder; RNFR and RNTO, in one line, are a pair."""
        line = line.format("/" + self.name)
        if line.startswith("RNFR") and " RNTO " in line:
            first, second = line.split(" RNTO ")
            answer = client.command(first)
            return answer if answer[0] != 350 else client.command(f"RNTO {second}")
        if line.split()[0] in ("RETR", "LIST", "NLST", "MLSD"):
            return client.fetch(line)[:2]
        return client.command(line)

    def put(self, client, name, content, announce=None, before_end=None):
        data = client.data()
        if announce:
            client.command(f"ALLO {announce if announce is not True else len(content)}")
        answer = client.command(f"STOR /{self.name}/{name}")
        if answer[0] == 150:
            try:
                data.sendall(content)
            except OSError:
                pass
            data.close()
            if before_end:
                before_end()
            answer = client.reply()
        data.close()
        return answer

    def holds(self, path):
        """SHA-1 of a file in Box, "folder", or None."""
        item = self.foreign.tree().get("/" + path)
        return item and (item.sha1 or "folder")


    def wait_for_end(self, client):
        """Closes a session and waits until the server has ended it."""
        running = len(self.server.sessions())
        client.close()
        wait_until(lambda: len(self.server.sessions()) < running)


@pytest.fixture
def scenes(box, server):
    """Makes scenes."""
    made = []

    def make():
        made.append(Scene(box, server))
        return made[-1]

    yield make
    for scene in made:
        for client in scene.sessions:
            client.close()


@pytest.fixture
def scene(scenes):
    return scenes()


def check_rows(rows, run):
    """Runs each row, and fails with what each wrong one said."""
    wrong = []
    for row in rows:
        try:
            run(row)
        except (AssertionError, Lost) as error:
            wrong.append(f"{row}: {str(error).splitlines()[0]}")
    if wrong:
        pytest.fail(f"{len(wrong)} of {len(rows)}:\n" + "\n".join(wrong), pytrace=False)


def sha1(content):
    return hashlib.sha1(content).hexdigest()


def refused(answer):
    assert answer[0] // 100 in REFUSED and answer[0] != 500, answer
    return True


def goes_on(client):
    assert client.command("NOOP")[0] == 200
    return True


# --- downloads and checksums

NOT_THE_FILE = [*({"status": status, "text": ""} for status in (
    200, 202, 204, 302, 303, 304, 307, 402, 405, 408, 410, 412, 416, 423, 451)), {"status": 200, "body": {"type": "error"}},
    {"status": 200, "html": "<html>sign in</html>"}, {"status": 206, "text": "a part"}]


@pytest.mark.parametrize("command", ["RETR {}/f", "CKSM SHA256 0 -1 {}/f", "CKSM MD5 5 -1 {}/f", "XCRC {}/f"])
def test_a_download_is_whole_or_refused(box, scenes, command):
    def run(row):
        scene = scenes()
        client = scene.session()
        box.fault(method="GET", path="/d/**", times=LASTING, **row)
        answer = scene.ask(client, command)
        box.clear_faults()
        assert refused(answer) and client.fetch(f"RETR /{scene.name}/f")[2] == CONTENT

    check_rows(NOT_THE_FILE, run)


def test_no_download_begins_beyond_the_end(scene):
    client = scene.session()
    assert client.command(f"REST {len(CONTENT) + 1}")[0] == 350
    assert scene.ask(client, "RETR {}/f")[0] == 551


def test_a_download_is_of_one_version(box, scene):
    client = scene.session()
    box.fault(method="GET", path="/d/**", cut_answer_after=50_000)
    box.fault(method="GET", path="/d/**", status=200, text="y" * (len(CONTENT) + 1))
    code, text, received = client.fetch(f"RETR /{scene.name}/f")
    assert code == 451 and "changed" in text and CONTENT.startswith(received)
    box.clear_faults()
    assert client.fetch(f"RETR /{scene.name}/f")[::2] == (226, CONTENT)


def test_a_checksum_begins_anew_with_a_new_attempt(tmp_path, box, scene):
    server = Server(tmp_path, box, settings={"cksm_restart": 1})
    client = Client(server)
    box.fault(method="GET", path="/d/**", times=1, cut_answer_after=50_000)
    assert client.command(f"CKSM MD5 0 -1 /{scene.name}/f") == (213, f"213 {hashlib.md5(CONTENT).hexdigest()}\r\n")
    client.close()
    assert server.stop() == 0


# --- stores

# Where an upload may go wrong: (content, the request that stores it).
UPLOADS = {"small": (NEW, "/api/2.0/files/content"), "parts": (LARGE, "/api/2.0/files/upload_sessions/*/commit")}


@pytest.mark.parametrize("kind", UPLOADS)
@pytest.mark.parametrize("stored", [False, True])
def test_a_store_is_confirmed_when_box_has_the_file_and_only_then(box, scenes, kind, stored):
    content, path = UPLOADS[kind]

    def run(row):
        scene = scenes()
        client = scene.session()
        box.fault(**{"method": "POST", "path": path, "times": LASTING, "store": stored, **row})
        answer = scene.put(client, "new", content)
        box.clear_faults()
        assert (answer[0] == 226 if stored else refused(answer)), answer
        assert scene.holds("new") == (sha1(content) if stored else None)
        assert goes_on(client)

    other = {"entries": [{"type": "file", "id": "1", "name": "other", "size": 1, "sha1": "0"}]}
    rows = [*({"status": status, "text": ""} for status in (200, 201, 202, 206, 302, 303, 307, 500, 503)),
            {"status": 201, "body": {"entries": []}}, {"status": 201, "body": other}, {"cut_before_answer": True}]
    check_rows(rows + [{"cut_before_answer": True, "times": 1}] * stored, run)  # which a repetition finds done


def test_what_follows_the_commit_fails_no_store(box, scenes):
    def run(row):
        scene = scenes()
        client = scene.session()
        box.fault(method="P*", path="/2.0/files/*/metadata/**", times=LASTING, **row)
        mark = box.mark()
        answer = scene.put(client, "new", LARGE)
        box.clear_faults()
        assert answer[0] == 226, answer
        assert not any(entry["method"] == "DELETE" for entry in box.journal(mark))

    check_rows([{"status": 403, "text": ""}, {"status": 500, "text": ""}, {"cut_before_answer": True}], run)


@pytest.mark.parametrize("kind", UPLOADS)
@pytest.mark.parametrize("announce", [False, True])
def test_a_name_that_comes_during_an_upload_stays(box, scene, kind, announce):
    content, path = UPLOADS[kind]
    one, two = scene.session(), scene.session()
    box.fault(method="POST", path=path, read_delay_ms=400)

    def store_by_other():
        scene.foreign.wait_for_fault()
        assert scene.put(two, "name", b"the other's", announce=True)[0] == 226

    answer = scene.put(one, "name", content, announce=announce, before_end=store_by_other)
    assert refused(answer) and "PATH_EXISTS" in answer[1]
    assert scene.holds("name") == sha1(b"the other's")


@pytest.mark.parametrize("announce", [False, True])
def test_a_name_that_another_session_has_added_is_replaced(scene, announce):
    one, two = scene.session(), scene.session()
    assert scene.put(two, "added", b"first")[0] == 226
    assert scene.put(one, "added", NEW, announce=announce)[0] == 226
    assert scene.holds("added") == sha1(NEW)


@pytest.mark.parametrize("name", ["f", "new"])
@pytest.mark.parametrize("gap", [0, 0.05, 0.4])
def test_a_dead_client_has_not_finished(scene, name, gap):
    client, before = scene.session(), scene.holds(name)
    data = client.data()
    assert client.command(f"STOR /{scene.name}/{name}")[0] == 150
    data.sendall(NEW[:20_000])
    data.close()
    time.sleep(gap)
    scene.wait_for_end(client)
    assert scene.holds(name) == before


def test_a_client_that_half_closes_gets_its_replies_except_in_a_transfer(scene):
    client = scene.session()
    client.send(f"SIZE /{scene.name}/f")
    client.control.shutdown(1)
    assert client.reply()[0] == 213
    client = scene.session()
    data = client.data()
    assert client.command(f"STOR /{scene.name}/new")[0] == 150
    data.sendall(NEW)
    client.control.shutdown(1)
    data.close()
    scene.wait_for_end(client)
    assert scene.holds("new") is None


@pytest.mark.parametrize("how", ["425", "ABOR", "death"])
def test_what_is_there_is_left_until_its_replacement_is_on_its_way(scene, how):
    for content in (NEW, LARGE):
        client = scene.session()
        client.command(f"ALLO {len(content)}")
        if how == "425":
            with socket.create_server(("127.0.0.1", 0)) as nobody:
                port = nobody.getsockname()[1]
            assert client.command(f"EPRT |1|127.0.0.1|{port}|")[0] == 200
            answer = client.command(f"STOR /{scene.name}/f")
            assert (client.reply() if answer[0] == 150 else answer)[0] == 425
        else:
            data = client.data()
            client.send(f"STOR /{scene.name}/f")
            time.sleep(0.3)
            while how == "ABOR" and client.command("ABOR")[0] not in (225, 226):
                pass
            scene.wait_for_end(client)
            data.close()
        assert scene.holds("f") == sha1(CONTENT)


@pytest.mark.parametrize("announce", [False, True])
def test_what_is_renamed_while_its_replacement_comes_is_left_alone(scene, announce):
    one, other = scene.session(), scene.session()
    rename = "RNFR {0}/f RNTO {0}/g"
    answer = scene.put(one, "f", NEW, announce, before_end=None if announce else lambda: scene.ask(other, rename))
    if announce:
        data = one.data()
        one.command(f"ALLO {len(LARGE)}")
        assert one.command(f"STOR /{scene.name}/f")[0] == 150
        assert scene.ask(other, rename)[0] == 250
        data.sendall(LARGE)
        data.close()
        answer = one.reply()
    assert answer[0] == 226
    assert scene.holds("g") == sha1(NEW if announce else CONTENT)
    assert scene.holds("f") == sha1(LARGE if announce else NEW)


def test_a_store_whose_deletion_lost_its_answer_is_sent_again(box, scene):
    client = scene.session()
    box.fault(method="DELETE", path="/2.0/files/*", cut_before_answer=True, store=True)
    assert scene.put(client, "f", NEW)[0] == 226 and scene.holds("f") == sha1(NEW)
    box.fault(method="DELETE", path="/2.0/files/*", cut_before_answer=True, store=True)
    answer = scene.put(client, "f", LARGE, announce=True)
    assert answer[0] == 451 and "in the trash of Box" in answer[1], "data that are not kept cannot be sent again"


@pytest.mark.parametrize("fault", [{"status": status, "html": "<html>no</html>"} for status in (206, 200, 405)])
def test_a_checksum_is_of_the_file(box, scene, fault):
    client = scene.session()
    box.fault(method="GET", path="/d/**", times=LASTING, **fault)
    for what in ("SHA1 0 1", "SHA256 0 1") + ("MD5 0 -1",) * (fault["status"] != 206):
        assert refused(scene.ask(client, f"CKSM {what} {{0}}/f"))


def test_a_broken_upload_goes_on_whatever_else_is_done(scene):
    client = scene.session()
    answer = scene.put(client, "broken", LARGE[:90_000], announce=len(LARGE))
    assert refused(answer) and "REST 80000" in answer[1]
    assert scene.put(client, "other", NEW)[0] == 226
    assert scene.ask(client, "RNFR {0}/other RNTO {0}/another")[0] == 250
    data = client.data()
    assert client.command("REST 80000")[0] == 350 and client.command(f"STOR /{scene.name}/broken")[0] == 150
    data.sendall(LARGE[80_000:])
    data.close()
    assert client.reply()[0] == 226 and scene.holds("broken") == sha1(LARGE)


def test_an_upload_that_goes_on_deletes_nothing(scene):
    client, other = scene.session(), scene.session()
    assert "REST 80000" in scene.put(client, "broken", LARGE[:90_000], announce=len(LARGE))[1]
    assert scene.put(other, "broken", NEW)[0] == 226
    assert b"broken" in client.fetch(f"NLST /{scene.name}")[2]
    assert scene.ask(other, "RNFR {0}/broken RNTO {0}/kept")[0] == 250
    assert client.command("REST 80000")[0] == 350 and refused(scene.put(client, "broken", LARGE[80_000:]))
    assert scene.holds("kept") == sha1(NEW) and scene.holds("broken") is None
    assert scene.put(client, "broken", NEW)[0] == 226


def test_a_spooled_store_waits_while_box_is_busy(box, scene):
    client = scene.session()
    box.fault(method="POST", path="/api/2.0/files/content", status=429, text="", times=2)
    assert scene.put(client, "busy", NEW)[0] == 226 and scene.holds("busy") == sha1(NEW)
    box.fault(method="POST", path="/api/2.0/files/content", status=429, text="", times=99)
    assert scene.put(client, "too busy", NEW)[0] == 451 and scene.holds("too busy") is None


@pytest.mark.parametrize("path, content", [("/api/2.0/files/content", NEW), ("/api/2.0/files/upload_sessions", LARGE),
                                           ("/api/2.0/files/upload_sessions/*", LARGE)],
                         ids=["small", "session", "part"])
def test_a_failed_store_says_where_the_former_file_is(box, scene, path, content):
    client = scene.session()
    item = scene.foreign.tree()["/f"]
    box.fault(method="P*", path=path, status=403, text="", times=LASTING)
    answer = scene.put(client, "f", content)
    assert refused(answer)
    box.clear_faults()
    if scene.holds("f") is None:
        assert f"The former /{scene.name}/f is in the trash of Box." in answer[1] and scene.foreign.in_trash(item)
    assert scene.put(client, "f", content)[0] == 226


# --- changes

CHANGES = {  # command -> (the request that does it, what is said when it is done)
    "MKD {}/made": (("POST", "/2.0/folders"), 257), "DELE {}/f": (("DELETE", "/2.0/files/*"), 250),
    "RMD {}/empty": (("DELETE", "/2.0/folders/*"), 250), "SITE RDEL {}/d": (("DELETE", "/2.0/folders/*"), 250),
    "RNFR {0}/f RNTO {0}/g": (("PUT", "/2.0/files/*"), 250), "RNFR {0}/d RNTO {0}/e": (("PUT", "/2.0/folders/*"), 250)}


@pytest.mark.parametrize("command", CHANGES)
@pytest.mark.parametrize("done", [False, True])
def test_a_change_is_confirmed_when_it_has_happened_and_only_then(box, scenes, command, done):
    (method, path), code = CHANGES[command]

    def run(row):
        scene = scenes()
        box.folder("empty", scene.foreign.root)
        client, before = scene.session(), scene.foreign.tree()
        box.fault(**{"method": method, "path": path, "times": LASTING, "store": done, **row})
        answer = scene.ask(client, command)
        box.clear_faults()
        assert (scene.foreign.tree() != before) == done
        assert (answer[0] == code if done else refused(answer)), answer
        assert goes_on(client)

    rows = [*({"status": status, "text": ""} for status in (
        201, 202, 206, 302, 304, 402, 405, 408, 410, 412, 416, 423, 451, 500, 503)), {"cut_before_answer": True}]
    check_rows(rows + [{"delay_ms": 1500}, {"cut_before_answer": True, "times": 1}] * done, run)


def test_a_rename_without_an_answer_is_known_all_the_same(box, scene):
    client = scene.session()
    box.fault(method="PUT", path="/2.0/files/*", times=LASTING, cut_before_answer=True, store=True)
    scene.ask(client, "RNFR {0}/f RNTO {0}/g")
    box.clear_faults()
    assert scene.put(client, "f", NEW)[0] == 226
    assert (scene.holds("f"), scene.holds("g")) == (sha1(NEW), sha1(CONTENT))


def test_a_refused_deletion_inside_a_store_hides_nothing(box, scene):
    client = scene.session()
    box.fault(method="DELETE", path="/2.0/files/*", times=LASTING, status=403, text="")
    assert refused(scene.put(client, "f", NEW))
    box.clear_faults()
    assert scene.ask(client, "SIZE {}/f") == (213, f"213 {len(CONTENT)}\r\n")
    assert scene.put(client, "f", NEW)[0] == 226 and scene.holds("f") == sha1(NEW)


def test_a_doubt_stays_until_a_listing_has_succeeded(box, scene):
    client = scene.session()
    assert refused(scene.ask(client, "RMD {}/d"))
    box.fault(method="GET", path="/2.0/folders/*/items", times=LASTING, status=503, text="")
    assert scene.ask(client, "SIZE {}/d/x")[0] in (213, 451)  # 213: it was looked at when the removal was refused
    box.clear_faults()
    assert scene.ask(client, "SIZE {}/d/x")[0] == 213


def test_a_failed_renewal_fails_the_command_alone(box, scene):
    client = scene.session()
    scene.put(client, "new", LARGE[:50_000], announce=len(LARGE))
    box.fault(method="GET", path="/2.0/folders/*/items", times=LASTING, status=503, text="")
    answer = scene.put(client, "new", NEW)
    assert answer[0] // 100 == 4 and answer[0] != 421 or answer[0] == 226, answer
    box.clear_faults()
    assert scene.put(client, "new", NEW)[0] == 226


@pytest.mark.parametrize("status", [423, 500])
def test_nothing_is_said_to_be_missing_after_a_failed_listing(box, scenes, status):
    def run(command):
        scene = scenes()
        client = Client(scene.server)
        scene.sessions.append(client)
        box.fault(method="GET", path=f"/2.0/folders/{scene.foreign.root}/items", times=LASTING, status=status, text="")
        answer = scene.put(client, "n", b"1") if command == "STOR" else scene.ask(client, command)
        box.clear_faults()
        assert answer[0] == 451, answer
        assert not any(word in answer[1] for word in ("PATH_NOT_FOUND", "NOT_A_DIRECTORY", "PATH_EXISTS")), answer

    check_rows(["SIZE {}/f", "MKD {}/n", "DELE {}/f", "RNFR {}/f", "CWD {}/d", "STOR", "RETR {}/f"], run)


def test_no_path_leads_through_a_file(box, scenes):
    def run(command):
        scene = scenes()
        client, mark = scene.session(), box.mark()
        number = scene.foreign.tree()["/d/x"].id
        answer = scene.put(client, "d/x/y", b"1") if command == "STOR" else scene.ask(client, command + " {0}/d/x/y")
        assert answer[0] in (550, 553), answer
        asked = [entry["path"] for entry in box.journal(mark)]
        assert not any(f"/folders/{number}" in path for path in asked), asked

    check_rows(["SIZE", "RETR", "CKSM MD5 0 -1", "DELE", "RNFR", "RNFR {0}/f RNTO", "STOR", "MKD", "RMD", "SITE RDEL",
                "LIST", "MLSD", "MLST", "CWD"], run)


def test_the_root_stays(box, scenes):
    def run(line):
        scene = scenes()
        client, mark = scene.session(), box.mark()
        client.data().close()  # so that a store lacks nothing
        assert scene.ask(client, line)[0] == 553
        assert not any(entry["method"] == "DELETE" for entry in box.journal(mark))
        assert scene.ask(client, "SIZE {}/f")[0] == 213

    commands = ("RMD", "DELE", "SITE RDEL", "RNFR", "RNFR {0}/f RNTO", "STOR")
    check_rows([f"{command} {root}" for command in commands for root in ("/", "{0}/..", "/./")], run)


# --- what sessions know of each other, and of themselves

@pytest.mark.parametrize("by_one, by_two, holds", [
    (["RNFR {0}/f RNTO {0}/f.1"], ["STOR {0}/f", "SIZE {0}/f.1"], {"f": sha1(NEW), "f.1": sha1(CONTENT)}),
    (["SITE RDEL {0}/d"], ["MKD {0}/d"], {"d": "folder", "d/x": None}),
    (["STOR {0}/f"], [f"SIZE {{0}}/f -> {len(NEW)}", f"CKSM SHA1 0 -1 {{0}}/f -> {sha1(NEW)}"], {}),
    (["MKD {0}/e", "RNFR {0}/d RNTO {0}/old", "RNFR {0}/e RNTO {0}/d"], ["STOR {0}/d/n"], {"d/n": sha1(NEW), "old/n": None}),
    (["DELE {0}/d/x", "MKD {0}/d/x", "STOR {0}/d/x/deep"], [f"SIZE {{0}}/d/x/deep -> {len(NEW)}"], {}),
    (["MKD {0}/p", "MKD {0}/p/q", "STOR {0}/p/q/r"], [f"SIZE {{0}}/p/q/r -> {len(NEW)}"], {}),
    (["STOR {0}/g"], ["RNFR {0}/f RNTO {0}/g !", "MKD {0}/g !"], {"f": sha1(CONTENT), "g": sha1(NEW)}),
    (["DELE {0}/f"], ["SIZE {0}/f !", "RETR {0}/f !", "DELE {0}/f !"], {"f": None}),
], ids=lambda value: value[-1] if isinstance(value, list) else "")
def test_sessions_act_upon_what_others_have_done(scene, by_one, by_two, holds):
    one, two = scene.session(), scene.session()
    scene.ask(two, "SIZE {}/f")

    def do(client, line):
        line, _, wanted = line.partition(" -> ")
        fails = line.endswith(" !")
        if line.startswith("STOR"):
            answer = scene.put(client, line.removeprefix("STOR {0}/"), NEW)
        else:
            answer = scene.ask(client, line.removesuffix(" !"))
        assert refused(answer) if fails else answer[0] // 100 == 2, (line, answer)
        assert wanted in answer[1], (line, answer)

    for line in by_one:
        do(one, line)
    for line in by_two:
        do(two, line)
    assert {path: scene.holds(path) for path in holds} == holds


def test_a_session_does_not_take_former_children_for_present_ones(scene):
    client = scene.session()
    for line in ("RNFR {0}/d RNTO {0}/e", "RNFR {0}/e/x RNTO {0}/e/y", "RNFR {0}/e RNTO {0}/d"):
        assert scene.ask(client, line)[0] == 250
    assert refused(scene.ask(client, "DELE {}/d/x"))
    assert scene.holds("d/y") == sha1(b"x of d")


def test_stores_side_by_side_add_no_requests(box, scene):
    clients = [scene.session() for _ in range(4)]
    mark = box.mark()
    for i in range(5):
        for number, client in enumerate(clients):
            assert scene.put(client, f"{number}-{i}", b"1")[0] == 226
    assert [entry["path"] for entry in box.journal(mark)] == ["/api/2.0/files/content"] * 20


# --- whose fault it is

def test_what_may_pass_is_told_apart(box, scenes):
    def run(case):
        row, code = case
        scene = scenes()
        client = scene.session()
        box.fault(method="POST", path="/2.0/folders", times=LASTING, **row)
        answer = scene.ask(client, "MKD {}/n")
        box.clear_faults()
        assert answer[0] == code and goes_on(client), answer

    check_rows([({"status": 429, "body": {"code": "rate_limit_exceeded"}}, 451), ({"status": 502, "html": "<html>"}, 451),
                ({"cut_before_answer": True}, 451), ({"status": 400, "body": {"code": "bad_request"}}, 550)], run)


def test_a_login_is_refused_for_the_credential_alone(box, server):
    def run(case):
        row, code = case
        box.fault(method="GET", path="/2.0/folders/0/items", times=LASTING, **row)
        with pytest.raises(Lost) as lost:
            Client(server)
        box.clear_faults()
        assert str(code) in str(lost.value), lost.value
        Client(server).close()

    check_rows([({"status": 429, "text": ""}, 421), ({"status": 503, "text": ""}, 421), ({"delay_ms": 3000}, 421),
                ({"status": 401, "text": ""}, 530)], run)


def test_sessions_that_wait_for_their_turn_at_box_can_give_up(tmp_path, box):
    server = Server(tmp_path, box, policy='{"user_api_rate_limit": 16}',
                    tables="[limits]\nsessions_per_address = 0")
    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        clients = list(pool.map(lambda _: Client(server), range(200)))
    for client in clients:
        client.waiting = client.data()
        client.send("NLST /")
    lost, kept = clients[-20:], clients[:-20]
    for client in lost:
        client.waiting.close()
        client.close()

    def give_up(client):
        client.send("ABOR")
        while client.reply()[0] not in (225, 226):
            pass

    begun = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(len(kept)) as pool:
        list(pool.map(give_up, kept))
    assert time.monotonic() - begun < 5, "200 threads of the test take their time too; a queue of 16 a second takes 12 s"
    assert kept[0].command("NOOP")[0] == 200
    for client in kept:
        client.close()
    assert server.stop() == 0 and "hangs" not in server.log()
