"""What one client may take: sessions, connections, guesses, time; and what a session may touch."""

import contextlib
import ftplib
import os
import pathlib
import pwd
import signal
import socket
import subprocess
import sys
import time

import pytest
from local import BUILD, PASSWORD, Server, is_sanitized, let_others_in, pattern, wait_until

LIMITED = """
[limits]
sessions_per_address = 3
connections_per_minute = 9
wrong_passwords = 3
wrong_passwords_window = 8
sessions_per_account = 2
line_length = 512
login_timeout = 4
stalled_timeout = 1
"""


@pytest.fixture(scope="module")
def limited(tmp_path_factory, box):
    """Each case comes from an address of its own."""
    program = Server(tmp_path_factory.mktemp("limited"), box, tables=LIMITED)
    yield program
    assert program.stop() == 0


class Control:
    """A control connection from a loopback address of the test's choice."""

    def __init__(self, server, address):
        self.socket = socket.create_connection((server.host, server.port), timeout=10, source_address=(address, 0))
        self.lines = self.socket.makefile("rb")
        self.greeting = self.reply()

    def reply(self):
        """The reply's last line; empty when the connection has ended."""
        line = b"   -"
        while line[3:4] == b"-":
            line = self.lines.readline()
        return line.decode().strip()

    def ask(self, line):
        self.socket.sendall(line.encode() + b"\r\n")
        return self.reply()

    def log_in(self, password=PASSWORD):
        self.ask("USER alice")
        return self.ask(f"PASS {password}")

    def close(self):
        self.lines.close()
        self.socket.close()


@contextlib.contextmanager
def controls():
    """Makes control connections and closes them at the end."""
    made = []

    def make(server, address):
        made.append(Control(server, address))
        return made[-1]

    yield make
    for control in made:
        control.close()


def session_gone(server, count):
    wait_until(lambda: len(server.sessions()) == count)


def test_an_address_has_so_many_sessions(limited):
    with controls() as connect:
        first, *_ = [connect(limited, "127.0.1.1") for _ in range(3)]
        refused = connect(limited, "127.0.1.1")
        assert refused.greeting.startswith("421 ") and refused.reply() == ""
        assert connect(limited, "127.0.1.2").greeting.startswith("220 ")
        first.close()
        session_gone(limited, 3)
        assert connect(limited, "127.0.1.1").greeting.startswith("220 ")
        os.kill(max(map(int, limited.sessions())), signal.SIGKILL)
        session_gone(limited, 3)
        assert connect(limited, "127.0.1.1").greeting.startswith("220 "), "a session that died gives its place back"
    session_gone(limited, 0)


def test_an_address_makes_so_many_connections_a_minute(limited):
    with controls() as connect:
        for _ in range(9):
            control = connect(limited, "127.0.2.1")
            assert control.greeting.startswith("220 ")
            control.close()
            session_gone(limited, 0)
        assert connect(limited, "127.0.2.1").greeting.startswith("421 ")
        assert connect(limited, "127.0.2.2").greeting.startswith("220 ")
    session_gone(limited, 0)


def test_an_address_guesses_so_often(limited):
    with controls() as connect:
        waiting = connect(limited, "127.0.3.1")
        assert connect(limited, "127.0.3.1").log_in("wrong").startswith("530 ")
        assert connect(limited, "127.0.3.1").log_in().startswith("230 "), "a right one resets nothing"
    session_gone(limited, 0)
    with controls() as connect:
        assert connect(limited, "127.0.3.1").log_in("wrong").startswith("530 ")
        last = connect(limited, "127.0.3.1")
        waiting = connect(limited, "127.0.3.1")
        assert last.log_in("wrong").startswith("530 ") and last.reply().startswith("421 ") and last.reply() == ""
        assert waiting.log_in().startswith("421 "), "over all connections"
        assert connect(limited, "127.0.3.1").greeting.startswith("421 ")
        assert connect(limited, "127.0.3.2").greeting.startswith("220 ")
    wait_until(lambda: greeting(limited, "127.0.3.1").startswith("220 "))
    session_gone(limited, 0)


def greeting(server, address):
    with contextlib.closing(Control(server, address)) as control:
        return control.greeting


def test_an_account_has_so_many_sessions(limited):
    with controls() as connect:
        first, second, third = (connect(limited, f"127.0.4.{i}") for i in (1, 2, 3))
        assert first.log_in().startswith("230 ") and second.log_in().startswith("230 ")
        assert third.log_in().startswith("421 ") and third.reply() == ""
        session_gone(limited, 2)
        first.ask("QUIT")
        session_gone(limited, 1)
        assert connect(limited, "127.0.4.3").log_in().startswith("230 ")
        os.kill(max(map(int, limited.sessions())), signal.SIGKILL)
        session_gone(limited, 1)
        assert connect(limited, "127.0.4.3").log_in().startswith("230 "), "a session that died gives its seat back"
    session_gone(limited, 0)


def test_a_long_line_is_skipped_and_a_login_has_its_time(limited):
    with controls() as connect:
        control = connect(limited, "127.0.5.1")
        assert control.ask("USER " + "x" * 505).startswith("331 ")
        assert control.ask("USER " + "x" * 506).startswith("500 ")
        assert control.ask("NOOP").startswith("200 ")
        begun = time.monotonic()
        assert control.reply().startswith("421 ") and time.monotonic() - begun < 6
    session_gone(limited, 0)


