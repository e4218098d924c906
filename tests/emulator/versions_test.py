"""Versions of files: new ones by either way, those before them, and who may still overwrite what."""

import json

import pytest
from emulated_box import digest_of
from local import form, sha1

BOX_ARGUMENTS = ("--set", "chunked_minimum=1", "--set", "part_size=4", "--account", "bob:bob-token")
FORM = {"Content-Type": "multipart/form-data; boundary=edge"}
SESSIONS = "/api/2.0/files/upload_sessions"


@pytest.fixture(autouse=True)
def file(box):
    """"{f}" stands for a file of three versions: one, two, three."""
    file = box.file("f", b"one")
    for content in (b"two", b"three"):
        assert direct(box, file, content).status == 201
    box.ids = {"f": file, **dict(zip(("v2", "v1"), versions(box, file)))}
    return file


def direct(box, file, content, attributes='{"name":"f"}', **headers):
    headers = {name.replace("_", "-"): value for name, value in headers.items()}
    return box.send(f"POST /api/2.0/files/{file}/content", form(attributes, content), {**FORM, **headers})


def by_session(box, file, content, at="create", **headers):
    """`at`: the step that the headers go with. \\return the answer that ends it."""
    headers = {name.replace("_", "-"): value for name, value in headers.items()}
    made = box.send(f"POST /api/2.0/files/{file}/upload_sessions", json.dumps({"file_size": len(content)}),
                    headers if at == "create" else {})
    if made.status != 201:
        return made
    session, parts = made.at("id"), []
    for start in range(0, len(content), 4):
        piece = content[start:start + 4]
        span = f"bytes {start}-{start + len(piece) - 1}/{len(content)}"
        done = box.send(f"PUT {SESSIONS}/{session}", piece, {"Digest": digest_of(piece), "Content-Range": span})
        parts.append(json.loads(done.body)["part"])
    return box.send(f"POST {SESSIONS}/{session}/commit", json.dumps({"parts": parts}),
                    {"Digest": digest_of(content), **(headers if at == "commit" else {})})


def versions(box, file):
    page = json.loads(box.send(f"GET /2.0/files/{file}/versions").body)
    return [entry["id"] for entry in page["entries"]]


def content_of(box, file, version=""):
    url = box.send(f"GET /2.0/files/{file}/content?version={version}").headers["Location"].removeprefix(box.base)
    return box.send("GET " + url, token="").body


@pytest.mark.parametrize("store", [direct, by_session])
def test_a_new_version_keeps_the_file(box, file, store):
    box.send("POST /2.0/files/{f}/metadata/global/properties".format(f=file), '{"a":"b"}')
    box.send(f"PUT /2.0/files/{file}", '{"shared_link":{}}')
    before = box.send(f"GET /2.0/files/{file}?fields=shared_link,created_at").body
    made = store(box, file, b"fourth")
    made.expect(f"entries.0.id={file}|entries.0.etag=4|entries.0.sha1={sha1(b'fourth')}|entries.0.size=6")
    assert content_of(box, file) == b"fourth" and len(versions(box, file)) == 3
    after = json.loads(box.send(f"GET /2.0/files/{file}?fields=shared_link,created_at").body)
    assert {**after, "etag": None} == {**json.loads(before), "etag": None}
    box.check(("metadata", "GET /2.0/files/{f}/metadata/global/properties", "", 200, "a=b"),
              ("number", "GET /2.0/files/{f}?fields=version_number", "", 200, "version_number=4"))


@pytest.mark.parametrize("store", [direct, by_session, lambda *all, **more: by_session(*all, at="commit", **more)])
def test_a_version_goes_onto_the_one_it_knows(box, file, store):
    assert (store(box, file, b"late", If_Match="1").at("code"), content_of(box, file)) == ("precondition_failed", b"three")
    assert store(box, file, b"good", If_Match="2").status == 201
    assert store(box, file, b"quoted", If_Match='"3"').status == 201
    box.send(f"DELETE /2.0/files/{file}")
    assert store(box, file, b"gone").at("code") == "trashed"


