"""What single requests answer: status, error bodies and the shapes of objects."""

import json

import pytest
from emulated_box import named
from local import sha1


@pytest.fixture(autouse=True)
def ids(box):
    """"{a}" stands for the id of the folder /a, "{b}" for /a/b, "{f}" for the file /a/f.txt, "{t}" for a trashed file."""
    a = box.folder("a")
    box.ids = {"a": a, "b": box.folder("b", a), "f": box.file("f.txt", b"12345", a), "t": box.file("gone", b"x")}
    box.check(("delete", "DELETE /2.0/files/{t}", "", 204))


def test_addresses_and_ids_are_refused_with_boxs_codes(box):
    box.check(
        ("unknown folder", "GET /2.0/folders/77/items", "", 404,
         "type=error|status=404|code=not_found|context_info.errors.0.name=folder|"
         "context_info.errors.0.message=Invalid value 'd_77'. 'folder' with value 'd_77' not found"),
        ("a folder's id as a file", "GET /2.0/files/9{a}", "", 404, "context_info.errors.0.name=item"),
        ("trashed", "GET /2.0/files/{t}/content", "", 404, "code=trashed"),
        ("id with letters", "GET /2.0/files/abc", "", 405, "code=method_not_allowed"),
        ("method", "PATCH /2.0/files/{f}", "", 405, "code=method_not_allowed"),
        ("unknown address", "GET /2.0/nothing", "", 404, "code=not_found"),
        ("limit", "GET /2.0/folders/0/items?limit=ten", "", 400, "code=invalid_limit"),
        ("marker without usemarker", "GET /2.0/folders/0/items?marker=x", "", 400, "code=invalid_parameter"),
        ("marker of nobody", "GET /2.0/folders/0/items?usemarker=true&marker=zz", "", 400, "code=bad_request"),
        ("root cannot be renamed", "PUT /2.0/folders/0", '{"name":"x"}', 403),
        ("root cannot be deleted", "DELETE /2.0/folders/0?recursive=true", "", 403),
        ("folder not empty", "DELETE /2.0/folders/{a}", "", 400, "code=folder_not_empty"),
        ("trash of an active item", "DELETE /2.0/files/{f}/trash", "", 404, "code=not_trashed"),
    )


def test_names_are_refused_as_box_refuses_them(box):
    x255 = "x" * 255
    rows = [
        ("no name", '{"parent":{"id":"0"}}', 400, "code=bad_request"),
        ("no parent", '{"name":"n"}', 400, "code=bad_request"),
        ("no JSON", "name=n", 400, "code=bad_request"),
        ("parent missing", named("n", "77"), 404, "context_info.errors.0.name=parent"),
        *((f"{name!r}", named(name), 400, "code=item_name_invalid") for name in ("a/b", "a\\b", "a\a", "..", "a ", "")),
        ("256 characters", named(x255 + "x"), 400, "code=item_name_too_long"),
        ("255 characters", named(x255), 201, "name=" + x255),
        ("255 characters of two bytes", named("ä" + x255[1:]), 201),
        ("taken by a folder", named("A"), 409,
         "code=item_name_in_use|context_info.conflicts.0.id={a}|context_info.conflicts.0.name=a"),
        ("taken beyond ASCII", named("Ä" + x255[1:]), 409),
    ]
    box.check(*((name, "POST /2.0/folders", *row) for name, *row in rows))


