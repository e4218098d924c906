"""What several users share: folders by invitation, items by link, and tokens that may do less than their user."""

import json
import threading
import time
import urllib.parse

import pytest
from emulated_box import named
from local import form

BOX_ARGUMENTS = ("--set", "chunked_minimum=1", "--account", "bob:bob-token")
FORM = {"Content-Type": "multipart/form-data; boundary=edge"}
EXCHANGE = {"grant_type": "urn:ietf:params:oauth:grant-type:token-exchange", "client_id": "c", "client_secret": "s",
            "subject_token_type": "urn:ietf:params:oauth:token-type:access_token"}


@pytest.fixture(autouse=True)
def ids(box):
    """"{d}" stands for alice's folder /top/d, "{f}" for the file in it, "{o}" for her file /o."""
    top = box.folder("top")
    folder = box.folder("d", top)
    box.ids = {"top": top, "d": folder, "f": box.file("f.txt", b"12345", folder), "o": box.file("o", b"1")}


def as_bob(box, request, body="", headers=None, token="bob-token"):
    return box.send(box.with_ids(request), box.with_ids(body), headers, token=token)


def invite(box, role, item="{d}", kind="folder"):
    made = box.send("POST /2.0/collaborations", box.with_ids(json.dumps({
        "item": {"type": kind, "id": item}, "accessible_by": {"type": "user", "login": "bob@example.com"}, "role": role})))
    assert made.status == 201, made
    return made.at("id")


def outcomes(box, token="bob-token"):
    """The status of each kind of access to the folder and its file."""
    part = json.dumps({"folder_id": "{d}", "file_size": 5, "file_name": "p"})
    return {name: as_bob(box, request, body, headers, token).status for name, request, body, headers in [
        ("see", "GET /2.0/folders/{d}/items", "", None),
        ("download", "GET /2.0/files/{f}/content", "", None),
        ("upload", "POST /api/2.0/files/content", form(box.with_ids(named(f"n{time.monotonic_ns()}", "{d}")), b"x"), FORM),
        ("session", "POST /api/2.0/files/upload_sessions", part, None),
        ("edit", "PUT /2.0/files/{f}", '{"description":"d"}', None),
        ("version", "POST /api/2.0/files/{f}/content", form("{}", b"12345"), FORM),
        ("outside", "GET /2.0/files/{o}", "", None)]}


NOTHING = {name: 404 for name in ("see", "download", "upload", "session", "edit", "version", "outside")}


@pytest.mark.parametrize("role, refused", [
    ("editor", ()), ("co-owner", ()), ("viewer", ("upload", "session", "edit", "version")),
    ("viewer uploader", ("edit", "version")), ("uploader", ("download", "edit", "version")),
    ("previewer", ("download", "upload", "session", "edit", "version"))])
def test_roles(box, role, refused):
    assert outcomes(box) == NOTHING
    collaboration = invite(box, role)
    good = {"see": 200, "download": 302, "upload": 201, "session": 201, "edit": 200, "version": 201, "outside": 404}
    assert outcomes(box) == {**good, **{name: 403 for name in refused}}
    assert as_bob(box, f"DELETE /2.0/collaborations/{collaboration}").status == 204
    assert outcomes(box) == NOTHING


def test_what_others_own_stands_in_the_root(box):
    invite(box, "editor")
    invite(box, "viewer", "{o}", "file")
    for query in ("", "?usemarker=true"):
        as_bob(box, "GET /2.0/folders/0/items" + query).expect(box.with_ids("entries.0.id={d}|entries.1.id={o}"))
    shown = as_bob(box, "GET /2.0/folders/{d}?fields=owned_by,parent,path_collection,has_collaborations,permissions")
    shown.expect("owned_by.name=alice|parent.id=0|path_collection.total_count=1|has_collaborations=true|"
                 "permissions.can_upload=true")
    as_bob(box, "GET /2.0/files/{f}?fields=path_collection").expect(box.with_ids("path_collection.entries.1.id={d}"))
    made = as_bob(box, "POST /2.0/folders", named("bob's", "{d}"))
    made.expect("owned_by.name=alice")
    own = as_bob(box, "POST /2.0/folders", named("own")).at("id")
    moved = as_bob(box, f"PUT /2.0/folders/{made.at('id')}", json.dumps({"parent": {"id": own}}))
    assert (moved.status, moved.at("code")) == (403, "access_denied_insufficient_permissions")
    assert as_bob(box, "POST /2.0/files/{f}/copy", json.dumps({"parent": {"id": own}})).at("owned_by.name") == "bob"
    box.check(("invited twice", "POST /2.0/collaborations", json.dumps({
        "item": {"type": "folder", "id": "{d}"}, "accessible_by": {"login": "bob@example.com"}, "role": "viewer"}),
               400, "code=user_already_collaborator"),
              ("of the folder", "GET /2.0/folders/{d}/collaborations", "", 200, "total_count=1|entries.0.role=editor"))


def test_shared_links(box):
    made = box.check(("made", "PUT /2.0/files/{f}?fields=shared_link", '{"shared_link":{"access":"open","password":"p w"}}', 200,
                      "shared_link.access=open|shared_link.is_password_enabled=true|shared_link.unshared_at=null"))
    url = made.at("shared_link.url")
    for link, password, status in [(url, "p w", 200), (urllib.parse.quote(url, safe=""), "p%20w", 200), (url, "x", 404),
                                   (url + "x", "p w", 404)]:
        answer = as_bob(box, "GET /2.0/shared_items", "", {"BoxApi": f"shared_link={link}&shared_link_password={password}"})
        assert answer.status == status, (link, password)
    box.check(("over", "PUT /2.0/files/{f}?fields=shared_link", '{"shared_link":null}', 200, "shared_link=null"))
    assert as_bob(box, "GET /2.0/shared_items", "", {"BoxApi": f"shared_link={url}&shared_link_password=p w"}).status == 404