def test_attributes_may_be_left_out(box, file):
    body = '--edge\r\nContent-Disposition: form-data; name="file"; filename="x"\r\n\r\nbare\r\n--edge--\r\n'
    box.check(("bare", f"POST /api/2.0/files/{file}/content", body, 201, "entries.0.name=f|entries.0.size=4", FORM),
              ("not for a new file", "POST /api/2.0/files/content", body, 400, "", FORM))


def test_earlier_versions(box, file):
    box.check(
        ("list", "GET /2.0/files/{f}/versions", "", 200,
         f"total_count=2|entries.0.id={{v2}}|entries.0.sha1={sha1(b'two')}|entries.1.version_number=1"),
        ("paged", "GET /2.0/files/{f}/versions?limit=1&offset=1", "", 200, "total_count=2|entries.0.id={v1}"),
        ("one", "GET /2.0/files/{f}/versions/{v1}", "", 200, "type=file_version|size=3|trashed_at=null"),
        ("of another file", f"GET /2.0/files/{box.file('g', b'x')}/versions/{{v1}}", "", 404, "code=not_found"),
        ("promote", "POST /2.0/files/{f}/versions/current", '{"type":"file_version","id":"{v1}"}', 201,
         f"sha1={sha1(b'one')}|version_number=4"))
    assert content_of(box, file) == b"one" and content_of(box, file, box.ids["v2"]) == b"two"
    box.check(
        ("stale", "DELETE /2.0/files/{f}/versions/{v2}", "", 412, "", {"If-Match": "2"}),
        ("delete", "DELETE /2.0/files/{f}/versions/{v2}", "", 204),
        ("no content any more", "GET /2.0/files/{f}/content?version={v2}", "", 404),
        ("not promoted", "POST /2.0/files/{f}/versions/current", '{"type":"file_version","id":"{v2}"}', 404, "code=trashed"),
        ("taken back", "PUT /2.0/files/{f}/versions/{v2}", '{"trashed_at":null}', 200, "trashed_at=null"),
        ("the first shares its bytes", "DELETE /2.0/files/{f}/versions/{v1}", "", 204),
        ("away with all", "DELETE /2.0/files/{f}", "", 204), ("purged", "DELETE /2.0/files/{f}/trash", "", 204),
        ("but the other file nothing is left", "GET /2.0/users/me?fields=space_used", "", 200, "space_used=1"))


def test_a_lock_keeps_others_out(box, file):
    bob = json.loads(box.send("GET /2.0/users/me", token="bob-token").body)["id"]
    folder = box.folder("shared")
    box.send("POST /2.0/collaborations", json.dumps({
        "item": {"type": "folder", "id": folder}, "accessible_by": {"type": "user", "id": bob}, "role": "editor"}))
    shared = box.file("s", b"x", folder)
    version = form('{"name":"s"}', b"bob's")
    assert box.send(f"POST /api/2.0/files/{shared}/content", version, FORM, token="bob-token").status == 201
    locked = box.send(f"PUT /2.0/files/{shared}?fields=lock", '{"lock":{"type":"lock","is_download_prevented":false}}')
    locked.expect("lock.type=lock|lock.created_by.name=alice")
    for request, body in [(f"POST /api/2.0/files/{shared}/content", version), (f"DELETE /2.0/files/{shared}", ""),
                          (f"PUT /2.0/files/{shared}", '{"name":"t"}'), (f"PUT /2.0/files/{shared}", '{"lock":null}')]:
        refused = box.send(request, body, FORM, token="bob-token")
        assert (refused.status, refused.at("code")) == (403, "access_denied_item_locked"), request
    assert direct(box, shared, b"alice's", '{"name":"s"}').status == 201
    box.send(f"PUT /2.0/files/{shared}?fields=lock", '{"lock":null}').expect("lock=null")
    assert box.send(f"POST /api/2.0/files/{shared}/content", version, FORM, token="bob-token").status == 201