def test_updates_count_the_etag_and_look_at_it(box):
    file, stale = "PUT /2.0/files/{f}", {"If-Match": "0"}
    box.check(
        ("below itself", "PUT /2.0/folders/{a}", '{"parent":{"id":"{b}"}}', 400, "code=cyclical_folder_structure"),
        ("taken", file, '{"name":"B"}', 409, "code=item_name_in_use|context_info="),
        ("in case only", file, '{"name":"F.txt"}', 200, "name=F.txt|etag=1"),
        ("nothing changed", file, '{"name":"F.txt"}', 200, "etag=1"),
        ("stale etag", file, '{"name":"g"}', 412, "code=precondition_failed", stale),
        ("move with a stale etag", file, '{"parent":{"id":"{b}"}}', 200, "etag=2", stale),
        ("known etag", "GET /2.0/files/{f}", "", 304, "", {"If-None-Match": "2"}),
        ("fraction of a second", file, '{"content_modified_at":"2017-04-08T00:58:08.5Z"}', 400,
         "message=not a valid rfc 3339 formatted date"),
        ("before 1970", file, '{"content_modified_at":"1969-12-31T23:59:59Z"}', 400),
        ("30 February", file, '{"content_modified_at":"2017-02-30T00:00:00Z"}', 400),
        ("with an offset", file, '{"content_modified_at":"2017-04-08T02:58:08+02:00"}', 200,
         "content_modified_at=2017-04-07T16:58:08-08:00"),
    )


def test_the_fields_that_were_asked_for_are_shown(box):
    asked = "fields=type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties"
    file = box.check(("file", "GET /2.0/files/{f}/?" + asked, "", 200,
                      "parent.id={a}|size=5|metadata=null|sha1=" + sha1(b"12345")))
    assert len(json.loads(file.body)) == 9, "etag comes uncalled"
    folder = box.check(("folder", "GET /2.0/folders/{a}?fields=size%2Csha1%2Cunheard_of", "", 200, "size=5"))
    assert len(json.loads(folder.body)) == 4
    box.check(
        ("root", "GET /2.0/folders/0", "", 200,
         "id=0|parent=null|etag=null|modified_at=null|size=5|item_collection.total_count=1"),
        ("standard set", "GET /2.0/files/{f}", "", 200,
         "path_collection.total_count=2|path_collection.entries.1.id={a}|item_status=active|"
         "owned_by.login=alice@example.com"),
        ("user", "GET /2.0/users/me/", "", 200, "type=user|space_used=6|max_upload_size=5368709120"),
        ("user's fields", "GET /2.0/users/me?fields=name", "", 200, "name=alice|login="),
    )
    assert rb'avatar_url":"http:\/\/' in box.send("GET /2.0/users/me").body


@pytest.mark.parametrize("token, more", [
    ("", ""), ("wrong", ', error="invalid_token", error_description="The access token provided is invalid."')])
def test_a_token_is_needed(box, token, more):
    answer = box.send("GET /2.0/users/me", token=token)
    assert (answer.status, answer.body) == (401, b"")
    assert answer.headers["WWW-Authenticate"] == 'Bearer realm="Service"' + more
    assert box.send(f"GET /2.0/users/me?access_token={box.token}", token="").status == 200