def test_what_is_not_kept_is_refused(box):
    box.check(*((f"{request} {body}", request, body, 400, "code=invalid_parameter") for request, body in [
        ("PUT /2.0/files/{f}", '{"disposition_at":"2030-01-01T00:00:00Z"}'), ("PUT /2.0/folders/{d}", '{"sync_state":"synced"}'),
        ("POST /2.0/folders", '{"name":"n","parent":{"id":"0"},"folder_upload_email":{"access":"open"}}'),
        ("PUT /2.0/files/{f}", '{"shared_link":{"colour":"red"}}'), ("GET /2.0/search?query=f&size_range=1,2", ""),
        ("POST /2.0/comments", '{"message":"m","item":{"type":"file","id":"{f}"},"pinned":true}')]))


def test_tokens_of_less(box):
    def exchange(**more):
        fields = {**EXCHANGE, "subject_token": box.token, **more}
        return box.send("POST /oauth2/token", urllib.parse.urlencode(fields), token="")

    made = exchange(scope="item_download base_upload", resource=box.with_ids("https://api.box.com/2.0/folders/{d}"))
    made.expect(box.with_ids("restricted_to.0.scope=item_download|restricted_to.0.object.id={d}|token_type=bearer"))
    token = made.at("access_token")
    assert outcomes(box, token) == {"see": 200, "download": 302, "upload": 201, "session": 201, "edit": 403, "version": 403,
                                    "outside": 403}
    assert as_bob(box, "GET /2.0/search?query=f", token=token).at("code") == "insufficient_scope"
    wider = exchange(subject_token=token, scope="root_readwrite").at("access_token")
    assert outcomes(box, wider)["edit"] == 403, "an exchange gives no more than there was"
    exchange(scope="everything").expect("error=invalid_scope")
    exchange(subject_token="x", scope="item_download").expect("error=invalid_grant")


def test_events_and_waiting_for_them(box):
    start = box.send("GET /2.0/events?stream_position=now").at("next_stream_position")
    url = box.send("OPTIONS /2.0/events").at("entries.0.url").removeprefix(box.base)
    answers = []
    waiting = threading.Thread(target=lambda: answers.append(
        box.send(f"GET {url}&stream_position={start}", token="").at("message")))
    waiting.start()
    time.sleep(0.2)
    assert not answers
    box.send(box.with_ids("PUT /2.0/files/{f}"), '{"name":"g.txt"}')
    waiting.join(30)
    assert answers == ["new_change"]
    box.send(box.with_ids("DELETE /2.0/files/{o}"))
    box.check(("both", f"GET /2.0/events?stream_position={start}", "", 200,
               "chunk_size=2|entries.0.event_type=ITEM_RENAME|entries.0.source.id={f}|entries.1.event_type=ITEM_TRASH"),
              ("one", f"GET /2.0/events?limit=1&stream_position={start}", "", 200, "chunk_size=1"))
    invite(box, "editor")
    as_bob(box, "POST /2.0/folders", named("n", "{d}"))
    box.send(f"GET /2.0/events?stream_position={start}").expect("entries.2.created_by.name=bob")


def test_search_finds_names(box):
    box.check(
        ("case", "GET /2.0/search?query=F.T", "", 200, "total_count=1|entries.0.id={f}|type=search_results_items"),
        ("extension", "GET /2.0/search?query=f&file_extensions=txt,md", "", 200, "total_count=1"),
        ("type", "GET /2.0/search?query=o&type=folder", "", 200, "total_count=1|entries.0.id={top}"),
        ("below", "GET /2.0/search?query=o&ancestor_folder_ids={top}", "", 200, "total_count=0"))


def test_metadata_of_the_enterprise(box):
    fields = [{"type": "string", "key": "a"}, {"type": "float", "key": "n"},
              {"type": "enum", "key": "e", "options": [{"key": "x"}, {"key": "y"}]}]
    place = "/2.0/files/{f}/metadata/enterprise/plan"
    box.check(
        ("no template yet", f"POST {place}", '{"a":"b"}', 404),
        ("template", "POST /2.0/metadata_templates/schema", json.dumps({
            "scope": "enterprise", "templateKey": "plan", "displayName": "Plan", "fields": fields}), 201, "scope=enterprise_1"),
        *((f"value {body}", f"POST {place}", body, 400, "code=schema_validation_failed")
          for body in ('{"b":"c"}', '{"a":1}', '{"n":"1"}', '{"e":"z"}')),
        ("instance", f"POST {place}", '{"a":"b","n":1.5,"e":"x"}', 201, "n=1.5|$template=plan"),
        ("second template", "POST /2.0/files/{f}/metadata/global/properties", '{"k":"v"}', 201),
        ("all", "GET /2.0/files/{f}/metadata", "", 200, "entries.0.a=b|entries.1.k=v"),
        ("asked for", "GET /2.0/files/{f}?fields=metadata.enterprise.plan", "", 200, "metadata.enterprise_1.plan.e=x"),
        ("template away", "DELETE /2.0/metadata_templates/enterprise/plan/schema", "", 204),
        ("with its instances", "GET /2.0/files/{f}/metadata", "", 200, "entries.0.k=v"))
