"""The account commands against a local Box: who gets signed in, what is kept, and what is refused."""

import ftplib
import json
import signal
import socket
import subprocess

import pytest
from account_place import (APP, NAME, PASSWORD, PROGRAM, Place, Shown, Terminal, consent, fetch, key_pair, query_of,
                           sign_in_box, with_query)
from local import wait_until
from signed_in import watched_tokens


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    return key_pair(tmp_path_factory.mktemp("keys"))


@pytest.fixture(scope="module")
def box(tmp_path_factory, keys):
    program = sign_in_box(tmp_path_factory.mktemp("box"), public_keys=[{"kid": "k1", "pem": keys[1]}])
    yield program
    assert program.stop() == 0


@pytest.fixture
def place(tmp_path, box):
    yield Place(tmp_path, box)
    box.call("POST", "/_emulator/apps", {**APP, "public_keys": []})
    box.call("POST", "/_emulator/settings", {"clock_offset_s": 0, "access_token_lifetime_s": 3600})


@pytest.fixture
def ids(box):
    bob = box.call("GET", "/2.0/users/me", headers={"Authorization": "Bearer token-of-bob"})["id"]
    return {"alice": box.user_id, "bob": bob}


def app_file(place, keys, passphrase=None, encrypted=False, secret=APP["client_secret"], **members):
    key = keys[0]
    if encrypted:
        key = subprocess.run(["openssl", "rsa", "-aes256", "-passout", "pass:hushed"], input=key, text=True, check=True,
                             capture_output=True).stdout
    path = place.directory / "app.json"
    path.write_text(json.dumps({"boxAppSettings": {
        "clientID": APP["client_id"], "clientSecret": secret,
        "appAuth": {"publicKeyID": "k1", "privateKey": key, **({"passphrase": passphrase} if passphrase else {})}},
        "enterpriseID": "77", **members}))
    return path


def login(server, name="alice", password=PASSWORD):
    client = ftplib.FTP(timeout=30)
    client.connect(server.host, server.port)
    client.login(name, password)
    return client


def refused_login(server, reply):
    try:
        login(server).close()
    except ftplib.Error as refusal:
        return str(refusal).startswith(reply)
    return False


def test_an_account_is_signed_in_served_changed_and_removed(place, ids):
    place.box.folder("Projects")
    place.sign_in()
    assert place.json("list") == [place.json("show", "alice")]
    shown = place.json("show", "alice")
    assert {key: shown[key] for key in ("name", "grant", "state", "box_user", "root", "permissions")} == {
        "name": "alice", "grant": "box", "state": "ready", "box_user": ids["alice"], "root": "/", "permissions": "full"}
    assert place.json("test", "alice")["ok"]
    server = place.serve()
    try:
        client = login(server)
        assert "Projects" in client.nlst()
        place.run("set", "alice", "disabled=true")
        wait_until(lambda: refused_login(server, "530"), 5)
        client.close()
        (place.directory / "other").write_text("another one\r\nnot this line\n")
        place.run("set", "alice", "disabled=")
        wait_until(lambda: not refused_login(server, "530"), 5)
        place.run("password", "alice", "--password-file", place.directory / "other")
        wait_until(lambda: refused_login(server, "530"), 5)
        login(server, password="another one").close()
        place.run("remove", "alice")
        wait_until(lambda: refused_login(server, "530"), 5)
    finally:
        server.stop()
    assert place.json("list") == []
    assert not list(place.record.glob("*.record"))


def test_a_browser_brings_the_answer(place):
    browser = Shown(place.directory)
    process = place.start("add", "alice", "--box", "--password-file", place.directory / "password",
                          environment=browser.environment, stdin=subprocess.DEVNULL)
    printed = process.stdout.readline().strip()
    wait_until(browser.address)
    assert browser.address() == printed
    query = query_of(printed)
    assert len(query["state"]) == 32 and int(query["state"], 16) >= 0
    port = int(query["redirect_uri"].split(":")[2].split("/")[0])
    back = consent(printed)
    assert back.startswith(query["redirect_uri"])

    def raw(request):
        with socket.create_connection(("127.0.0.1", port), timeout=10) as client:
            client.sendall(request)
            return client.makefile("rb").readline().split()[1:2]

    with socket.create_connection(("127.0.0.1", port)) as idle:  # keeps nobody from being served
        idle.sendall(b"GET /call")
        for case, address, status in (
                ("another state", with_query(back, state="0" * 32), 400),
                ("a state that is short of the end", with_query(back, state=query["state"][:-1]), 400),
                ("no state", f"{query['redirect_uri']}?code=x", 400),
                ("two states", back + "&state=" + "0" * 32, 400),
                ("a denial by nobody", f"{query['redirect_uri']}?error=access_denied&state=1", 400),
                ("another path", back.replace("/callback", "/callback/x"), 404),
                ("the icon", f"http://127.0.0.1:{port}/favicon.ico", 404)):
            assert fetch(address)[0] == status, case
        assert raw(b"GET /" + b"x" * 20_000) == [b"431"]
        assert raw(b"POST /callback HTTP/1.1\r\n\r\n") == [b"400"]
        assert raw(b"\r\n\r\n") == [b"400"]
        assert process.poll() is None
        status, page = fetch(back)
    assert status == 200 and "You are signed in; close this page." in page
    assert process.wait(30) == 0
    assert place.state("alice") == "ready"


