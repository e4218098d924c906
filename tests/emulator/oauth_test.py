"""The token address: clients, renewal with and without grace, revoking, lost answers, what the journal keeps."""

import json
import urllib.parse

import pytest
from emulated_box import EmulatedBox
from oauth_app import App, same

BOX_ARGUMENTS = ("--account", "bob:bob-token", "--password", "bob:open & shut")
ME = "GET /2.0/users/me"
EXPIRED = "invalid_grant: Refresh token has expired"
INVALID = "invalid_grant: Invalid refresh token"


@pytest.fixture
def app(box):
    registered = App(box)
    registered.register()
    return registered


def use(box, pair, address=ME):
    """The status that a pair's access token gets."""
    return box.send(address, token=pair["access_token"]).status


def test_clients_that_are_none(box, app):
    unknown = "invalid_client: The client credentials are invalid"
    refused = "unauthorized_client: This app is not authorized by the enterprise admin"
    pair = app.sign_in()
    for name, form, expected in [
            ("wrong secret", {"client_secret": "wrong"}, unknown), ("no secret", {"client_secret": None}, unknown),
            ("another id", {"client_id": "b"}, unknown), ("no id", {"client_id": None}, unknown),
            ("another grant", {"grant_type": "password"},
             "unsupported_grant_type: The grant_type is missing or unknown")]:
        form = {"grant_type": "refresh_token", "refresh_token": pair["refresh_token"], **form}
        assert app.token(expected=400, **form) == expected, name
    assert app.post("/oauth2/revoke", token=pair["access_token"], client_secret="wrong").status == 400
    app.register(authorised=False)
    assert app.renew(pair, 400) == refused
    back = box.send("GET " + app.address(), token="").headers["Location"]
    assert urllib.parse.parse_qs(back.split("?")[1])["error_description"] == [refused.split(": ")[1]]
    app.register()
    box.send("POST /oauth2/token", f"grant_type=refresh_token&refresh_token={pair['refresh_token']}",
             {"Authorization": "Basic YXBwOnMzY3JldA=="}, token="").expect("token_type=bearer")


def test_a_renewal_can_be_asked_for_again_until_it_is_used(box, app):
    first = app.sign_in()
    again = [app.renew(first) for _ in range(3)]
    assert same(*again) and not same(first, again[0])
    box.set(clock_offset_s=100)
    later = app.renew(first)
    assert same(*again, later) and later["expires_in"] < again[0]["expires_in"]
    second = again[0]
    assert use(box, first) == 200, "the old access token lives until the new one is used"
    assert use(box, second, "GET /2.0/files/77") == 404, "a use is a use, whatever is answered"
    assert (use(box, first), use(box, second)) == (401, 200)
    assert app.renew(first, 400) == EXPIRED
    third = app.renew(second)
    fourth = app.renew(third)
    assert same(third, app.renew(second)) and [use(box, pair) for pair in (second, fourth)] == [200, 200]
    assert [use(box, pair) for pair in (second, third, fourth)] == [401, 401, 200]
    assert app.renew(second, 400) == app.renew(third, 400) == EXPIRED


def test_the_first_use_counts_at_every_host(box, app):
    file = box.file("f", b"x")
    link = box.send(f"GET /2.0/files/{file}/content").headers["Location"].removeprefix(box.base)
    for address in (ME, "POST /api/2.0/files/content", "GET " + link):
        old = app.sign_in()
        new = app.renew(old)
        assert box.send("GET " + link, token="neither").body == b"x"
        assert use(box, old) == 200
        use(box, new, address)
        assert (use(box, old), use(box, new)) == (401, 200), address


def test_without_grace_a_refresh_token_is_spent_at_once(tmp_path):
    box = EmulatedBox(tmp_path, "--refresh", "strict")
    app = App(box)
    first = app.sign_in()
    second = app.renew(first)
    assert app.renew(first, 400) == EXPIRED
    assert [use(box, pair) for pair in (first, second, first)] == [200, 200, 401]
    box.set(refresh="grace")
    third = app.renew(second)
    assert same(third, app.renew(second))
    assert box.stop() == 0


def test_renewals_and_grace_outlive_the_program(tmp_path):
    box = EmulatedBox(tmp_path)
    first = App(box).sign_in()
    second = App(box).renew(first)
    assert box.stop() == 0
    box = EmulatedBox(tmp_path)
    assert same(second, App(box).renew(first)) and use(box, first) == 200
    assert (use(box, second), use(box, first)) == (200, 401)
    assert box.stop() == 0