def test_a_line_without_end_costs_little(limited):
    """Neither memory nor time: most of it is thrown away as it comes, and its end ends the session."""
    with controls() as connect:
        control = connect(limited, "127.0.5.2")
        (pid,) = limited.sessions()
        before, resident = cpu_seconds(pid), int(status_of(pid)["VmHWM"][0])
        with contextlib.suppress(OSError):
            for _ in range(10):
                control.socket.sendall(b"x" * 1_000_000)
        more = int(status_of(pid)["VmHWM"][0]) - resident
        assert more < 8_000 or is_sanitized(BUILD / "bin/tarvex-gridftp-server"), f"{more} KiB"
        assert cpu_seconds(pid) - before < 5
        control.socket.shutdown(socket.SHUT_WR)
    session_gone(limited, 0)


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_a_transfer_that_stalls_is_given_up_and_one_that_waits_for_box_is_not(limited, box):
    box.file("still", pattern(100))
    box.file("much", pattern(30_000_000))
    client = limited.ftp()
    client.voidcmd("TYPE I")
    with client.transfercmd("RETR much"):
        with pytest.raises(ftplib.error_temp, match="426 .*too long"):
            client.voidresp()
    client.sendcmd("ALLO 1000")
    with client.transfercmd("STOR never") as data:
        data.sendall(b"x")
        with pytest.raises(ftplib.error_temp, match="426 .*too long"):
            client.voidresp()
    box.fault(method="GET", path="/2.0/files/*/content", delay_ms=2500)
    received = bytearray()
    client.retrbinary("RETR still", received.extend)
    assert bytes(received) == pattern(100)
    client.close()
    assert box.find("never") is None
    session_gone(limited, 0)


FLOOD = """
import socket, sys, threading
over, refused = threading.Event(), [0] * 8
def run(n):
    while not over.is_set():
        try:
            with socket.create_connection(("127.0.0.1", int(sys.argv[1])), 5, ("127.0.6.1", 0)) as s:
                refused[n] += s.recv(100).startswith(b"421")
        except OSError:
            pass
threads = [threading.Thread(target=run, args=(n,)) for n in range(8)]
for t in threads: t.start()
sys.stdin.read()
over.set()
for t in threads: t.join()
print(sum(refused))
"""


def test_a_flood_from_one_address_leaves_others_served(tmp_path, box):
    """What it costs them is measured by the benchmark `crowd`."""
    box.file("rate", pattern(5_000_000))
    # Not the default 600, which a machine may be too slow to go beyond.
    server = Server(tmp_path, box, tables="[limits]\nconnections_per_minute = 120")
    with subprocess.Popen(["nice", "-n", "19", sys.executable, "-c", FLOOD, str(server.port)], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as flood:
        # Past the connections that are admitted; each of them takes a process its time to begin.
        wait_until(lambda: "connection of 127.0.6.1:" in server.log(), seconds=120)
        begun = time.monotonic()
        while time.monotonic() < begun + 8:
            server.curl("-o", "/dev/null", f"{server.url}/rate")
            time.sleep(0.2)
        took = time.monotonic() - begun
        refused = int(flood.communicate(timeout=60)[0])
    assert refused > 50, "this was no flood"
    assert server.log().count("turned away") < took + 5, "the log is not flooded"
    assert server.stop() == 0


def status_of(pid):
    lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return {name: value.split() for name, value in (line.split(":", 1) for line in lines)}


def test_a_low_limit_of_descriptors_turns_nobody_away(tmp_path, box):
    """The listener keeps descriptors for each session, and takes as many as it is allowed to."""
    program = Server(tmp_path, box, command=["/bin/sh", "-c", 'ulimit -Sn 64; exec "$@"', "sh"])
    clients = [program.ftp() for _ in range(70)]
    assert all(client.sendcmd("NOOP").startswith("200") for client in clients)
    for client in clients:
        client.close()
    assert program.stop() == 0


@pytest.mark.skipif(os.geteuid() != 0, reason="only root becomes another user")
def test_a_session_is_the_configured_user_and_confined(tmp_path, box):
    """Its groups too: none that root had; and it does all that sessions do."""
    user = pwd.getpwnam("nobody")
    let_others_in(tmp_path)
    spool = tmp_path / "spool"
    spool.mkdir()
    os.chown(spool, user.pw_uid, user.pw_gid)
    starting = ["/bin/sh", "-c", f'chown {user.pw_uid} "{tmp_path}/alice.json"; exec "$@"', "sh"]
    program = Server(tmp_path, box, server_lines=f'spool_directory = "{spool}"', command=starting,
                     tables='[security]\nuser = "nobody"\nsandbox = "require"\n[limits]\nspool_memory_bytes = 1')
    client = program.ftp()
    for pid in (program.process.pid, *program.sessions()):
        status = status_of(pid)
        assert status["Uid"] == [str(user.pw_uid)] * 4 and status["Gid"] == [str(user.pw_gid)] * 4
        assert "0" not in status["Groups"]
        assert status["CapEff"] == status["CapPrm"] == ["0" * 16]
    for pid in program.sessions():
        status = status_of(pid)
        assert status["NoNewPrivs"] == ["1"] and status["Seccomp"] == ["2"]
    content = pattern(200_000)
    (tmp_path / "content").write_bytes(content)
    with open(tmp_path / "content", "rb") as file:
        client.storbinary("STOR confined", file)  # by way of the spool's file
    received = bytearray()
    client.retrbinary("RETR confined", received.extend)
    assert bytes(received) == content
    client.close()
    assert program.stop() == 0
