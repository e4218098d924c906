"""The consent page: who signs in, where the answer goes, and what the code is good for."""

import urllib.parse

import pytest
from oauth_app import NAME, REDIRECT, App, Page, same

BOX_ARGUMENTS = ("--account", "bob:bob-token", "--password", "bob:open & shut")
ME = "GET /2.0/users/me"


@pytest.fixture
def app(box):
    registered = App(box)
    registered.register()
    return registered


def test_a_person_signs_in_on_a_page(box, app):
    page = Page(box.send("GET " + app.address(state="a%26b"), token=""))
    assert {"login", "password", "grant", "deny"} <= page.ids.keys() and "error" not in page.ids
    assert NAME in page.text and not {"b", "script"} & page.tags
    for login, password, consent, status, text in [
            ("alice", "wrong", "grant", 403, "Wrong"), ("nobody", "nobody", "grant", 403, "Wrong"),
            ("bob", "bob", "grant", 403, "Wrong"), ("bob@example.org", "open & shut", "grant", 403, "Wrong"),
            ('"><script>', "x", "grant", 403, "Wrong"), ("", "x", "grant", 400, "needed"),
            ("alice", "", "grant", 400, "needed"), ("alice", "alice", "", 400, "needed"),
            ("x" * 321, "x", "grant", 400, "too long"), ("alice", "x" * 321, "grant", 400, "too long"),
            ("alice", "x" * 70_000, "grant", 413, "too long")]:
        again = app.answer(login, password, consent)
        assert (again.status, again.headers["Location"]) == (status, None), (login, password)
        shown = Page(again)
        assert text in shown.text and "error" in shown.ids and "script" not in shown.tags
        assert status != 403 or shown.ids["login"]["value"] == login
    for login, password, name in [("alice", "alice", "alice"), ("alice@example.com", "alice", "alice"),
                                  ("bob", "open & shut", "bob")]:
        pair = app.sign_in(login=login, password=password)
        assert pair["token_type"] == "bearer" and 3590 <= pair["expires_in"] <= 3600
        box.send(ME, token=pair["access_token"]).expect(f"name={name}")


@pytest.mark.parametrize("consent, answer", [
    ("grant", "code="), ("deny", "error=access_denied&error_description=The+user+denied+access+to+your+application")])
def test_the_state_goes_back_as_it_came(app, consent, answer):
    queried = "https://example.com/back?x=1"
    for redirect, before in [(REDIRECT, REDIRECT + "?"), (queried, queried + "&")]:
        for state in ("a%26b+%2f", "%0D%0AX:%20y", "~=", "x" * 2000):
            reply = app.answer(password="alice" if consent == "grant" else "", consent=consent,
                               address=app.address(redirect_uri=redirect, state=state))
            assert reply.status == 302 and reply.headers["X"] is None
            assert reply.headers["Location"].startswith(before + answer)
            assert reply.headers["Location"].endswith("&state=" + state)
    assert "state" not in app.answer(password="alice", consent=consent).headers["Location"]


def test_nobody_is_sent_to_an_address_that_is_not_registered(box, app):
    app.register(redirect_uris=["http://127.0.0.1/callback", "http://[::1]/c?x=1", "http://localhost:80/c",
                                "https://example.com/back?x=1", "https://127.0.0.1/secure"])
    for redirect, taken in [
            ("http://127.0.0.1/callback", True), ("http://127.0.0.1:1/callback", True),
            ("http://127.0.0.1:65535/callback", True), ("http://[::1]:8/c?x=1", True), ("http://localhost:81/c", True),
            ("http://localhost/c", True), ("https://example.com/back?x=1", True),
            ("http://127.0.0.1:65536/callback", False), ("http://127.0.0.1:/callback", False),
            ("http://127.0.0.1:+1/callback", False), ("http://127.0.0.1:8/callback/", False),
            ("http://127.0.0.1:8/Callback", False), ("http://127.0.0.1:8/callback?x", False),
            ("http://127.0.0.1:8/callback#f", False), ("http://127.0.0.1:8@example.com/callback", False),
            ("http://127.0.0.1.example.com/callback", False), ("http://127.0.0.2/callback", False),
            ("http://localhost/callback", False), ("https://127.0.0.1/callback", False),
            ("https://127.0.0.1:9/secure", False), ("http://[::1]:8/c?x=2", False),
            ("https://example.com:444/back?x=1", False), ("https://example.com/back", False),
            ("http://127.0.0.1:8/callback\r\nX: y", False), ("", False), ("callback", False)]:
        for reply in (app.answer(consent="deny", address=app.address(redirect_uri=redirect)),
                      box.send("GET " + app.address(redirect_uri=redirect), token="")):
            assert taken or (reply.status == 400 and "error" in Page(reply).ids), redirect
            assert taken or reply.headers["Location"] is None, redirect
        assert not taken or reply.status == 200, redirect
    for more in ({"client_id": "other"}, {"client_id": None}, {"client_id": ""}, {"redirect_uri": None}):
        reply = box.send("GET " + app.address(**more), token="")
        assert reply.status == 400 and reply.headers["Location"] is None and "error" in Page(reply).ids, more
    app.register(redirect_uris=[REDIRECT])
    assert app.answer(address=app.address(redirect_uri=None)).headers["Location"].startswith(REDIRECT + "?code=")
    refused = box.send("GET " + app.address(response_type="token"), token="").headers["Location"]
    assert refused.startswith(REDIRECT + "?error=unsupported_response_type&")


def test_a_code_is_good_once_for_its_app_and_half_a_minute(box, app):
    other = App(box, "other")
    other.register()
    grant = "authorization_code"
    lost = "invalid_grant: Auth code doesn't exist or is invalid for the client"
    late = "invalid_grant: The authorization code has expired"
    code = app.code()
    assert other.token(grant, 400, code=code) == app.token(grant, 400, code="x") == app.token(grant, 400) == lost
    assert "redirect_uri" in app.token(grant, 400, code=code, redirect_uri="http://127.0.0.1:4001/callback")
    app.token(grant, code=code, redirect_uri=REDIRECT)
    assert app.token(grant, 400, code=code) == late
    code = app.code()
    box.set(clock_offset_s=31)
    assert app.token(grant, 400, code=code) == late


def test_a_box_without_apps_takes_any_client(box):
    app = App(box, "anybody", "anything")
    pair = app.sign_in(address=app.address(redirect_uri="http://anywhere.example:7/x"))
    assert app.renew(pair, 400, client_secret="") == "invalid_client: The client credentials are invalid"
    assert App(box, "somebody").renew(pair, 400) == "invalid_grant: Invalid refresh token"
    assert same(app.renew(pair), app.renew(pair, client_secret="else"))
    box.set(consent="at_once")
    for more, name in [({}, "alice"), ({"user": "bob"}, "bob")]:
        back = box.send("GET " + app.address(state="s", **more), token="").headers["Location"]
        code = urllib.parse.parse_qs(back.split("?")[1])["code"][0]
        token = app.token("authorization_code", code=code)["access_token"]
        box.send(ME, token=token).expect(f"name={name}")
    assert box.send("GET " + app.address(user="nobody"), token="").status == 400