def test_tokens_run_out(box, app):
    box.set(access_token_lifetime_s=50, refresh_token_lifetime_s=500)
    first = app.sign_in()
    box.set(clock_offset_s=49)
    assert use(box, first) == 200
    box.set(clock_offset_s=51)
    answer = box.send(ME, token=first["access_token"])
    assert (answer.status, answer.body) == (401, b"")
    assert answer.headers["WWW-Authenticate"] == ('Bearer realm="Service", error="invalid_token", '
                                                  'error_description="The access token provided is invalid."')
    second = app.renew(first)
    box.set(clock_offset_s=110)
    assert app.renew(first)["expires_in"] == 0 and use(box, second) == 401
    box.set(clock_offset_s=499)
    third = app.renew(second)
    box.set(clock_offset_s=502)
    assert app.renew(first, 400) == EXPIRED
    box.set(clock_offset_s=1000)
    assert app.renew(third, 400) == EXPIRED and use(box, third) == 401
    assert box.send(ME).status == box.send(ME, token="bob-token").status == 200, "tokens of --account never run out"


@pytest.mark.parametrize("token", ["access_token", "refresh_token"])
def test_revoking_ends_one_sign_in(box, app, token):
    first, other = app.sign_in(), app.sign_in()
    second = app.renew(first)
    assert App(box, "app", "wrong").revoke(second[token]) == 400
    stranger = App(box, "stranger")
    stranger.register()
    assert stranger.revoke(second[token]) == 400 and use(box, first) == 200
    assert app.revoke(second[token]) == app.revoke(second[token]) == app.revoke("unknown") == 200
    assert use(box, first) == use(box, second) == 401
    assert app.renew(first, 400) == app.renew(second, 400) == INVALID
    assert use(box, other) == 200 and app.renew(other)
    later = app.renew(other)
    assert use(box, later) == 200
    assert app.revoke(other[token]) == 200 and use(box, later) == 200, "what has been replaced ends nothing"
    assert box.send(ME).status == 200


def test_answers_of_the_token_address_get_lost(box, app):
    first = app.sign_in()
    row = {"path": "/oauth2/token", "method": "POST"}
    for fault, status, whole in [({"cut_before_answer": True, "store": True}, 0, False),
                                 ({"cut_answer_after": 40}, 200, False), ({"status": 500, "store": True}, 500, True)]:
        old = app.sign_in()
        box.fault(**row, **fault, nth=1)
        reply = app.post("/oauth2/token", grant_type="refresh_token", refresh_token=old["refresh_token"])
        assert (reply.status, reply.whole) == (status, whole), fault
        assert len(reply.body) <= 40
        box.set(refresh="strict")
        assert app.renew(old, 400) == EXPIRED, "it was carried out"
        box.set(refresh="grace")
        new = app.renew(old)
        assert [use(box, pair) for pair in (new, old)] == [200, 401]
    for fault, status, length, retry in [
            ({"cut_before_answer": True}, 0, 0, None), ({"status": 200, "text": "x" * 2**20}, 200, 2**20, None),
            ({"status": 429, "empty": True, "headers": {"Retry-After": "7"}}, 429, 0, "7"),
            ({"code": "unavailable", "headers": {"Retry-After": "8"}}, 503, None, "8")]:
        box.fault(**row, **fault)
        reply = app.post("/oauth2/token", grant_type="refresh_token", refresh_token=first["refresh_token"])
        assert reply.status == status and len(reply.body) == (len(reply.body) if length is None else length), fault
        assert reply.headers.get("Retry-After") == retry
    box.set(refresh="strict")
    assert app.renew(first), "not one of these was carried out"
    assert box.all_faults_used()


def test_the_journal_counts_grants_and_keeps_no_secret(box, app):
    start = box.mark()
    code = app.code(login="bob", password="open & shut")
    pair = app.token("authorization_code", code=code)
    app.token("refresh_token", 400, refresh_token="marker-token", client_secret="marker-secret")
    app.token(pair["access_token"], 400)
    box.fault(path="/oauth2/token", status=503)
    app.token("refresh_token", 503, refresh_token=pair["refresh_token"])
    box.send(f"POST /oauth2/token?refresh_token={pair['refresh_token']}&code={code}&password=marker", "", token="")
    app.revoke(pair["refresh_token"])
    rows = box.journal(start)
    assert [(row["path"], row.get("grant"), row["status"]) for row in rows] == [
        ("/api/oauth2/authorize", None, 302), ("/oauth2/token", "authorization_code", 200),
        ("/oauth2/token", "refresh_token", 400), ("/oauth2/token", "unknown", 400),
        ("/oauth2/token", "refresh_token", 503), ("/oauth2/token", None, 400), ("/oauth2/revoke", None, 200)]
    for secret in (code, pair["access_token"], pair["refresh_token"], app.secret, "marker", "shut"):
        assert secret not in json.dumps(rows)
