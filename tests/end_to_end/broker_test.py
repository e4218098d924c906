"""Accounts that the broker serves: tokens are renewed behind the sessions' backs, whatever happens to the broker."""

import ftplib
import io
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import threading
import time

import pytest
from local import BUILD, PASSWORD, let_others_in, pattern, put, wait_until
from signed_in import CLIENT_SECRET, SignedInServer, SignInBox, watched_tokens, write_record

INTRUDER = BUILD / "lib/libtarvex_gridftp_server_intruder.so"


@pytest.fixture
def sign_in(tmp_path):
    program = SignInBox(tmp_path, users=("alice", "bob"))
    yield program
    assert program.stop() == 0


@pytest.fixture
def serve(tmp_path, sign_in):
    """Starts servers, and ends them."""
    started = []

    def start(**more):
        started.append(SignedInServer(tmp_path, sign_in, **more))
        return started[-1]

    yield start
    for server in started:
        assert server.stop() == 0, server.log()


def in_parallel(count, work):
    """Runs `work(i)` in threads of their own. \\return what each returned or raised."""
    results = [None] * count

    def run(i):
        try:
            results[i] = work(i)
        except Exception as error:  # pylint: disable=broad-except
            results[i] = error
    threads = [threading.Thread(target=run, args=(i,)) for i in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return results


def test_of_many_who_need_a_token_one_asks(sign_in, serve):
    server = serve(life=50)
    mark = sign_in.mark()
    clients = in_parallel(8, lambda _: server.ftp())
    assert [client.nlst("/") for client in clients] == [[]] * 8
    assert sign_in.token_requests(mark) == 1
    assert server.record("alice")["generation"] == 2
    # The pair before goes once the new one has served.
    wait_until(lambda: "previous" not in server.record("alice"))
    mark = sign_in.mark()
    server.ftp().quit()
    assert sign_in.token_requests(mark) == 0, "a token that lives is not renewed"


class Bytes:
    """A file of so many bytes that is made while it is read."""

    def __init__(self, size):
        self.left = size
        self.block = pattern(1024**2)

    def read(self, size):
        piece = self.block[:min(size, self.left)]
        self.left -= len(piece)
        return piece


def test_a_day_of_short_tokens(sign_in, serve):
    """Every token is to be renewed six seconds after it was had; transfers go on across that, nobody sees a 401."""
    sign_in.settings(access_token_lifetime_s=106)
    server = serve(life=104)
    size = 2 * 1024**3
    loud, idle = server.ftp(timeout=300), server.ftp()
    over = threading.Event()

    def come_and_go(_):
        while not over.wait(1):
            client = server.ftp()
            client.nlst("/")
            client.quit()

    def transfer(_):
        try:
            loud.voidcmd("TYPE I")
            loud.sendcmd(f"ALLO {size}")
            loud.storbinary("STOR /large", Bytes(size), blocksize=1024**2)
            got = [0]
            loud.retrbinary("RETR /large", lambda piece: got.append(got.pop() + len(piece)), blocksize=1024**2)
            return got[0]
        finally:
            over.set()

    mark = sign_in.mark()
    results = in_parallel(2, lambda i: come_and_go(i) if i else transfer(i))
    assert results == [size, None]
    time.sleep(3)
    assert idle.nlst("/") == ["large"]
    assert sign_in.token_requests(mark) >= 2
    assert not [entry for entry in sign_in.journal(mark) if entry["status"] == 401]


def test_a_broker_that_is_killed_is_missed_by_nobody(sign_in, serve):
    server = serve()
    clients = [server.ftp() for _ in range(50)]
    put(clients[0], "/file", b"x" * 3_000_000)
    sign_in.fault(path="/d/**", piece_bytes=200_000, piece_delay_ms=150, times=0)

    def fetch(client):
        client.voidcmd("TYPE I")
        got = io.BytesIO()
        client.retrbinary("RETR /file", got.write)
        return got.getbuffer().nbytes

    def kill_and_log_in(_):
        time.sleep(0.5)
        before = server.broker()
        os.kill(int(before), signal.SIGKILL)
        begun = time.monotonic()
        server.ftp().quit()
        assert server.broker() not in (None, before)
        return time.monotonic() - begun

    results = in_parallel(11, lambda i: fetch(clients[i]) if i else kill_and_log_in(i))
    assert results[1:] == [3_000_000] * 10
    assert results[0] < 5
    # The sessions are the new broker's: a token that is refused is replaced.
    sign_in.clear_faults()
    sign_in.fault(method="GET", path="/2.0/folders/**", status=401)
    assert clients[0].nlst("/") == ["file"]
    assert server.record("alice")["generation"] == 2
    assert len(server.sessions()) == 50


def test_a_token_that_box_refuses_is_replaced_once(sign_in, serve):
    server = serve()
    client = server.ftp()
    put(client, "/file", b"old")
    generation = server.record("alice")["generation"]
    rows = [("GET", "/2.0/folders/**", lambda: client.nlst("/")), ("POST", "/2.0/folders", lambda: client.mkd("/new")),
            ("DELETE", "/2.0/files/**", lambda: client.delete("/file"))]
    for method, path, act in rows:
        sign_in.fault(method=method, path=path, status=401)
        act()
        generation += 1
        assert server.record("alice")["generation"] == generation
    # A second refusal ends the session, and says why.
    sign_in.fault(method="GET", path="/2.0/folders/**", status=401, times=0)
    with pytest.raises(ftplib.error_temp, match="421 Box refuses"):
        client.nlst("/")
    with pytest.raises((EOFError, OSError)):
        client.voidcmd("NOOP")


def test_what_is_revoked_at_box_needs_a_person(sign_in, serve):
    server = serve(life=50)
    sign_in.call("POST", "/oauth2/revoke", b"client_id=app&client_secret=s&token=" +
             server.tokens["alice"]["refresh_token"].encode(), {"Content-Type": "application/x-www-form-urlencoded"})
    mark = sign_in.mark()
    for _ in range(3):
        with pytest.raises(ftplib.error_perm) as refused:
            server.ftp()
        assert str(refused.value) == "530 This account has to be signed in to Box again; tell the server's operator."
    assert sign_in.token_requests(mark) == 1, "a final answer is asked for once"
    assert server.record("alice")["sign_in_needed"] == 1
    assert server.log().count("account alice: sign-in needed") >= 1


def test_accounts_change_under_a_running_server(sign_in, serve):
    server = serve(users=("alice", "bob"), lines={"alice": "max_sessions = 1\n"})

    def refused(user, text):
        with pytest.raises(ftplib.Error) as error:
            server.ftp_as(user)
        assert text in str(error.value), error.value

    def ended(client, text):
        begun = time.monotonic()
        client.sock.settimeout(5)
        assert text in client.getline()
        assert time.monotonic() - begun < 2.5

    alice, bob = server.ftp_as("alice"), server.ftp_as("bob")
    refused("alice", "421 This account has as many sessions")
    server.write_accounts(alice="disabled = true\n")
    ended(alice, "421 This account is disabled.")
    refused("alice", "530 This account is disabled.")
    assert bob.nlst("/") == []
    server.write_accounts(bob='expires = 2020-01-01\n')
    ended(bob, "421 This account has expired.")
    refused("bob", "530 This account has expired.")
    server.write_accounts(bob='allow = ["192.0.2.0/24"]\n')
    refused("bob", "530 This account is not served at your address.")
    server.write_accounts(bob='allow = ["127.0.0.0/8"]\n', alice='permissions = "all"\n')
    refused("alice", "530 This account is not configured correctly")
    bob = server.ftp_as("bob")
    server.write_accounts(bob=None)
    ended(bob, "421 This account was removed.")
    refused("bob", "530 Login incorrect.")
    (server.directory / "accounts.toml").write_text("[alice")
    time.sleep(1.5)
    refused("bob", "421 The accounts are not available")


def test_a_full_store_stops_renewals_and_nothing_else(sign_in, serve):
    server = serve(users=("alice", "bob"), life=3600)
    write_record(server.store, "bob", server.tokens["bob"], sign_in.user(server.tokens["bob"]["access_token"]),
                 time.time() + 50)
    resource.prlimit(int(server.broker()), resource.RLIMIT_FSIZE, (4096, resource.RLIM_INFINITY))
    with pytest.raises(ftplib.error_temp, match="421 Box gives no token"):
        server.ftp_as("bob")
    server.ftp_as("alice").quit()
    resource.prlimit(int(server.broker()), resource.RLIMIT_FSIZE, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    server.ftp_as("bob").quit()


def test_idle_accounts_are_renewed_and_broken_attempts_made_again(tmp_path, sign_in, serve):
    server = serve(users=("alice", "bob"), broker_lines="idle_renewal = 60")
    user = sign_in.user(server.tokens["bob"]["access_token"])
    old = int(time.time()) - 1000
    write_record(server.store, "bob", server.tokens["bob"], user, time.time() + 3000, renewed_at=old)
    write_record(server.store, "alice", server.tokens["alice"], user, time.time() + 3000, attempt_open=1)
    os.kill(int(server.broker()), signal.SIGKILL)
    wait_until(lambda: server.record("alice")["generation"] == 2 and server.record("alice")["attempt_open"] == 0)
    wait_until(lambda: server.record("bob")["generation"] == 2, seconds=20)


def test_a_credential_file_is_read_again_when_its_token_is_refused(tmp_path, sign_in):
    from local import Server
    server = Server(tmp_path, sign_in)
    client = server.ftp()
    fresh = sign_in.tokens("alice")
    sign_in.fault(method="GET", path="/2.0/folders/**", status=401)
    server.write_credential({"access_token": fresh["access_token"], "token_expiry": "2099-01-01T00:00:00.0+00:00",
                             "sub": sign_in.user_id, "max_upload": 5 * 1024**3})
    assert client.nlst("/") == []
    sign_in.fault(method="GET", path="/2.0/folders/**", status=401)
    with pytest.raises(ftplib.error_temp, match="421 Box refuses the token of this account's credential file"):
        client.nlst("/")
    assert server.stop() == 0


@pytest.mark.skipif(os.geteuid() != 0, reason="only root becomes others")
def test_the_broker_has_a_user_of_its_own_and_so_has_the_next(tmp_path, sign_in, serve):
    def owner(pid):
        return pathlib.Path(f"/proc/{pid}/environ").stat().st_uid

    def uid(pid):
        status = pathlib.Path(f"/proc/{pid}/status").read_text()
        return [int(number) for line in status.splitlines() if line.startswith("Uid:") for number in line.split()[1:]]

    nobody, daemon = (int(subprocess.check_output(["id", "-u", name])) for name in ("nobody", "daemon"))
    let_others_in(tmp_path)
    server = serve(life=50, broker_lines='user = "daemon"', tables='[security]\nuser = "nobody"',
                   prepare=lambda: subprocess.run(["chown", "-R", "daemon", tmp_path / "broker", tmp_path / "secret",
                                                   tmp_path / "accounts.toml"], check=True))
    for _ in range(2):
        assert uid(server.broker()) == [daemon] * 4
        server.ftp().quit()
        os.kill(int(server.broker()), signal.SIGKILL)
        wait_until(lambda: server.broker())
    client = server.ftp()
    assert uid(server.sessions()[0]) == [nobody] * 4 and owner(server.broker()) == 0, "nobody may look into it"
    assert server.record("alice")["generation"] == 2
    client.quit()


@pytest.mark.skipif(os.geteuid() != 0, reason="only root becomes others")
def test_a_store_that_is_missing_is_made_for_the_broker_s_user(tmp_path, serve):
    """Where the user itself could not make it, since the folder around belongs to root."""
    let_others_in(tmp_path)
    server = serve(broker_lines='user = "daemon"', tables='[security]\nuser = "nobody"',
                   prepare=lambda: (shutil.rmtree(tmp_path / "broker"),
                                    subprocess.run(["chown", "daemon", tmp_path / "secret", tmp_path / "accounts.toml"],
                                                   check=True)))
    assert (tmp_path / "broker").owner() == "daemon" and (tmp_path / "broker").stat().st_mode & 0o777 == 0o700
    with pytest.raises(ftplib.error_perm, match="^530"):
        server.ftp()


def memory_of(pid):
    """What a process has in its writable memory."""
    found = []
    with open(f"/proc/{pid}/maps", encoding="ascii") as maps, open(f"/proc/{pid}/mem", "rb") as memory:
        for line in maps:
            span, flags = line.split()[:2]
            if not flags.startswith("rw"):
                continue
            begin, end = (int(place, 16) for place in span.split("-"))
            if end - begin > 64 << 20:
                continue
            memory.seek(begin)
            try:
                found.append(memory.read(end - begin))
            except OSError:
                continue
    return b"".join(found)


def test_a_session_that_was_taken_over_gets_nothing_but_its_own_token(tmp_path, sign_in, serve):
    spool = tmp_path / "spool"
    spool.mkdir()
    with watched_tokens(sign_in) as (address, seen):
        files = [tmp_path / "accounts.toml", tmp_path / "secret", tmp_path / "broker/bob.record",
                 tmp_path / "broker/alice.record"]
        environment = {"TARVEX_INTRUDER_FILES": "\n".join(map(str, files)), "TARVEX_INTRUDER_FOLDER": str(spool),
                       "TARVEX_INTRUDER_OWN": sign_in.user(sign_in.tokens("alice")["access_token"])["id"]}
        server = serve(users=("alice", "bob"), life=50, token_base=address, environment=environment,
                       server_lines='spool_directory = "spool"',
                       storage_lines=f'dsi = "intruder"\nlibrary = "{INTRUDER}"', settings={})
        server.ftp_as("bob").quit()
        alice = server.ftp_as("alice")
        assert len(seen) == 4, "both were renewed"
        names = alice.nlst("/")
        tried = [name for name in names if name.startswith("tried-")]
        assert names == tried and int(tried[0][6:]) > 200, names
        hashes = [table.split('"')[1].encode() for table in server.tables.values()]
        own = server.record("alice")["current"]["access"].encode()
        secrets = [token.encode() for token in seen] + hashes + [CLIENT_SECRET.encode()]
        assert own in secrets
        [session] = server.sessions()
        try:
            memory = {pid: memory_of(pid) for pid in (session, server.process.pid)}
        except OSError:
            memory = {}  # not everywhere may root look into processes
        for pid, content in memory.items():
            assert not [secret for secret in secrets if secret in content and (pid != session or secret != own)]
        for pid in (session, server.process.pid, server.broker()):
            environ = pathlib.Path(f"/proc/{pid}/environ").read_bytes()
            assert not [secret for secret in secrets if secret in environ]
        log = server.log().encode()
        assert not [secret for secret in secrets if secret in log]
        os.kill(int(session), signal.SIGABRT)  # which would leave a core
        wait_until(lambda: not server.sessions())
        for path in tmp_path.rglob("*"):
            inside = path.read_bytes() if path.is_file() and path.parent.name != "broker" else b""
            if path.name in ("accounts.toml", "secret"):
                continue
            assert not [secret for secret in secrets if secret in inside], path


def test_a_sealed_store_shows_nothing_and_moves_to_another_key(tmp_path, sign_in):
    """Records are written by the program itself here; see also the tests of the account commands."""
    subprocess.run(["openssl", "rand", "-out", tmp_path / "key", "32"], check=True)
    (tmp_path / "key").chmod(0o600)
    server = SignedInServer(tmp_path, sign_in)
    assert server.stop() == 0
    config = (tmp_path / "server.toml").read_text().replace('encryption = "none"', 'key_file = "key"')
    (tmp_path / "server.toml").write_text(config)
    again = subprocess.run([BUILD / "bin/tarvex-gridftp-server", "--config", tmp_path / "server.toml", "--check"],
                           capture_output=True, text=True, check=False)
    assert again.returncode == 0, again.stderr
    (tmp_path / "key").write_bytes(b"short")
    again = subprocess.run([BUILD / "bin/tarvex-gridftp-server", "--config", tmp_path / "server.toml"],
                           capture_output=True, text=True, check=False, timeout=30)
    assert again.returncode == 2 and "32 are needed" in again.stderr