def test_metadata_follow_the_item(box):
    at, patch = " /2.0/files/{f}/metadata/global/properties", {"Content-Type": "application/json-patch+json"}
    box.check(
        ("none yet", "GET" + at, "", 404, "code=instance_not_found|status="),
        ("patch of none", "PUT" + at, '[{"op":"add","path":"/k","value":"v"}]', 404, "code=instance_not_found", patch),
        ("not a text", "POST" + at, '{"k":1}', 400, "code=schema_validation_failed"),
        ("create", "POST" + at, '{"k":"v"}', 201, "k=v|$version=0|$parent=file_{f}"),
        ("create again", "POST" + at, '{"k":"v"}', 409, "code=conflict|type="),
        ("add, replace", "PUT" + at, '[{"op":"add","path":"/a~1b","value":"1"},{"op":"add","path":"/k","value":"w"}]',
         200, "a/b=1|k=w|$version=1", patch),
        ("all or nothing", "PUT" + at, '[{"op":"remove","path":"/k"},{"op":"replace","path":"/x","value":"1"}]', 409,
         "code=failed_json_patch_application", patch),
        ("test fails", "PUT" + at, '[{"op":"test","path":"/k","value":"v"}]', 409,
         "message=value differs from expectations", patch),
        ("move and copy", "PUT" + at, '[{"op":"move","from":"/k","path":"/m"},{"op":"copy","from":"/m","path":"/c"}]',
         200, "k=|m=w|c=w|$version=2", patch),
        ("add without value", "PUT" + at, '[{"op":"add","path":"/k"}]', 409, "message=value is missing", patch),
        ("move without from beside a member without a name", "PUT" + at,
         '[{"op":"add","path":"/","value":"e"},{"op":"move","path":"/m"}]', 409,
         "code=failed_json_patch_application|message=from is missing", patch),
        ("other content type", "PUT" + at, '[{"op":"remove","path":"/m"}]', 400, "code=bad_request"),
        ("after a rename", "PUT /2.0/files/{f}", '{"name":"g.txt"}', 200),
        ("inside the item", "GET /2.0/files/{f}?fields=metadata.global.properties", "", 200,
         "metadata.global.properties.m=w"),
        ("folder", "POST /2.0/folders/{a}/metadata/global/properties", '{"k":"v"}', 201, "$parent=folder_{a}"),
        ("delete", "DELETE" + at, "", 204),
        ("gone", "GET" + at, "", 404),
    )


def test_the_trash_keeps_and_gives_back(box):
    box.check(
        ("delete the tree", "DELETE /2.0/folders/{a}?recursive=true", "", 204),
        ("file went with it", "GET /2.0/files/{f}", "", 404, "code=trashed"),
        ("only what was deleted is listed", "GET /2.0/folders/trash/items?fields=item_status,path_collection", "", 200,
         "total_count=2|entries.0.item_status=trashed|entries.0.path_collection.entries.0.id=1"),
        ("name is free", "POST /2.0/folders", named("a"), 201),
        ("restore onto it", "POST /2.0/folders/{a}", "", 409, "code=item_name_in_use"),
        ("restore elsewhere", "POST /2.0/folders/{a}", '{"name":"a2"}', 201, "name=a2|size=5"),
        ("file is back", "GET /2.0/files/{f}", "", 200, "item_status=active"),
        ("copy", "POST /2.0/folders/{a}/copy", named("a3"), 201, "size=5"),
        ("purge", "DELETE /2.0/files/{t}/trash", "", 204),
        ("nothing left of it", "GET /2.0/files/{t}", "", 404, "code=not_found"),
        ("web link", "POST /2.0/web_links", named("w", url="https://example.com/x"), 201),
        ("stands last", "GET /2.0/folders/0/items", "", 200,
         "total_count=4|entries.3.type=web_link|entries.3.url=https://example.com/x"),
        ("delete the tree again", "DELETE /2.0/folders/{a}?recursive=true", "", 204),
        ("purge it", "DELETE /2.0/folders/{a}/trash", "", 204),
        ("file went with it", "GET /2.0/files/{f}", "", 404, "code=not_found"),
        ("only the copy counts", "GET /2.0/users/me", "", 200, "space_used=5"),
    )
    box.ids["n"] = box.file("now", b"x")
    box.set(trash=False)
    box.check(("without a trash", "DELETE /2.0/files/{n}", "", 204),
              ("gone at once", "GET /2.0/files/{n}", "", 404, "code=not_found"))


def test_locks_hold_for_their_time(box):
    box.check(("lock", "POST /_emulator/locks", '{"folder":"{a}","for_ms":60000}', 204),
              ("below it", "DELETE /2.0/folders/{b}", "", 409, "code=operation_blocked_temporary"),
              ("reserve", "POST /_emulator/locks", '{"name":"n","for_ms":60000}', 204),
              ("reserved", "POST /2.0/folders", named("n"), 409, "code=name_temporarily_reserved"),
              ("unlock", "DELETE /_emulator/locks", "", 204),
              ("free", "DELETE /2.0/folders/{b}", "", 204))
