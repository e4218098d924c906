"""Distance, rates, troubles by chance, and what a Box is late with."""

import concurrent.futures
import json
import time

import pytest
from emulated_box import Connection, EmulatedBox, digest_of, named
from local import pattern

BOX_ARGUMENTS = ("--set", "chunked_minimum=1", "--set", "part_size=1000")
ME = "GET /2.0/users/me"
RATE = 4_000_000
SESSIONS = "/api/2.0/files/upload_sessions"


def taken(call):
    start = time.monotonic()
    call()
    return time.monotonic() - start


def stored(box):
    """Names in the root's listing with their sizes."""
    return {name: item["size"] for name, item in box.items().items()}


def open_session(box, parts, name="s"):
    answer = box.send(f"POST {SESSIONS}", json.dumps({"folder_id": "0", "file_size": 1000 * parts, "file_name": name}))
    return answer.at("id")


def put_part(box, session, number, parts):
    content = bytes([number]) * 1000
    span = f"bytes {number * 1000}-{number * 1000 + 999}/{parts * 1000}"
    return box.send(f"PUT {SESSIONS}/{session}", content, {"Digest": digest_of(content), "Content-Range": span}).status


@pytest.mark.parametrize("connections", [1, 4])
def test_a_connection_has_its_rate_both_ways(box, connections):
    box.set(connection_rate=RATE)
    content = pattern(RATE // 2)
    file = box.file("f", content)

    def both(number):
        up = taken(lambda: box.upload(named(f"n{number}"), content))
        return up, taken(lambda: box.fetch(file))

    with concurrent.futures.ThreadPoolExecutor() as pool:
        for up, down in pool.map(both, range(connections)):
            # Never faster; how much slower is for a machine to say that does nothing else.
            assert up > 0.48 and down > 0.48


def test_bytes_come_evenly(box):
    file = box.file("f", pattern(RATE // 2))
    url = box.send(f"GET /2.0/files/{file}/content").headers["Location"].removeprefix(box.base)
    box.set(download_connection_rate=RATE)
    with Connection(box) as connection:
        connection.send(box.bytes_of("GET " + url, token=""))
        start, came, most_ahead = time.monotonic(), 0, 0
        while came < RATE // 2:
            came += len(connection.socket.recv(65536))
            most_ahead = max(most_ahead, came - RATE * (time.monotonic() - start))
    assert most_ahead < RATE / 50, "never more than some hundredths of a second ahead of the rate"


def test_distance_is_by_kind_of_address(box):
    box.set(latency_ms=120, upload_latency_ms=0, download_latency_ms=0)
    file = box.file("f", b"x")
    assert taken(lambda: box.send(ME)) >= 0.12
    url = box.send(f"GET /2.0/files/{file}/content").headers["Location"].removeprefix(box.base)
    box.set(latency_ms=10_000, latency_jitter_ms=10_000, seed=3)
    assert taken(lambda: (box.upload(named("g"), b"x"), box.send("GET " + url, token=""))) < 5
    box.set(latency_ms=100, latency_jitter_ms=90)
    times = [taken(lambda: box.send(ME)) for _ in range(8)]
    assert max(times) - min(times) > 0.03 and min(times) > 0.01, times


def test_a_seed_fixes_what_chance_brings(box):
    box.fault(path="/2.0/folders/*", probability=0.5, times=0, status=418)

    def run(**settings):
        box.set(throttle_probability=0.2, unavailable_probability=0.2, cut_probability=0.1, **settings)
        return [box.send(ME).status for _ in range(40)]

    first, again, other = run(seed=7), run(seed=7), run(seed=8)
    assert first == again != other and {200, 429, 503, 0} <= set(first)
    assert box.call("GET", "/_emulator/settings")["seed"] == 8


def test_parts_meet_the_same_in_any_order(box):
    fates = []
    for order in (range(30), reversed(range(30))):
        box.set(seed=11, failure_probability=0)
        session = open_session(box, 30, f"s{len(fates)}")
        box.set(failure_probability=0.5)
        fates.append({number: put_part(box, session, number, 30) for number in order})
    assert fates[0] == fates[1] and set(fates[0].values()) == {200, 500}


@pytest.mark.parametrize("setting, status, kept", [
    ("throttle_probability", {429}, {0}), ("unavailable_probability", {503}, {0}),
    ("failure_probability", {500}, {0, 1}), ("part_answer_lost_probability", {0}, {1}), ("cut_probability", {0}, {0, 1})])
def test_troubles_of_parts(box, setting, status, kept):
    sessions = [open_session(box, 1, f"s{number}") for number in range(12)]
    box.set(**{setting: 1, "seed": 5, "trouble_on": "part"})
    assert {put_part(box, session, 0, 1) for session in sessions} == status
    counts = {int(box.send(f"GET {SESSIONS}/{session}/parts").at("total_count")) for session in sessions}
    assert counts == kept
    assert {row["fault"] for row in box.journal() if row["method"] == "PUT"} == {-1}


def test_downloads_are_cut_somewhere(box):
    content = pattern(5000)
    file = box.file("f", content)
    box.set(cut_probability=1, seed=2, trouble_on="download")
    cuts = [box.fetch(file) for _ in range(12)]
    assert all(not cut.whole and content.startswith(cut.body) for cut in cuts)
    assert len({len(cut.body) for cut in cuts}) > 3


def test_what_box_is_late_with(box):
    file = box.file("f", b"old")
    box.set(listing_lag_ms=700, content_pending_ms=700, name_reserved_ms=700)
    start = time.monotonic()
    box.folder("new")
    box.check(("new version", f"POST /api/2.0/files/{file}/content", NEW_VERSION, 201, "", FORM),
              ("by its id", f"GET /2.0/files/{file}?fields=size", "", 200, "size=6"))
    pending = box.send(f"GET /2.0/files/{file}/content")
    seen = stored(box)
    if time.monotonic() - start < 0.7:
        assert (pending.status, pending.headers["Retry-After"], seen) == (202, "1", {"f": 3})
    time.sleep(0.75)
    assert stored(box) == {"f": 6, "new": 0} and box.fetch(file).body == b"newest"
    start = time.monotonic()
    box.send(f"DELETE /2.0/files/{file}")
    refused = box.upload(named("F"), b"x")
    elsewhere = box.upload(named("F", box.items()["new"]["id"]), b"x").status
    if time.monotonic() - start < 0.7:
        assert refused.at("code") == "name_temporarily_reserved" and elsewhere == 201
    time.sleep(0.75)
    assert box.upload(named("F"), b"x").status == 201


FORM = {"Content-Type": "multipart/form-data; boundary=edge"}
NEW_VERSION = ('--edge\r\nContent-Disposition: form-data; name="attributes"\r\n\r\n{"name":"f"}\r\n--edge\r\n'
               'Content-Disposition: form-data; name="file"; filename="f"\r\n\r\nnewest\r\n--edge--\r\n')


def test_only_large_files_wait_at_their_commit(box):
    box.set(commit_pending_count=1, commit_pending_above=1500)
    for parts, status in ((1, 201), (2, 202)):
        session = open_session(box, parts, f"s{parts}")
        content = b"".join(bytes([number]) * 1000 for number in range(parts))
        assert {put_part(box, session, number, parts) for number in range(parts)} == {200}
        entries = json.loads(box.send(f"GET {SESSIONS}/{session}/parts").body)["entries"]
        done = box.send(f"POST {SESSIONS}/{session}/commit", json.dumps({"parts": entries}), {"Digest": digest_of(content)})
        assert done.status == status


def test_likenesses_are_settings(tmp_path):
    for likeness, own, wanted in [
            ("box", [], {"latency_ms": 150, "connection_rate": 30_000_000, "account_uploads_per_minute": 240}),
            ("box-on-a-bad-day", ["--set", "latency_ms=1"],
             {"latency_ms": 1, "latency_jitter_ms": 50, "cut_probability": 0.01, "listing_lag_ms": 1000})]:
        (tmp_path / likeness).mkdir()
        box = EmulatedBox(tmp_path / likeness, "--like", likeness, "--set", "trouble_on=", *own)
        assert wanted.items() <= box.call("GET", "/_emulator/settings").items()
        assert box.stop() == 0
