"""Chunked uploads: sessions, parts, commits."""

import json

import pytest
from emulated_box import EmulatedBox, digest_of
from local import pattern, sha1

BOX_ARGUMENTS = ("--set", "part_size=1000", "--set", "chunked_minimum=1500", "--set", "max_upload_size=100000")
SESSIONS = "/api/2.0/files/upload_sessions"
CONTENT = pattern(2500)
DIGEST = digest_of(CONTENT[:1000])


def create(box, name, size):
    return box.send(f"POST {SESSIONS}", json.dumps({"folder_id": "0", "file_size": size, "file_name": name}))


def span(first, count, total=len(CONTENT)):
    return f"bytes {first}-{first + count - 1}/{total}"


def part(name, session, content, content_range, digest, status=200, members=""):
    headers = {"Content-Type": "application/octet-stream", "Content-Range": content_range, "digest": digest}
    return (name, f"PUT {SESSIONS}/{session}", content, status, members,
            {key: value for key, value in headers.items() if value})


def put(box, session, content, *firsts):
    """Puts the parts that begin there, all by default. \\return what the commit names them by."""
    parts = {}
    for first in firsts or range(0, len(content), 1000):
        own = content[first:first + 1000]
        row = part("part", session, own, span(first, len(own), len(content)), digest_of(own))
        parts[first] = json.loads(box.check(row).body)["part"]
    return [parts[first] for first in sorted(parts)]


def commit(box, session, parts, content):
    body = {"attributes": {"content_modified_at": "2017-04-08T00:58:08Z"}, "parts": parts}
    return box.send(f"POST {SESSIONS}/{session}/commit?fields=size,sha1,name,content_modified_at", json.dumps(body),
                    {"Digest": digest_of(content)})


@pytest.mark.parametrize("size, firsts", [(1500, [1000, 0]), (2000, []), (2001, [2000, 0, 1000]), (10_999, [])])
def test_what_was_put_is_stored(box, size, firsts):
    content = pattern(size)
    opened = create(box, "f", size)
    session = opened.at("id")
    opened.expect(f"num_parts_processed=0|total_parts={(size + 999) // 1000}"
                  f"|session_endpoints.commit={box.base}{SESSIONS}/{session}/commit")
    assert opened.status == 201 and opened.at("session_expires_at").endswith("Z")
    made = commit(box, session, put(box, session, content, *firsts), content)
    made.expect(f"entries.0.content_modified_at=2017-04-07T16:58:08-08:00|entries.0.sha1={sha1(content)}")
    assert made.status == 201 and box.fetch(made.at("entries.0.id")).body == content
    commit(box, session, [], content).expect("code=session_expired")


def test_creation_is_checked(box):
    box.file("taken", b"x")
    good = {"folder_id": "0", "file_size": 2000, "file_name": "n"}
    box.check(*((code, f"POST {SESSIONS}", json.dumps({key: value for key, value in {**good, **change}.items()
                                                       if value is not None}), status, f"code={code}")
                for change, status, code in [
                    ({"folder_id": None}, 400, "missing_destination"), ({"folder_id": "x"}, 400, "invalid_folder_id"),
                    ({"folder_id": "77"}, 404, "not_found"), ({"file_size": None}, 400, "missing_file_size"),
                    ({"file_size": -1}, 400, "invalid_file_size"), ({"file_size": 1499}, 400, "file_size_too_small"),
                    ({"file_size": 100_001}, 403, "file_size_limit_exceeded"),
                    ({"file_name": None}, 400, "missing_file_name"), ({"file_name": "a/b"}, 400, "item_name_invalid"),
                    ({"file_name": "Taken"}, 409, "item_name_in_use")]))
    create(box, "taken", 2000).expect("context_info.conflicts.name=taken")
    box.set(session_conflict=True)
    first = create(box, "n", 2000).at("id")
    create(box, "n", 2000).expect(f"context_info.session.id={first}")