@pytest.mark.parametrize("browser", [True, False])
def test_a_person_says_no(place, browser):
    if browser:
        shown = Shown(place.directory)
        process = place.start("add", "alice", "--box", "--password-file", place.directory / "password",
                              environment=shown.environment, stdin=subprocess.DEVNULL)
        status, page = fetch(consent(process.stdout.readline().strip(), choice="deny"))
        assert status == 403 and "You are not signed in." in page and "denied" in page
        reason = process.communicate(timeout=30)[1]
        assert process.returncode == 1 and NAME in reason
    else:
        reason = place.sign_in(choice="deny", expected=1)
    assert "access_denied" in reason
    assert place.json("list") == [] and not list(place.record.glob("*.record"))


def test_what_is_pasted_is_looked_at(place):
    for case, answer, expected in (
            ("another state", lambda back: with_query(back, state="0" * 32), 1),
            ("another host", lambda back: back.replace("127.0.0.1", "192.0.2.1"), 2),
            ("another path", lambda back: back.replace("/callback", "/elsewhere"), 2),
            ("nothing", lambda back: "", 2),
            ("no address", lambda back: "yes", 2),
            ("a code of nobody", lambda back: with_query(back, code="invented"), 1)):
        assert place.sign_in(answer=answer, expected=expected), case
        assert place.json("list") == [], case
    place.sign_in(answer=lambda back: "  " + back.replace("127.0.0.1/", "127.0.0.1:4711/") + "#x \r")


def test_signing_in_anew_keeps_what_the_account_has(place, ids):
    place.sign_in()
    place.run("set", "alice", "root=/Projects/X", "permissions=read-only", "allow=192.0.2.0/24,2001:db8::1")
    place.accounts.write_text("# ours\n" + place.accounts.read_text().replace("[alice]", "[alice] # she"))
    before = place.accounts.read_text()
    place.sign_in()
    assert place.accounts.read_text() == before
    assert "belongs to Box user" in place.sign_in(login="bob", expected=1)
    shown = place.json("show", "alice")
    assert (shown["box_user"], shown["state"], shown["root"]) == (ids["alice"], "ready", "/Projects/X")
    assert shown["allow"] == ["192.0.2.0/24", "2001:db8::1/128"]
    # Another way to the same user is none to another.
    place.run("add", "alice", "--ccg", "--box-user", ids["alice"])
    assert place.json("show", "alice")["grant"] == "ccg"
    # A name that is free again is anybody's.
    place.run("remove", "alice")
    place.sign_in(login="bob")
    assert place.json("show", "alice")["box_user"] == ids["bob"]


def test_accounts_without_a_person(place, box, keys, ids):
    box.call("POST", "/_emulator/apps", {**APP, "public_keys": [{"kid": "k1", "pem": keys[1]}]})
    password = ("--password-file", place.directory / "password")
    place.run("add", "lab", "--ccg", "--box-user", ids["bob"], *password)
    place.run("add", "lab2", "--jwt", app_file(place, keys), "--box-user", ids["bob"], *password)
    place.run("add", "lab3", "--jwt", app_file(place, keys, "hushed", encrypted=True), "--algorithm", "RS512",
              "--box-user", ids["alice"], *password)
    # Box's clock decides what an assertion is worth.
    box.call("POST", "/_emulator/settings", {"clock_offset_s": 600})
    place.run("add", "lab4", "--jwt", app_file(place, keys), "--box-user", ids["alice"], *password)
    box.call("POST", "/_emulator/settings", {"clock_offset_s": 0})
    assert {(each["name"], each["grant"], each["state"], each["box_user"]) for each in place.json("list")} == {
        ("lab", "ccg", "ready", ids["bob"]), ("lab2", "jwt", "ready", ids["bob"]),
        ("lab3", "jwt", "ready", ids["alice"]), ("lab4", "jwt", "ready", ids["alice"])}
    for name in ("lab", "lab2", "lab3"):
        assert place.json("test", name)["ok"], name


