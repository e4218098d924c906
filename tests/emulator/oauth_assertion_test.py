"""Signing in without a person: client credentials and JWT assertions, and the apps that may."""

import email.utils
import json
import subprocess
import time

import pytest
from emulated_box import EmulatedBox
from local import BUILD
from oauth_app import App, make_keys

ME = "GET /2.0/users/me"
REFUSED = "invalid_grant: Grant credentials are invalid"
JTI = "0123456789abcdef"


@pytest.fixture(scope="session")
def keys(tmp_path_factory):
    return make_keys(tmp_path_factory.mktemp("keys"))


@pytest.fixture
def app(box, keys):
    registered = App(box, keys=keys)
    registered.register()
    return registered


def test_client_credentials(box, app):
    def ask(kind, subject, expected=200):
        return app.token("client_credentials", expected, box_subject_type=kind, box_subject_id=subject)

    assert {ask(*row, 400) for row in [("user", "77"), ("user", "x"), ("user", ""), ("enterprise", "78"),
                                       ("enterprise", ""), ("", box.user_id)]} == {REFUSED}
    first, second = ask("user", box.user_id), ask("user", box.user_id)
    assert "refresh_token" not in first and first["access_token"] != second["access_token"]
    box.file("f", b"x")
    for pair in (second, first, second):
        box.send(ME, token=pair["access_token"]).expect("name=alice")
    assert app.revoke(first["access_token"]) == 200
    assert [box.send(ME, token=pair["access_token"]).status for pair in (first, second)] == [401, 200]
    services = [ask("enterprise", "77")["access_token"] for _ in range(2)]
    assert len({box.send(ME, token=token).at("id") for token in services} - {box.user_id}) == 1
    box.send("GET /2.0/folders/0/items", token=services[0]).expect("total_count=0")
    app.register(authorised=False)
    assert ask("user", box.user_id, 400).startswith("unauthorized_client: This app is not authorized")


def test_assertions_that_are_good(box, app):
    for more in [{}, {"header": {"alg": "RS384"}, "digest": "sha384"}, {"header": {"alg": "RS512"}, "digest": "sha512"},
                 {"header": {"kid": "k2"}, "key": "k2"}, {"aud": "https://api.box.com/oauth2/token"},
                 {"aud": ["x", box.base + "/oauth2/token"]}, {"jti": "j" * 16}, {"jti": "j" * 128},
                 {"exp": int(time.time()) + 3}]:
        pair = app.assert_jwt(**more)
        assert "refresh_token" not in pair
        box.send(ME, token=pair["access_token"]).expect("name=alice")
    service = app.assert_jwt(box_sub_type="enterprise", sub="77")["access_token"]
    box.send(ME, token=service).expect("name=AutomationUser_app")


def test_assertions_that_are_not(app):
    now = int(time.time())
    app.assert_jwt(jti=JTI)
    app.assert_jwt(400, jti="only spent by what is good", sub="77")
    for words, more in [
            ("signature", {"key": "stranger"}), ("signature", {"key": "k2"}), ("signature", {"digest": "sha384"}),
            ("signature", {"header": {"alg": "RS512"}}), ("signature", {"signature": b""}),
            ("signature", {"signature": b"x" * 256}), ("'kid'", {"header": {"kid": "k3"}}),
            ("'kid'", {"header": {"kid": None}}), ("'kid'", {"header": {"kid": 1}}),
            ("'alg'", {"header": {"alg": "none"}, "signature": b""}), ("'alg'", {"header": {"alg": "HS256"}}),
            ("'alg'", {"header": {"alg": None}}), ("'iss'", {"iss": "other"}), ("'iss'", {"iss": None}),
            ("'aud'", {"aud": "https://example.com/oauth2/token"}), ("'aud'", {"aud": None}), ("'aud'", {"aud": []}),
            ("'exp'", {"exp": now}), ("'exp'", {"exp": now + 70}), ("'exp'", {"exp": None}), ("'exp'", {"exp": "soon"}),
            ("'sub'", {"sub": None}), ("'box_sub_type'", {"box_sub_type": "app"}), (REFUSED, {"sub": "77"}),
            (REFUSED, {"box_sub_type": "enterprise"}), ("'jti'", {"jti": None}), ("'jti'", {"jti": "j" * 15}),
            ("'jti'", {"jti": "j" * 129}), ("'jti'", {"jti": JTI})]:
        answer = app.assert_jwt(400, **more)
        assert answer.startswith("invalid_grant: ") and words in answer, (more, answer)
        assert words == "'exp'" or "exp" not in answer, "clients try once more when they read this word"
    app.assert_jwt(jti="only spent by what is good")
    good = app.assertion()
    for broken in ["", "x", "a.b.c", good + ".", good.rsplit(".", 1)[0], good.replace(".", ".!", 1), "." + good]:
        assert "no JSON web token" in app.token("urn:ietf:params:oauth:grant-type:jwt-bearer", 400, assertion=broken)


def test_a_clock_that_is_wrong(box, app):
    for offset in (600, -600):
        box.set(clock_offset_s=offset)
        reply = app.post("/oauth2/token", grant_type="urn:ietf:params:oauth:grant-type:jwt-bearer",
                         assertion=app.assertion())
        assert reply.status == 400 and "'exp'" in reply.at("error_description")
        theirs = email.utils.parsedate_to_datetime(reply.headers["Date"]).timestamp()
        assert abs(theirs - time.time() - offset) < 5
        pair = app.assert_jwt(exp=int(theirs) + 45)
        assert 3590 <= pair["expires_in"] <= 3600 and box.send(ME, token=pair["access_token"]).status == 200


def test_apps_come_from_files(tmp_path, keys):
    def start(*documents):
        arguments = []
        for number, document in enumerate(documents):
            (tmp_path / f"{number}.json").write_text(json.dumps(document))
            arguments += ["--app", str(tmp_path / f"{number}.json")]
        return arguments

    plain, signing = App(None, "plain").registered(), App(None, "signing", keys=keys).registered()
    box = EmulatedBox(tmp_path, *start([plain, {**plain, "client_id": "third"}], signing))
    assert [App(box, name).sign_in()["token_type"] for name in ("plain", "third", "signing")] == ["bearer"] * 3
    assert App(box, "signing", keys=keys).assert_jwt() and "'kid'" in App(box, "plain", keys=keys).assert_jwt(400)
    assert App(box, "fourth").token("client_credentials", 400).startswith("invalid_client")
    assert box.stop() == 0
    short = {"kid": "k", "pem": (keys / "short.pub").read_text()}
    private = {"kid": "k", "pem": (keys / "k1.key").read_text()}
    for document, words in [
            (7, "must be an object"), ({**plain, "clientid": "x"}, "'clientid'"), ({"client_id": "x"}, "client_secret"),
            ({**plain, "redirect_uris": "http://h/"}, "arrays"), ({**plain, "redirect_uris": ["h"]}, "'h'"),
            ({**plain, "authorised": "no"}, "true or false"), ({**plain, "public_keys": [{"pem": "x"}]}, "kid"),
            ({**plain, "public_keys": [{"kid": "k", "pem": "x"}]}, "key k: "),
            ({**plain, "public_keys": [short]}, "2048"), ({**plain, "public_keys": [private]}, "PUBLIC KEY")]:
        ended = subprocess.run([BUILD / "bin/tarvex-box-emulator", "--data", tmp_path / "other", *start(document)],
                               capture_output=True, text=True)
        assert ended.returncode == 1 and words in ended.stderr and "0.json" in ended.stderr, (document, ended)
