"""Paging through folders, by markers and by offsets."""

import json
import urllib.parse

import pytest

ITEMS = "GET /2.0/folders/0/items?"


def names_of(answer):
    return [entry["name"] for entry in json.loads(answer.body)["entries"]]


def page(box, limit, marker="", folder="0"):
    """The names of a page behind a marker, and the next marker: "" at the end."""
    query = urllib.parse.urlencode({"fields": "name", "usemarker": "true", "marker": marker, "limit": limit})
    answer = box.send(f"GET /2.0/folders/{folder}/items?{query}")
    assert answer.status == 200, answer
    return names_of(answer), answer.at("next_marker").replace("null", "")


def every_page(box, limit, folder="0"):
    pages, marker = [], ""
    while not pages or marker:
        names, marker = page(box, limit, marker, folder)
        pages.append(names)
    return pages


def test_every_limit_gives_all_items_once_and_in_order(box):
    folder = box.folder("many")
    box.fill(folder, 2500, 10)
    expected = sum(every_page(box, 1000, folder), [])
    assert len(set(expected)) == 2500 and expected == sorted(expected)
    # A limit above 1000 counts as 1000, and no empty page stands behind a full last one.
    for limit, count in [(7, 358), (250, 10), (833, 4), (999, 3), (1000, 3), (2499, 3)]:
        pages = every_page(box, limit, folder)
        assert (sum(pages, []), len(pages)) == (expected, count), limit
    assert box.call("GET", "/2.0/users/me")["space_used"] == 25000


def test_order_is_by_kind_then_name_without_case(box):
    for name in "bDa":
        box.folder(name)
    for name in ("C.txt", "a.txt", "B.txt"):
        box.file(name, b"x")
    assert every_page(box, 2) == [["a", "b"], ["D", "a.txt"], ["B.txt", "C.txt"]]


def test_items_added_and_removed_while_paging_do_not_disturb_the_rest(box):
    ids = [box.file(name, b"x") for name in "bdfh"]
    names, marker = page(box, 2)
    assert names == ["b", "d"]
    box.call("DELETE", f"/2.0/files/{ids[1]}")
    box.file("a", b"x")
    assert page(box, 2, marker) == (["f", "h"], "")


def test_offsets_count_and_sort(box):
    for name in "cab":
        box.file(name, b"x" * (9 if name == "a" else 1))
    second = box.send(ITEMS + "offset=1&limit=1").expect("total_count=3|offset=1|order.1.by=name")
    assert names_of(second) == ["b"]
    assert names_of(box.send(ITEMS + "sort=name&direction=DESC")) == ["c", "b", "a"]
    assert names_of(box.send(ITEMS + "sort=size&direction=DESC&limit=1")) == ["a"]
    assert box.send(ITEMS + "offset=10000").status == 400


@pytest.mark.parametrize("style, value", [("null", "null"), ("empty", ""), ("missing", "")])
def test_the_last_marker_comes_in_three_styles(box, style, value):
    box.set(next_marker=style)
    last = box.send(ITEMS + "usemarker=true").expect(f"next_marker={value}|total_count=")
    assert (b"next_marker" in last.body) == (style != "missing")
