"""Direct uploads and downloads."""

import pytest
from emulated_box import FORM_TYPE, named
from local import form, pattern, sha1

BOX_ARGUMENTS = ("--set", "max_upload_size=100000", "--set", "space_amount=300000")
UPLOAD = "POST /api/2.0/files/content"


def test_ranges_are_exact(box):
    content = pattern(1000)
    file, empty = box.file("f", content), box.file("empty", b"")
    for span, status, first, count, told in [
            (None, 200, 0, 1000, None), ("bytes=0-0", 206, 0, 1, "0-0"), ("bytes=5-9", 206, 5, 5, "5-9"),
            ("bytes=999-", 206, 999, 1, "999-999"), ("bytes=0-99999", 206, 0, 1000, "0-999"),
            ("bytes=-3", 206, 997, 3, "997-999"), ("bytes=1000-", 416, 0, 0, "*"), ("bytes=-0", 416, 0, 0, "*"),
            ("bytes=9-5", 200, 0, 1000, None), ("bytes=0-1,5-6", 200, 0, 1000, None),
            ("lines=1-2", 200, 0, 1000, None)]:
        answer = box.fetch(file, span)
        assert (answer.status, answer.headers["Content-Range"]) == (status, told and f"bytes {told}/1000"), span
        assert status == 416 or answer.body == content[first:first + count], span
    assert (box.fetch(empty).status, box.fetch(empty).body) == (200, b"")
    assert box.fetch(empty, "bytes=0-").status == 416


def test_download_urls_belong_to_one_version_and_end(box):
    file = box.file("f", b"old")

    def path():
        url = box.send(f"GET /2.0/files/{file}/content").headers["Location"]
        return url, url[url.index("/d/"):]

    _, old = path()
    box.send(f"POST /api/2.0/files/{file}/content", form("{}", b"newer"), FORM_TYPE).expect("entries.0.etag=1")
    assert box.fetch(file).body == b"newer" and box.send(f"GET {old}", token="").body == b"old"
    assert box.send(f"HEAD {old}", token="bad").headers["Content-Length"] == "3", "a token there does no harm"
    box.set(download_lifetime_s=0, download_host="localhost")
    url, late = path()
    assert url.startswith(f"http://localhost:{box.port}/d/")
    expired = box.send(f"GET {late}", token="")
    assert (expired.status, expired.headers["Content-Type"]) == (404, "text/html")


def test_uploads_are_taken_as_clients_write_them(box):
    content = b"\r\n--edg\r\n--" + pattern(70_000) + b"\r\n--edg"
    made = box.send(f"{UPLOAD}/?fields=size,sha1,content_modified_at",
                    form(named("f", content_modified_at="2017-04-08T00:58:08Z"), content),
                    {**FORM_TYPE, "Transfer-Encoding": "chunked", "Content-MD5": sha1(content)})
    made.expect(f"total_count=1|entries.0.size={len(content)}|entries.0.sha1={sha1(content)}"
                "|entries.0.content_modified_at=2017-04-07T16:58:08-08:00")
    assert box.fetch(made.at("entries.0.id")).body == content


def test_the_boundary_may_fall_across_pieces(box):
    content = pattern(1000)
    for size in range(0, 1000, 5):
        made = box.upload(named(str(1000 + size)), content[:size], {"Transfer-Encoding": "chunked"})
        made.expect(f"entries.0.sha1={sha1(content[:size])}")


def test_refused_uploads_leave_nothing(box):
    good = form(named("f"), b"x")
    box.file("taken", b"12345")
    box.folder("folder")
    file_first = b'--edge\r\nContent-Disposition: form-data; name="file"; filename="f"\r\n\r\nx\r\n' + good
    rows = [
        ("file first", file_first, 400, "metadata_after_file_contents"),
        ("cut short", good[:-12], 400, "bad_request"),
        ("no file", good[:good.rindex(b"--edge\r\n")] + b"--edge--\r\n", 400, "bad_request"),
        ("no attributes", "--edge--\r\n", 400, "bad_request"),
        ("no boundary", good, 400, "bad_request", {"Content-Type": "multipart/form-data"}),
        ("digest", good, 400, "bad_digest", {**FORM_TYPE, "Content-MD5": sha1(b"y")}),
        ("name", form(named("a/b"), b"x"), 400, "item_name_invalid"),
        ("parent", form(named("f", "77"), b"x"), 404, "not_found"),
        ("time", form(named("f", content_created_at="yesterday"), b"x"), 400, "bad_request"),
        ("taken", form(named("TAKEN"), b"x"), 409, "item_name_in_use|context_info.conflicts.sha1=" + sha1(b"12345")),
        ("taken by a folder", form(named("folder"), b"x"), 409, "item_name_in_use"),
        ("too large", form(named("f"), pattern(100_001)), 403, "file_size_limit_exceeded")]
    box.check(*((name, UPLOAD, body, status, f"code={code}", *(headers or [FORM_TYPE]))
                for name, body, status, code, *headers in rows),
              ("nothing used", "GET /2.0/users/me", "", 200, "space_used=5"),
              ("nothing new", "GET /2.0/folders/0/items", "", 200, "total_count=2"))
    assert box.upload(named("taken"), b"x").at("context_info.conflicts.file_version.id")


def test_storage_is_counted_and_ends(box):
    def store(name, size):
        reply = box.upload(named(name), bytes(size))
        return reply.status, reply.at("code")

    assert [store(name, 99_999)[0] for name in "abc"] == [201] * 3
    assert store("d", 4) == (403, "storage_limit_exceeded")
    assert store("d", 3)[0] == 201
    box.ids["a"] = box.find("/a")["id"]
    box.check(("delete", "DELETE /2.0/files/{a}", "", 204))
    assert store("e", 1)[0] == 403, "the trash counts"
    box.check(("purge", "DELETE /2.0/files/{a}/trash", "", 204))
    assert store("e", 1)[0] == 201


@pytest.mark.parametrize("name, size, answer", [
    ("free", 100_000, "upload_url={base}/api/2.0/files/content"), ("free", 100_001, "code=file_size_limit_exceeded"),
    ("taken", 1, "context_info.conflicts.name=taken")])
def test_a_preflight_tells_beforehand(box, name, size, answer):
    box.file("taken", b"x")
    box.send("OPTIONS /2.0/files/content/", named(name, size=size)).expect(answer.format(base=box.base))
