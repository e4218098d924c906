"""The program and its HTTP: connections, bodies, several clients at once, restarts, the command line."""

import concurrent.futures
import subprocess

import pytest
from emulated_box import Connection, EmulatedBox, named
from local import BUILD, pattern

ME = "GET /2.0/users/me"


def test_connections_are_kept_and_answers_in_order(box):
    with Connection(box) as connection:
        connection.send(b"".join(box.bytes_of(f"GET /2.0/folders/{i}") for i in range(3)))
        assert [connection.receive().status for _ in range(3)] == [200, 404, 404]
        # An early refusal is followed by the rest of the body, which must not be taken for a request.
        connection.send(box.bytes_of("POST /2.0/nothing", pattern(300_000)))
        assert connection.receive().status == 404
        connection.send(box.bytes_of(ME, headers={"Connection": "close"}))
        assert connection.receive().status == 200 and connection.ended()


def test_a_body_that_waits_is_asked_for(box):
    expecting, body = {"Expect": "100-continue"}, named("n").encode()
    with Connection(box) as connection:
        connection.send(box.bytes_of("POST /2.0/folders", body, expecting).removesuffix(body))
        assert connection.receive(has_body=False).status == 100
        connection.send(body)
        assert connection.receive().status == 201
        connection.send(box.bytes_of("PUT /2.0/nothing", "", {**expecting, "Content-Length": 5}))
        assert connection.receive().status == 404, "a refusal needs no body"
        assert connection.ended()


@pytest.mark.parametrize("data, status", [
    (b"nonsense", 400), (b"GET / HTTP/1.1\r\nHost: h\r\nTransfer-Encoding:", 400),
    (b"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2", 400), (b"POST / HTTP/1.1\r\nContent-Length: -1", 400),
    (b"GET / HTTP/1.1\r\nLong: " + b"x" * 70_000, 431)], ids=range(5))
def test_what_is_not_http_is_refused(box, data, status):
    with Connection(box) as connection:
        connection.send(data + b"\r\n\r\n")
        assert connection.receive().status == status


def test_a_client_that_stops_in_mid_body_holds_up_nobody(box):
    with Connection(box) as broken:
        broken.send(box.bytes_of("POST /2.0/folders", "{}", {"Content-Length": 5}))
        assert box.send(ME).status == 200


def test_one_of_many_creates_wins(box):
    def create(client):
        names = [named(f"n{i}") for i in range(10)]
        return [(box.send("POST /2.0/folders", name) if client % 2 else box.upload(name, b"x")).status for name in names]

    with concurrent.futures.ThreadPoolExecutor() as pool:
        statuses = sum(pool.map(create, range(8)), [])
    assert (statuses.count(201), statuses.count(409)) == (10, 70)
    assert box.send("GET /2.0/folders/0/items").at("total_count") == "10"


def test_state_and_demo_survive_a_restart(tmp_path):
    seen = set()
    for run in range(2):
        box = EmulatedBox(tmp_path, "--demo")
        if run == 0:
            file = box.file("mine", pattern(1000))
        seen.add(box.send("GET /2.0/folders/0?fields=item_collection,size").body)
        assert box.fetch(file).body == pattern(1000)
        assert box.find("/documents") and box.stop() == 0
    assert len(seen) == 1


def test_accounts_do_not_see_each_other(tmp_path):
    box = EmulatedBox(tmp_path, "--account", "bob:bob-token")
    file = box.file("f", b"x")
    assert box.send(f"GET /2.0/files/{file}", token="bob-token").status == 404
    box.send("GET /2.0/folders/0/items", token="bob-token").expect("total_count=0")
    assert box.stop() == 0


def test_the_journal_tells_what_came(box):
    start = box.mark()
    box.send("POST /2.0/folders?fields=id&b=%2F", named("n"), {"X-One": "1", "x-two": "2"})
    box.upload(named("f"), b"secret bytes")
    rows = box.send(f"GET /_emulator/journal?since={start}")
    rows.expect('0.method=POST|0.query=[["fields","id"],["b","/"]]|0.raw_query=fields=id&b=%2F|0.status=201')
    rows.expect(f"0.body={named('n')}|1.body={named('f')}")
    assert '["X-One","1"],["x-two","2"]' in rows.at("0.headers")
    assert box.token.encode() not in rows.body and b"secret bytes" not in rows.body


def test_the_rate_is_limited_when_told(box):
    box.set(account_requests_per_minute=5, account_uploads_per_minute=1)
    assert box.upload(named("f"), b"x").status == 201
    refused = box.upload("{}", b"x").expect("code=rate_limit_exceeded")
    assert 1 <= int(refused.headers["Retry-After"]) <= 60
    assert [box.send(ME).status for _ in range(5)] == [200] * 4 + [429]


def test_bad_command_lines_say_what_is_wrong(box, tmp_path):
    data = f"--data {tmp_path / 'other'} "
    for arguments, status, words in [
            ("", 2, "--data is required"), (data + "--account x", 2, "NAME:TOKEN"),
            (data + "--set part=1", 2, "unknown setting 'part'"),
            (data + "--refresh never", 2, "grace|strict"), (data + "--password x", 2, "NAME:PASSWORD"),
            (data + "--password x:y", 1, "no such account"), (data + "--app /nowhere.json", 1, "/nowhere.json"),
            (data + "--set part_size=big", 2, "wants a whole number"),
            (data + "--like x", 2, "box-on-a-bad-day"), (data + "--set trouble_on=api,x", 2, "wants some of"),
            (data + "--set cut_probability=1.5", 2, "from 0 to 1"), (data + "--set connection_rate=-1", 2, "at least 0"),
            (data + "--set next_marker=x", 2, "null|empty|missing"), (data + "--listen here", 1, "HOST:PORT"),
            (data + f"--listen {box.address}", 1, "in use"), (data + "--faults /nowhere.json", 1, "/nowhere.json"),
            ("--data /proc/nowhere", 1, "/proc/nowhere"), ("--help", 0, "download_lifetime_s")]:
        ended = subprocess.run([BUILD / "bin/tarvex-box-emulator", *arguments.split()], capture_output=True, text=True)
        assert ended.returncode == status and words in ended.stdout + ended.stderr, (arguments, ended)