def test_box_says_no(place, box, keys, ids):
    password = ("--password-file", place.directory / "password")
    (place.directory / "secret").write_text("wrong\n")
    assert "invalid_client" in place.run("add", "lab", "--ccg", "--box-user", ids["bob"], *password, expected=1)
    (place.directory / "secret").write_text(APP["client_secret"])
    assert "Box" in place.run("add", "lab", "--ccg", "--box-user", "999999", *password, expected=1)
    assert "invalid" in place.run("add", "lab", "--jwt", app_file(place, keys), "--box-user", ids["bob"], *password,
                                  expected=1), "of a key that is not registered"
    box.call("POST", "/_emulator/apps", {**APP, "authorised": False})
    reason = place.run("add", "lab", "--ccg", "--box-user", ids["bob"], *password, expected=1)
    assert "unauthorized_client" in reason and "administrator" in reason
    assert place.json("list") == []


def test_a_terminal_is_asked_without_echo(place, keys, ids):
    place.box.call("POST", "/_emulator/apps", {**APP, "public_keys": [{"kid": "k1", "pem": keys[1]}]})
    file = app_file(place, keys, encrypted=True)
    command = place.command("add", "lab", "--jwt", file, "--box-user", ids["alice"])
    terminal = Terminal(command)
    terminal.answer("Passphrase", "hushed")
    terminal.answer("New password", "one thing")
    terminal.answer("again: ", "another")
    terminal.wait_for("differ")
    terminal.answer("New password", PASSWORD)
    terminal.answer("again: ", PASSWORD)
    status, shown = terminal.finish()
    assert status == 0, shown
    for typed in ("hushed", "one thing", "another", PASSWORD):
        assert typed not in shown
    terminal = Terminal(command)
    terminal.answer("Passphrase", "wrong")
    status, shown = terminal.finish()
    assert status == 2 and "passphrase" in shown
    # Whoever gives up gets the echo back.
    terminal = Terminal(place.command("password", "lab"))
    terminal.wait_for("New password")
    assert not terminal.echoes()
    status = terminal.interrupt()
    assert status == -signal.SIGINT and terminal.echoes()
    server = place.serve()
    try:
        login(server, "lab").close()
    finally:
        server.stop()


WRONG_USE = (
    ("no command", [], "subcommand"),
    ("unknown name", ["show", "nobody"], "no account"),
    ("set for an unknown name", ["set", "nobody", "root=/x"], "no account"),
    ("an unknown setting", ["set", "alice", "rot=/x"], "root"),
    ("one of two is wrong", ["set", "alice", "root=/x", "expires=soon"], "expires"),
    ("no grant", ["add", "new"], "required"),
    ("two grants", ["add", "new", "--box", "--ccg"], "required"),
    ("no Box user", ["add", "new", "--ccg"], "--box-user"),
    ("no id", ["add", "new", "--ccg", "--box-user", "12a"], "--box-user"),
    ("a user who is told anyway", ["add", "new", "--box", "--box-user", "12"], "--box-user"),
    ("no password", ["add", "new", "--ccg", "--box-user", "12"], "--password-file"),
    ("an empty password", ["add", "new", "--ccg", "--box-user", "12", "--password-file", "/dev/null"], "/dev/null"),
    ("no such file", ["password", "alice", "--password-file", "/nowhere"], "/nowhere"),
    ("no app file", ["add", "new", "--jwt", "/nowhere", "--box-user", "12"], "/nowhere"),
    ("an account of a file", ["add", "kept", "--box"], "credential"),
    ("tokens of a file", ["sign-out", "kept"], "credential"),
    ("no key", ["rekey", "--new-key-file", "/nowhere"], "/nowhere"),
    ("a name that is none", ["add", "a\nb", "--box"], "login name"),
)


