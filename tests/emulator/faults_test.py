"""Scripted faults: each does what it says, to the requests it names, and is known to have been used."""

import itertools
import json
import time

import pytest
from emulated_box import Connection, EmulatedBox, named
from local import pattern

CONTENT = pattern(5000)
ME = "GET /2.0/users/me"


def make(box, number=itertools.count()):
    return box.send("POST /2.0/folders", named(f"n{next(number)}"))


def count(box):
    return box.send("GET /2.0/folders/0/items").at("total_count")


def test_an_answer_in_place_of_boxs(box):
    for fault, status, body, header, value in [
            ({"status": 429, "headers": {"Retry-After": "2"}}, 429, b"", "Retry-After", "2"),
            ({"status": 502, "html": "<html>Bad"}, 502, b"<html>Bad", "Content-Type", "text/html"),
            ({"status": 200, "body": {"a": [1]}}, 200, b'{"a":[1]}', "Content-Type", "application/json"),
            ({"status": 200, "text": '{"cut'}, 200, b'{"cut', "Content-Type", "text/plain"),
            ({"code": "unavailable", "headers": {"Retry-After": 30}}, 503, b'{"type":"error","status":503,',
             "Retry-After", "30"),
            ({"code": "rate_limit_exceeded", "empty": True}, 429, b"", "Content-Type", None),
            ({"status": 401, "empty": True, "headers": {"WWW-Authenticate": "Bearer"}}, 401, b"", "WWW-Authenticate",
             "Bearer")]:
        box.fault(**fault)
        answer = box.send(ME)
        assert (answer.status, answer.headers[header]) == (status, value), fault
        assert answer.body.startswith(body) and bool(answer.body) == bool(body)
        assert box.all_faults_used(), fault
        assert box.send(ME).status == 200, f"once only: {fault}"


def test_faults_choose_their_requests(box):
    for fault in [{"method": "POST", "path": "/2.0/folders", "nth": 2, "times": 2, "status": 500},
                  {"path": "/2.0/folders/*", "query": "fields=id", "status": 502, "times": 0},
                  {"path": "/2.0/users/**", "status": 503, "for_ms": 0},
                  {"path": "/2.0/users/**", "status": 504, "probability": 0}]:
        box.fault(**fault)
    assert [make(box).status for _ in range(4)] == [201, 500, 500, 201]
    assert [box.send("GET /2.0/folders/0?fields=id").status for _ in range(3)] == [502] * 3
    box.check(("other query", "GET /2.0/folders/0", "", 200),
              ("* does not cross a slash", "GET /2.0/folders/0/items?fields=id", "", 200),
              ("none is due", ME, "", 200),
              ("counted", "GET /_emulator/faults", "", 200, "0.matched=4|0.used=2|3.used=0"))
    assert not box.all_faults_used()
    box.check(("clear", "DELETE /_emulator/faults", "", 204), ("cleared", "GET /2.0/folders/0?fields=id", "", 200))


def test_what_is_stored_and_then_fails(box):
    for fault, status, there in [({"status": 500, "store": True}, 500, "1"),
                                 ({"cut_before_answer": True, "store": True}, 0, "2"),
                                 ({"cut_before_answer": True}, 0, "2")]:
        box.fault(method="POST", **fault)
        assert (make(box).status, count(box)) == (status, there), fault


def test_cuts_where_they_are_said_to_be(box):
    file = box.file("f", CONTENT)
    box.fault(path="/d/1/*/download", cut_answer_after=1234)
    cut = box.fetch(file)
    assert (cut.status, cut.whole, cut.body) == (200, False, CONTENT[:1234])
    box.fault(path="/api/2.0/files/content", cut_request_after=1000)
    assert box.upload(named("g"), CONTENT).status == 0
    assert count(box) == "1" and box.all_faults_used()


def test_faults_take_their_time(box):
    file = box.file("f", CONTENT)
    for fault in ({"delay_ms": 80}, {"piece_bytes": 1000, "piece_delay_ms": 20}):
        box.fault(path="/d/1/*/download", **fault)
        start = time.monotonic()
        assert box.fetch(file).body == CONTENT
        assert time.monotonic() - start >= 0.08, fault
    box.fault(path="/2.0/users/me", hang=True)
    with Connection(box) as waiting:
        waiting.send(box.bytes_of(ME))
        while not box.all_faults_used():
            time.sleep(0.001)
        assert box.send(ME).status == 200, "a request that hangs holds up nobody, not even the end of the program"
        assert box.stop() == 0


def test_settings_for_one_request(box):
    taken = ("POST /2.0/folders", named("taken"))
    box.send(*taken)
    box.fault(method="POST", settings={"conflict_on_create": "object"})
    box.send(*taken).expect("context_info.conflicts.name=taken")
    box.send(*taken).expect("context_info.conflicts.0.name=taken")


def test_faults_come_from_a_file(tmp_path):
    (tmp_path / "faults.json").write_text(json.dumps([{"path": "/2.0/folders/0", "status": 503}]))
    box = EmulatedBox(tmp_path, "--faults", tmp_path / "faults.json")
    assert box.send("GET /2.0/folders/0").status == 503
    assert box.stop() == 0


@pytest.mark.parametrize("bad", ["7", '{"statsu":500}', '{"settings":{"x":1}}', "[{}"])
def test_bad_faults_are_refused(box, bad):
    assert box.send("POST /_emulator/faults", bad).status == 400
