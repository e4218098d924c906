"""How the server stops and reads its configuration again, and what it tells a service manager."""

import contextlib
import ftplib
import shutil
import signal
import socket
import ssl
import threading
import time
import uuid

import pytest
from certificates import issue, make_authority
from local import PASSWORD, SMALL_BOX, SMALL_SERVER, Box, Server, pattern, wait_until

GRACE = 1
# A request of Box's may take as long as a test wants.
SETTINGS = {**SMALL_SERVER, "progress_timeout_ms": 30_000}
SLACK = 4  # seconds that a busy machine may add


@pytest.fixture(scope="module")
def small_box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), *SMALL_BOX)
    yield program
    assert program.stop() == 0


@pytest.fixture
def start(tmp_path, small_box):
    """Starts a server; it is gone at the end."""
    started = []

    def make(server_lines="", grace=GRACE, **options):
        started.append(Server(tmp_path, small_box, settings=SETTINGS,
                              server_lines=f"grace_time = {grace}\n{server_lines}", **options))
        return started[-1]

    yield make
    for program in started:
        assert program.stop() is not None


def open_sessions(box, since):
    """Upload sessions that were made and neither committed nor aborted."""
    open_ones = 0
    for entry in box.journal(since):
        path, method = entry["path"], entry["method"]
        if not path.startswith("/api/2.0/files/upload_sessions"):
            continue
        ends = method == "DELETE" or (method == "POST" and path.endswith("/commit"))
        begins = method == "POST" and not ends
        open_ones += begins - ends
    return open_ones


def replies_till_the_end(client):
    """Code of each reply that is left, until the connection ends."""
    codes = []
    with contextlib.suppress(EOFError, OSError):
        while True:
            codes.append(int(client.getmultiline()[:3]))
    return codes


def test_what_runs_has_its_grace_and_then_ends(start, small_box):
    """An upload in parts, one of unknown size, a download and an idle session: each gets its reply in time; Box is left
    with nothing half done."""
    small_box.file("download", pattern(30_000_000))
    mark = small_box.mark()
    server = start()
    clients = [server.ftp() for _ in range(4)]
    chunked, unknown, download, idle = clients
    for client in clients:
        client.voidcmd("TYPE I")
    chunked.sendcmd("ALLO 300000")
    with chunked.transfercmd("STOR half") as half, unknown.transfercmd("STOR half-too") as half_too, \
            download.transfercmd("RETR download"):
        half.sendall(pattern(100_000))
        half_too.sendall(pattern(1000))
        wait_until(lambda: any(entry["method"] == "PUT" for entry in small_box.journal(mark)))
        begun = time.monotonic()
        server.process.send_signal(signal.SIGTERM)
        assert replies_till_the_end(idle) == [421]
        assert time.monotonic() - begun < GRACE, "nothing ran there"
        with pytest.raises(OSError):
            socket.create_connection((server.host, server.port), timeout=5)
        for client in (chunked, unknown, download):
            assert replies_till_the_end(client) == [426, 421]
    assert server.process.wait(timeout=20) == 0
    assert time.monotonic() - begun < GRACE + SLACK
    assert open_sessions(small_box, mark) == 0
    assert any(e["method"] == "DELETE" for e in small_box.journal(mark)), "there was one to abort"
    assert small_box.find("half") is None and small_box.find("half-too") is None


def test_what_ends_within_the_grace_ends_well(start, small_box):
    server = start(grace=20)
    client = server.ftp()
    client.voidcmd("TYPE I")
    client.sendcmd("ALLO 300000")
    with client.transfercmd("STOR whole") as data:
        data.sendall(pattern(300_000)[:200_000])
        server.process.send_signal(signal.SIGTERM)
        time.sleep(0.2)
        data.sendall(pattern(300_000)[200_000:])
    assert replies_till_the_end(client) == [226, 421]
    assert server.process.wait(timeout=20) == 0
    assert small_box.content(small_box.find("whole")["id"]) == pattern(300_000)


def test_a_command_that_takes_too_long_gets_the_farewell_alone(start, small_box):
    small_box.fault(method="POST", path="/2.0/folders", delay_ms=6000)
    server = start()
    client = server.ftp()
    client.putcmd("MKD slow")
    time.sleep(0.5)
    server.process.send_signal(signal.SIGTERM)
    assert replies_till_the_end(client) == [421]
    assert server.process.wait(timeout=20) == 0
    small_box.clear_faults()


def test_a_second_signal_ends_at_once(start):
    server = start("idle_timeout = 60")
    client = server.ftp()
    client.voidcmd("TYPE I")
    (server.directory / "server.toml").write_text(
        (server.directory / "server.toml").read_text().replace(f"grace_time = {GRACE}", "grace_time = 60"))
    server.process.send_signal(signal.SIGHUP)
    wait_until(lambda: "is read again" in server.log())
    late = server.ftp()
    late.voidcmd("TYPE I")
    with late.transfercmd("STOR never"):
        begun = time.monotonic()
        server.process.send_signal(signal.SIGTERM)
        time.sleep(0.5)
        assert server.process.poll() is None
        server.process.send_signal(signal.SIGTERM)
        server.process.wait(timeout=20)
    assert time.monotonic() - begun < SLACK
    client.close()


def change(server, before, after):
    """Changes the configuration and has it read again. \\return what the log says about it."""
    file = server.directory / "server.toml"
    text = file.read_text()
    assert before in text
    file.write_text(text.replace(before, after, 1))
    told = len(server.log())
    server.process.send_signal(signal.SIGHUP)
    wait_until(lambda: "read again" in server.log()[told:] or "nothing is changed" in server.log()[told:])
    return server.log()[told:]