def test_parts_are_checked(box):
    session = create(box, "f", len(CONTENT)).at("id")
    put(box, session, CONTENT, 1000)
    first, second, place = CONTENT[:1000], CONTENT[1000:2000], span(0, 1000)
    unfit, bad, own = "code=range_not_satisfiable", "code=bad_request", f" {SESSIONS}/{session}"
    box.check(
        part("there", session, second, span(1000, 1000), digest_of(second), 416, "code=range_overlaps_existing_part"),
        part("no multiple", session, first, span(500, 1000), DIGEST, 416, unfit),
        part("other total", session, first, span(0, 1000, 2501), DIGEST, 416, unfit),
        part("short part", session, first[1:], span(0, 999), digest_of(first[1:]), 416, unfit),
        part("body and range differ", session, first + b"x", place, DIGEST, 416, unfit),
        part("behind the end", session, first, span(3000, 1000), DIGEST, 416, unfit),
        part("digest of other bytes", session, first, place, digest_of(b"x"), 412, "code=precondition_failed"),
        part("no digest", session, first, place, "", 400, bad),
        part("digest not base64", session, first, place, "sha=?", 400, bad),
        part("no range", session, first, "", DIGEST, 400, bad),
        part("range is nonsense", session, first, "bytes=0-999/2500", DIGEST, 400, bad),
        part("no session id", "x", first, place, DIGEST, 400, "code=invalid_upload_session_id"),
        part("no such session", "A" * 32, first, place, DIGEST, 404),
        part("good after all refusals", session, first, place, "SHA=" + DIGEST[4:]),
        ("listed", f"GET{own}/parts?limit=1&offset=1", "", 200,
         "total_count=2|entries.0.offset=1000|entries.0.sha1=" + sha1(second)),
        ("counted", f"GET{own}", "", 200, "num_parts_processed=2"),
        ("abort", f"DELETE{own}", "", 204),
        part("aborted", session, first, place, DIGEST, 410))


def test_commits_are_checked(box):
    session = create(box, "f", len(CONTENT)).at("id")
    parts = put(box, session, CONTENT, 0)
    commit(box, session, parts, CONTENT).expect("code=parts_mismatch")
    parts += put(box, session, CONTENT, 1000, 2000)
    for wrong in (parts[:2], [*parts, {"part_id": "00000000", "offset": 0, "size": 1}]):
        commit(box, session, wrong, CONTENT).expect("code=parts_mismatch")
    commit(box, session, parts, b"other bytes").expect("code=digest_mismatch")
    assert box.send(f"POST {SESSIONS}/{session}/commit", "{}", {"Digest": digest_of(CONTENT)}).status == 400
    box.ids["taken"] = box.file("F", b"x")
    commit(box, session, parts, CONTENT).expect("code=item_name_in_use")
    box.check(("delete", "DELETE /2.0/files/{taken}", "", 204))
    assert commit(box, session, parts, CONTENT).status == 201, "the session has outlived all refusals"


def test_a_commit_may_have_to_wait(box):
    box.set(commit_pending_count=2, commit_retry_after_s=7)
    session = create(box, "f", len(CONTENT)).at("id")
    parts = put(box, session, CONTENT)
    for _ in range(2):
        waiting = commit(box, session, parts, CONTENT)
        assert (waiting.status, waiting.headers["Retry-After"], waiting.body) == (202, "7", b"")
    assert commit(box, session, parts, CONTENT).status == 201


def test_a_session_survives_a_restart(tmp_path):
    box = EmulatedBox(tmp_path, *BOX_ARGUMENTS)
    session = create(box, "f", len(CONTENT)).at("id")
    parts = put(box, session, CONTENT, 0)
    assert box.stop() == 0
    box = EmulatedBox(tmp_path, *BOX_ARGUMENTS)
    made = commit(box, session, parts + put(box, session, CONTENT, 1000, 2000), CONTENT)
    assert made.status == 201 and box.fetch(made.at("entries.0.id")).body == CONTENT
    assert box.stop() == 0


def test_a_session_puts_a_new_version(box):
    file = box.file("f", b"old")
    session = box.send(f"POST /api/2.0/files/{file}/upload_sessions", '{"file_size":2500}').at("id")
    made = commit(box, session, put(box, session, CONTENT), CONTENT)
    made.expect(f"entries.0.id={file}|entries.0.name=f|entries.0.etag=1")
    assert box.fetch(file).body == CONTENT