def test_wrong_use_is_told_in_one_line(place, tmp_path):
    place.accounts.write_text('[alice]\npassword = "$5$x$y"\n[kept]\npassword = "$5$x$y"\ncredential = "c.json"\n')
    place.accounts.chmod(0o600)
    before = place.accounts.read_text()
    for case, words, expected in WRONG_USE:
        answer = place.run(*(words or ["--json"]), expected=2)
        assert expected in answer or not words, (case, answer)
        assert place.accounts.read_text() == before, case
    for case in (["list", "--config"], ["list", "--config", "/nowhere"], ["show", "--json", "alice"]):
        assert subprocess.run([PROGRAM, "account", *case], capture_output=True, check=False).returncode == 2, case
    file = f"--config={place.config}"
    for case in ([file, "list"], ["list", file], ["show", file, "alice"], ["show", "alice", file, "--json"]):
        subprocess.run([PROGRAM, "account", *case], capture_output=True, check=True)
    place.write_config(broker=False)
    assert "[broker]" in place.run("add", "new", "--box", expected=2)
    place.write_config(box_lines='redirect = "https://example.com/back"')
    assert "--no-browser" in place.run("add", "new", "--box", "--password-file", tmp_path / "password", expected=2)


def test_states(place, ids):
    place.sign_in("ready")
    place.sign_in("out")
    for name in ("expired", "both", "spent"):
        place.run("add", name, "--ccg", "--box-user", ids["bob"], "--password-file", place.directory / "password")
    place.run("sign-out", "out")
    place.run("set", "expired", "expires=2020-01-31")
    place.run("set", "both", "expires=2020-01-31", "disabled=true")
    (place.record / "spent.record").write_bytes(b"nothing")
    with place.accounts.open("a") as file:
        file.write('[broken]\npassword = "$5$x$y"\nrot = "/"\n[kept]\npassword = "$5$x$y"\ncredential = "kept.json"\n')
    (place.directory / "kept.json").write_text(json.dumps({
        "access_token": "t0ken", "token_expiry": "2099-01-01T00:00:00.000000+00:00", "sub": "77", "max_upload": 1}))
    listed = {each["name"]: each for each in place.json("list")}
    assert {name: each["state"] for name, each in listed.items()} == {
        "ready": "ready", "out": "sign-in needed", "expired": "expired", "both": "disabled", "spent": "broken",
        "broken": "broken", "kept": "ready"}
    assert (listed["kept"]["grant"], listed["kept"]["box_user"]) == ("file", "77")
    (place.directory / "kept.json").write_text("{}")
    kept = place.json("show", "kept")
    assert "token_expiry" in kept["last_error"] and "account test" in listed["spent"]["last_error"]
    assert str(place.directory) not in json.dumps([kept, *listed.values()])
    table = place.run("list").splitlines()
    assert len(table) == 8 and table[0].split()[:3] == ["NAME", "GRANT", "STATE"]


def checks(place, name, expected):
    process = place.start("test", name, "--json")
    output = process.communicate(timeout=60)[0]
    assert process.returncode == expected, output
    return {each["check"]: each for each in json.loads(output)["checks"]}


def test_what_works_is_told_line_by_line(place, box, ids):
    place.write_config(encryption="none")
    place.sign_in()
    lines = place.run("test", "alice").splitlines()
    for name in ("token: ok", "users/me: ok", "root listing: ok", "upload limit: ok", "clock: ok"):
        assert any(line.startswith(name) for line in lines), (name, lines)
    # A token is taken as it is for as long as it serves, and renewed after.
    first = place.tokens("alice")["generation"]
    checks(place, "alice", 0)
    assert place.tokens("alice")["generation"] == first
    box.call("POST", "/_emulator/settings", {"access_token_lifetime_s": 90})
    place.sign_in()
    checks(place, "alice", 0)
    assert place.tokens("alice")["generation"] == first + 2
    box.call("POST", "/_emulator/settings", {"clock_offset_s": -45, "access_token_lifetime_s": 3600})
    place.run("set", "alice", "root=/Missing/X", "disabled=true")
    found = checks(place, "alice", 1)
    assert found["clock"]["result"] == "warning" and "+45" in found["clock"]["text"]
    assert not found["root listing"]["ok"] and found["users/me"]["ok"] and found["state"]["result"] == "warning"
    box.call("POST", "/_emulator/settings", {"clock_offset_s": 0})
    place.run("add", "lab", "--ccg", "--box-user", ids["bob"], "--password-file", place.directory / "password")
    assert "invite" in checks(place, "lab", 0)["root listing"]["hint"]