def test_reload_takes_what_is_good_and_nothing_of_what_is_not(start):
    server = start("max_sessions = 1000")
    running = server.ftp()
    assert "read again" in change(server, "max_sessions = 1000", "max_sessions = 1")
    with pytest.raises(ftplib.error_temp, match="421 Too many sessions"):
        server.ftp()
    log = change(server, "max_sessions = 1", "max_sessions = 2000\nidle_timout = 5")
    assert 'unknown key "idle_timout"' in log and "nothing is changed" in log
    with pytest.raises(ftplib.error_temp, match="421 Too many sessions"):
        server.ftp()
    assert running.sendcmd("NOOP").startswith("200 "), "live sessions keep what they have"
    log = change(server, "idle_timout = 5", "")
    assert "nothing is changed" not in log
    server.ftp().quit()
    log = change(server, 'listen = ["127.0.0.1:0"]', 'listen = ["127.0.0.1:1"]')
    assert "listen in [server] has changed; that takes a restart" in log
    accounts = server.directory / "accounts.toml"
    good = accounts.read_text()
    accounts.write_text(good + "[bob\n")
    assert "nothing is changed" in change(server, "max_sessions = 2000", "max_sessions = 1")
    server.ftp().quit()
    accounts.write_text(good)
    running.close()


class Manager:
    """The end of a service manager: hears what the program notifies."""

    def __init__(self, directory):
        self.path = str(directory / "notify")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(self.path)
        self.heard = []
        self.thread = threading.Thread(target=self.listen, daemon=True)
        self.thread.start()

    def listen(self):
        with contextlib.suppress(OSError):
            while True:
                self.heard += self.socket.recv(4096).decode().splitlines()

    def wait_for(self, word):
        wait_until(lambda: any(line.startswith(word) for line in self.heard))
        self.heard = [line for line in self.heard if not line.startswith(word)]


def test_a_service_manager_is_told(start, tmp_path):
    manager = Manager(tmp_path)
    server = start(environment={"NOTIFY_SOCKET": manager.path, "WATCHDOG_USEC": "400000"})
    manager.wait_for("READY=1")
    manager.wait_for("WATCHDOG=1")
    manager.wait_for("WATCHDOG=1")
    server.process.send_signal(signal.SIGHUP)
    manager.wait_for("RELOADING=1")
    manager.wait_for("MONOTONIC_USEC=")
    manager.wait_for("READY=1")
    with contextlib.closing(server.ftp()) as client:
        client.voidcmd("TYPE I")
        with client.transfercmd("STOR never"):
            server.process.send_signal(signal.SIGTERM)
            manager.wait_for("STOPPING=1")
            manager.heard.clear()
            manager.wait_for("WATCHDOG=1")  # also while it waits for the transfer
    assert server.process.wait(timeout=20) == 0


def test_a_restart_refuses_nobody_when_the_socket_is_handed_over(tmp_path, small_box):
    """Who connects while no program runs waits, and is served by the next."""
    with socket.create_server(("127.0.0.1", 0)) as held:
        number = held.fileno()
        starting = ["/bin/bash", "-c", f'exec 3<&{number}; LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=ftp exec "$@"', "sh"]
        for address, serves in (("127.0.0.1:{}".format(held.getsockname()[1]), True), ("127.0.0.1:0", False), ) * 2:
            folder = tmp_path / uuid.uuid4().hex
            folder.mkdir()
            with socket.create_connection(held.getsockname(), timeout=20) as waiting:
                if not serves:
                    with pytest.raises(AssertionError, match="which is no address of listen"):
                        Server(folder, small_box, command=starting, listen=address, inherited=[number])
                    continue
                server = Server(folder, small_box, command=starting, listen=address, inherited=[number])
                assert waiting.recv(100).startswith(b"220 ")
            assert server.address == address
            assert server.stop() == 0


def test_a_renewed_certificate_is_for_those_who_come_and_a_bad_one_for_nobody(start, tmp_path, small_box):
    """On AUTH TLS and on an implicit address; a session that runs keeps the one that it began with."""
    authority = make_authority(tmp_path)
    first, second = (issue(tmp_path, authority, name, "/CN=localhost") for name in ("first", "second"))
    for source, target in ((first.file, "cert.pem"), (first.key, "key.pem")):
        shutil.copy(source, tmp_path / target)
    server = start(tables='[tls]\ncertificate = "cert.pem"\nkey = "key.pem"\nimplicit_listen = ["127.0.0.1:0"]')
    implicit = int(server.process.stdout.readline().decode().rsplit(":", 1)[1])
    trusted = ssl.create_default_context(cafile=authority.file)

    def serial():
        """Of the certificate that a new implicit connection sees."""
        with socket.create_connection((server.host, implicit), timeout=20) as plain, \
                trusted.wrap_socket(plain, server_hostname="localhost") as control:
            assert control.recv(100).startswith(b"220 ")
            return control.getpeercert()["serialNumber"]

    before = serial()
    running = ftplib.FTP_TLS(context=trusted, timeout=20)
    running.connect(server.host, server.port)
    running.login("alice", PASSWORD)
    (tmp_path / "cert.pem").write_text("no certificate")
    assert "nothing is changed" in change(server, "", "")
    assert serial() == before
    for source, target in ((second.file, "cert.pem"), (second.key, "key.pem")):
        shutil.copy(source, tmp_path / target)
    assert "read again" in change(server, "", "")
    assert serial() != before
    running.prot_p()
    lines = []
    running.retrlines("NLST", lines.append)  # its data connections too are those of the first
    running.quit()