def test_a_revoked_account_is_told(place, box):
    box.call("POST", "/_emulator/settings", {"access_token_lifetime_s": 90})
    place.write_config(encryption="none")
    place.sign_in()
    secrets = place.tokens("alice")
    form = f"client_id={APP['client_id']}&client_secret={APP['client_secret']}&token={secrets['current']['refresh']}"
    box.call("POST", "/oauth2/revoke", form.encode(), {"Content-Type": "application/x-www-form-urlencoded"})
    found = checks(place, "alice", 1)
    assert found["token"]["text"].startswith("sign-in needed") and "account add alice --box" in found["token"]["hint"]
    assert place.state("alice") == "sign-in needed"
    shown = place.run("show", "alice") + place.run("list", "--json") + place.run("test", "alice", expected=1)
    for secret in (secrets["current"]["refresh"], secrets["current"]["access"], APP["client_secret"], "$y$"):
        assert secret not in shown
    place.sign_in()
    assert place.state("alice") == "ready"


def test_the_end_of_an_account_reaches_box(place, box):
    place.write_config(encryption="none")
    place.sign_in()
    token = place.tokens("alice")["current"]["access"]
    base = box.base
    box.base = "http://127.0.0.1:9"  # nobody is there
    place.write_config(encryption="none")
    box.base = base
    assert "--force" in place.run("sign-out", "alice", expected=1)
    assert place.tokens("alice")["current"]["access"] == token
    assert "the account is removed, but" in place.run("remove", "alice", expected=1)
    assert place.json("list") == []
    assert place.tokens("alice")["current"]["access"] == token
    place.write_config(encryption="none")
    place.run("remove", "alice")
    assert "no account" in place.run("remove", "alice", expected=2)
    try:
        box.call("GET", "/2.0/users/me", headers={"Authorization": f"Bearer {token}"})
        raise AssertionError("the token lives")
    except OSError as refusal:
        assert refusal.code == 401
    place.sign_in()
    place.run("sign-out", "alice")
    assert place.state("alice") == "sign-in needed"
    box.base = "http://127.0.0.1:9"
    place.write_config(encryption="none")
    box.base = base
    place.run("remove", "alice", "--force")
    assert not list(place.record.glob("*.record"))


def test_no_token_lies_in_the_clear(place, box):
    """Neither on the disk nor in a log nor in what commands print; renewed by the server, and by another key."""
    with watched_tokens(box) as (address, seen):
        place.config.write_text(place.config.read_text().replace(f'token_url = "{box.base}', f'token_url = "{address}'))
        box.call("POST", "/_emulator/settings", {"access_token_lifetime_s": 60})
        printed = place.sign_in()
        box.call("POST", "/_emulator/settings", {"access_token_lifetime_s": 3600})
        server = place.serve()
        login(server).quit()
        assert len(seen) == 4, "one pair by the sign-in, one by the login"
        (place.directory / "next").write_bytes(b"n" * 32)
        (place.directory / "next").chmod(0o600)
        place.run("rekey", "--new-key-file", place.directory / "next")
        printed += place.run("list") + place.run("show", "alice") + place.run("test", "alice") + server.log()
        login(server).quit()
        files = [path for path in place.directory.rglob("*") if path.is_file()]
        assert place.record / "alice.record" in files
        for secret in seen:
            assert secret not in printed
            assert not [path for path in files if secret.encode() in path.read_bytes()]
        assert server.stop() == 0


def test_another_key(place):
    place.sign_in()
    new = place.directory / "new-key"
    new.write_bytes(b"n" * 32)
    new.chmod(0o600)
    sealed = (place.record / "alice.record").read_bytes()
    place.run("rekey", "--new-key-file", new)
    assert (place.record / "alice.record").read_bytes() != sealed
    assert (place.directory / "key").read_bytes() == b"n" * 32
    assert place.json("test", "alice")["ok"]
    (place.directory / "key").write_bytes(b"k" * 40)
    assert place.state("alice") == "broken"


def test_a_box_that_gives_no_answer_changes_nothing(place, box):
    place.write_config(encryption="none")
    place.sign_in()
    before, accounts = place.tokens("alice"), place.accounts.read_text()
    for path, reason in (("/oauth2/token", "gives no token"), ("/2.0/users/me", "who the user is")):
        box.fault(path=path, status=503, times=0)
        assert reason in place.sign_in(expected=1)
        assert reason in place.sign_in("new", expected=1)
        box.clear_faults()
    assert place.tokens("alice") == before and place.accounts.read_text() == accounts
