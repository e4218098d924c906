"""TLS with real clients, and with clients that do what none should."""

import contextlib
import ftplib
import io
import os
import re
import socket
import ssl
import subprocess
import threading
import time

import pytest
from certificates import issue, make_authority
from local import PASSWORD, Server, pattern

SIZE = 3_000_000
CONTENT = pattern(SIZE)
VERSIONS = {"1.2": ssl.TLSVersion.TLSv1_2, "1.3": ssl.TLSVersion.TLSv1_3}


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    """Certificates: `ca` has issued the server's and alice's, `foreign` one that calls itself alice's, too."""
    directory = tmp_path_factory.mktemp("keys")
    authority, foreign = make_authority(directory), make_authority(directory, "foreign")
    return {
        "ca": authority, "foreign": foreign,
        "server": issue(directory, authority, "server", "/CN=localhost"),
        "alice": issue(directory, authority, "alice", "/O=Example, Inc./CN=alice Ünal", "extendedKeyUsage=clientAuth"),
        "bob": issue(directory, authority, "bob", "/O=Example, Inc./CN=bob", "extendedKeyUsage=clientAuth"),
        "mallory": issue(directory, foreign, "mallory", "/O=Example, Inc./CN=alice Ünal", "extendedKeyUsage=clientAuth"),
    }


def tls_server(tmp_path_factory, box, keys, *lines, grace_ms=15):
    table = ["[tls]", f'certificate = "{keys["server"].file}"', f'key = "{keys["server"].key}"', *lines]
    return Server(tmp_path_factory.mktemp("tls"), box, server_lines="\n".join([f"end_grace_ms = {grace_ms}", *table]))


@pytest.fixture(scope="module")
def server(tmp_path_factory, box, keys):
    program = tls_server(tmp_path_factory, box, keys, 'implicit_listen = ["127.0.0.1:0"]',
                         f'client_ca = "{keys["ca"].file}"')
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def strict(tmp_path_factory, box, keys):
    """Nobody waits for the grace of a dead client: what ends with close_notify was ended by one that lives."""
    program = tls_server(tmp_path_factory, box, keys, "require_resumption = true", "require_close_notify = true",
                         grace_ms=60_000)
    yield program
    assert program.stop() == 0


def context(keys, version=None, alpn=None, certificate=None):
    """What a careful client uses."""
    made = ssl.create_default_context(cafile=keys["ca"].file)
    if version:
        made.minimum_version = made.maximum_version = VERSIONS[version]
    if alpn:
        made.set_alpn_protocols(alpn)
    if certificate:
        made.load_cert_chain(certificate.file, certificate.key)
    return made


class ResumingFtp(ftplib.FTP_TLS):
    """Python's own client does not resume."""

    def ntransfercmd(self, cmd, rest=None):
        connection, size = ftplib.FTP.ntransfercmd(self, cmd, rest)
        if self._prot_p:
            connection = self.context.wrap_socket(connection, server_hostname=self.host, session=self.sock.session)
        return connection, size


def ftp(server, keys, version=None, client=ResumingFtp, certificate=None, login=True):
    made = client(context=context(keys, version, certificate=certificate), timeout=30)
    made.connect(server.host, server.port)
    made.auth()
    if login:
        made.login("alice", PASSWORD)
        made.prot_p()
    return made


def fetch(client, name):
    received = bytearray()
    client.retrbinary(f"RETR {name}", received.extend)
    return bytes(received)


def use_curl(server, keys, version, folder, names):
    bounds = ["--tlsv1.2", "--tls-max", "1.2"] if version == "1.2" else ["--tlsv1.3"]
    common = ["--ssl-reqd", "--cacert", keys["ca"].file, *bounds]
    (folder / "source").write_bytes(CONTENT)
    server.curl(*common, *[part for name in names for part in ("-T", folder / "source", f"{server.url}/{name}")])
    server.curl(*common, *[part for name in names for part in ("-o", folder / name, f"{server.url}/{name}")])
    listing = server.curl(*common, f"{server.url}/").stdout.decode()
    assert all(name in listing for name in names)


def use_lftp(server, keys, version, folder, names):
    (folder / "source").write_bytes(CONTENT)
    puts = "; ".join(f"put {folder}/source -o {name}" for name in names)
    gets = "; ".join(f"get {name} -o {folder}/{name}" for name in names)
    listing = server.lftp(f"set ftp:ssl-force yes; set ftp:ssl-protect-data yes; set ftp:ssl-protect-list yes; "
                          f"set ssl:verify-certificate yes; set ssl:ca-file {keys['ca'].file}; "
                          f"set ssl:priority NORMAL:-VERS-ALL:+VERS-TLS{version}; {puts}; {gets}; ls").stdout
    assert all(name in listing for name in names)


def use_ftplib(server, keys, version, folder, names):
    client = ftp(server, keys, version)
    for name in names:
        client.storbinary(f"STOR {name}", io.BytesIO(CONTENT))
    for name in names:
        (folder / name).write_bytes(fetch(client, name))
    assert all(name in client.nlst() for name in names)
    client.quit()


@pytest.mark.parametrize("kind", ["server", "strict"])
@pytest.mark.parametrize("version", VERSIONS)
@pytest.mark.parametrize("use", [use_curl, use_lftp, use_ftplib])
def test_clients_send_fetch_and_list_under_tls(request, box, keys, tmp_path, use, version, kind):
    """Six transfers each: tickets have to last, and where data connections must resume, all of them do."""
    server = request.getfixturevalue(kind)
    names = [f"{use.__name__}-{kind}-{version}-{number}" for number in range(3)]
    use(server, keys, version, tmp_path, names)
    for name in names:
        assert (tmp_path / name).read_bytes() == CONTENT
        assert box.content(box.items()[name]["id"]) == CONTENT


def test_clients_refuse_a_server_whose_certificate_is_not_trusted(server, keys):
    refused = server.curl("--ssl-reqd", "--cacert", keys["foreign"].file, f"{server.url}/", check=False)
    assert refused.returncode == 60, refused.stderr
    assert server.curl("--ssl-reqd", "--cacert", keys["ca"].file, f"{server.url}/", check=False).returncode == 0


@pytest.fixture(scope="module")
def implicit(server):
    """Where the server begins with TLS: the second address that it tells."""
    lines = []
    reader = threading.Thread(target=lambda: lines.append(server.process.stdout.readline().decode()), daemon=True)
    reader.start()
    reader.join(10)
    assert lines and lines[0].startswith("listening on "), lines
    return lines[0].split()[-1]


@pytest.mark.parametrize("version", VERSIONS)
def test_implicit_tls_protects_data_from_the_start(server, implicit, keys, tmp_path, version):
    (tmp_path / "up").write_bytes(CONTENT)
    common = ["--cacert", keys["ca"].file, "--tlsv" + version, "--tls-max", version]
    server.curl(*common, "-T", tmp_path / "up", f"ftps://{implicit}/implicit-{version}")
    server.curl(*common, "-o", tmp_path / "down", f"ftps://{implicit}/implicit-{version}")
    assert (tmp_path / "down").read_bytes() == CONTENT


@pytest.mark.parametrize("more", [{}, {"disable_tls13": "true"}])
@pytest.mark.parametrize("kind", ["explicit_tls", "tls"])
def test_rclone_copies_both_ways(server, implicit, keys, tmp_path, kind, more):
    """Its own TLS verifies the server, never reads tickets of data connections, and keeps several connections."""
    obscured = subprocess.run(["rclone", "obscure", PASSWORD], capture_output=True, text=True, check=True).stdout.strip()
    port = implicit.rsplit(":", 1)[1] if kind == "tls" else server.port
    options = {"host": "localhost", "port": port, "user": "alice", "pass": obscured, kind: "true", **more}
    remote = ":ftp," + ",".join(f"{name}={value}" for name, value in options.items()) + ":"
    names = [f"{kind}{len(more)}-{number}" for number in range(6)]
    (tmp_path / "up").mkdir()
    for name in names:
        (tmp_path / "up" / name).write_bytes(CONTENT)
    for source, target in ((tmp_path / "up", f"{remote}rclone-{kind}{len(more)}"),
                           (f"{remote}rclone-{kind}{len(more)}", tmp_path / "down")):
        done = subprocess.run(["rclone", "--config", "", "--retries", "1", "copy", source, target], capture_output=True,
                              text=True, timeout=120, env={**os.environ, "SSL_CERT_FILE": str(keys["ca"].file)})
        assert done.returncode == 0, done.stderr
    for name in names:
        assert (tmp_path / "down" / name).read_bytes() == CONTENT


class Wire:
    """A control connection whose every byte the test decides on."""

    def __init__(self, server):
        self.host = server.host
        self.socket = socket.create_connection((server.host, server.port), timeout=20)
        self.unread = b""
        assert self.reply().startswith("220")

    def send(self, text):
        self.socket.sendall(text.encode())

    def reply(self):
        """The last line of the next reply."""
        while True:
            while b"\n" not in self.unread:
                more = self.socket.recv(4096)
                if not more:
                    return ""
                self.unread += more
            line, self.unread = self.unread.split(b"\n", 1)
            if re.match(rb"\d{3} ", line):
                return line.decode().rstrip()

    def ask(self, line):
        self.send(line + "\r\n")
        return self.reply()

    def secure(self, keys, **options):
        self.context = context(keys, **options)
        self.socket = self.context.wrap_socket(self.socket, server_hostname=self.host)
        return self

    def log_in(self):
        for line, code in [("USER alice", "331"), (f"PASS {PASSWORD}", "230"), ("PBSZ 0", "200"), ("PROT P", "200")]:
            assert self.ask(line).startswith(code), line
        return self

    def passive(self):
        port = int(re.search(r"\|\|\|(\d+)\|", self.ask("EPSV"))[1])
        return socket.create_connection((self.host, port), timeout=20)

    def private(self, connection, session=None):
        return self.context.wrap_socket(connection, server_hostname=self.host, session=session)


def private_wire(server, keys, **options):
    wire = Wire(server)
    assert wire.ask("AUTH TLS").startswith("234")
    return wire.secure(keys, **options)


@pytest.mark.parametrize("behind", ["USER alice\r\n", "USER alice\r\nPASS x\r\nNOOP\r\n", "SITE HELP", "\xff\xf4", "x" * 20000])
def test_what_was_sent_before_the_handshake_is_never_run(server, keys, behind):
    wire = Wire(server)
    wire.socket.sendall(b"AUTH TLS\r\n" + behind.encode("latin-1"))
    assert wire.reply().startswith("234")
    wire.secure(keys)
    assert wire.ask("SYST").startswith("215"), "the first reply is to the first command under TLS"
    assert wire.ask("PASS x").startswith("503"), "no user was taken over"


def test_what_was_said_before_the_handshake_is_forgotten(server, keys):
    wire = Wire(server)
    assert wire.ask("USER alice").startswith("331")
    assert wire.ask("AUTH TLS").startswith("234")
    wire.secure(keys)
    assert wire.ask(f"PASS {PASSWORD}").startswith("503")


def test_commands_have_their_order(server, keys):
    wire = Wire(server)
    rows = [("PBSZ 0", "503"), ("PROT P", "503"), ("CCC", "533"), ("AUTH", "501"), ("AUTH KERBEROS_V4", "504")]
    for line, code in rows:
        assert wire.ask(line).startswith(code), line
    assert wire.ask("auth tls").startswith("234")
    wire.secure(keys)
    rows = [("AUTH TLS", "503"), ("PROT P", "503"), ("PBSZ x", "501"), ("PBSZ 4294967296", "501"), ("PBSZ 1024", "200 PBSZ=0"),
            ("PROT S", "536"), ("PROT E", "536"), ("PROT X", "504"), ("PROT C", "200"), ("PROT P", "200"), ("CCC", "534"),
            ("REIN", "502")]
    for line, code in rows:
        assert wire.ask(line).startswith(code), line
    assert wire.log_in().ask("AUTH TLS").startswith("503")
    wire.send("FEAT\r\n")
    assert wire.reply().startswith("211")


@pytest.mark.parametrize("offered, chosen", [
    (None, None), (["ftp"], "ftp"), (["http/1.1", "ftp"], "ftp"), (["http/1.1"], "refused"), (["h2", "http/1.1"], "refused")])
def test_who_means_another_protocol_is_refused(server, keys, offered, chosen):
    if chosen == "refused":
        with pytest.raises(ssl.SSLError, match="(?i)no.application.protocol"):
            private_wire(server, keys, alpn=offered)
    else:
        wire = private_wire(server, keys, alpn=offered)
        assert wire.socket.selected_alpn_protocol() == chosen
        assert wire.ask("NOOP").startswith("200")


def test_renegotiation_is_refused(server, keys):
    client = subprocess.Popen(
        ["openssl", "s_client", "-connect", server.address, "-starttls", "ftp", "-tls1_2", "-CAfile", keys["ca"].file],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    client.stdin.write(b"R\n")
    client.stdin.flush()
    output = client.communicate(timeout=30)[0].decode()
    assert "RENEGOTIATING" in output and "no renegotiation" in output, output


@pytest.mark.parametrize("version", ["tls1", "tls1_1"])
def test_old_versions_are_refused(server, version):
    done = subprocess.run(["openssl", "s_client", "-connect", server.address, "-starttls", "ftp", f"-{version}",
                           "-cipher", "ALL:@SECLEVEL=0"], stdin=subprocess.DEVNULL, capture_output=True, timeout=30)
    assert done.returncode != 0 and b"alert protocol version" in done.stderr, done.stderr


def test_plain_bytes_on_a_private_data_connection_store_nothing(server, box, keys):
    wire = private_wire(server, keys).log_in()
    data = wire.passive()
    assert wire.ask("STOR plain").startswith("150")
    data.sendall(b"these bytes are plain" * 100)
    data.shutdown(socket.SHUT_WR)
    assert wire.reply().startswith("522")
    assert box.find("/plain") is None
    assert wire.ask("NOOP").startswith("200")


@pytest.mark.parametrize("version", VERSIONS)
def test_only_tickets_of_the_own_control_connection_resume(server, strict, box, keys, version):
    """Where resumption is required nobody else's ticket will do, and nowhere does one resume."""
    for program, outcome in [(server, "226"), (strict, "522")]:
        own, other = ftp(program, keys, version), ftp(program, keys, version)
        for name, owner, expected in [("own", own, "226"), ("other", other, outcome), ("none", None, outcome)]:
            plain, _ = ftplib.FTP.ntransfercmd(own, f"STOR ticket-{name}")
            data = (owner or own).context.wrap_socket(plain, server_hostname=own.host, session=owner and owner.sock.session)
            assert data.session_reused == (owner is own), name
            inside = data._sslobj  # which unwrap takes away
            with contextlib.suppress(OSError):  # a connection that is refused is closed
                data.sendall(name.encode())
                data.unwrap().close()
            assert owner is own or not inside.session.has_ticket, "a data connection handed out a ticket"
            reply = own.getline()
            assert reply.startswith(expected), (name, reply)
        for client in (own, other):
            client.close()


@pytest.mark.parametrize("end", ["close_notify", "FIN"])
def test_the_end_of_an_upload_may_have_to_be_vouched_for(server, strict, box, keys, end):
    for program, kind in [(server, "lenient"), (strict, "strict")]:
        client = ftp(program, keys)
        data, _ = client.ntransfercmd(f"STOR {end}-{kind}")
        data.sendall(CONTENT)
        if end == "close_notify":
            begun = time.monotonic()
            data.unwrap().close()
            assert time.monotonic() - begun < 5, "the client's end is answered before the file is stored"
        else:
            socket.socket.shutdown(data, socket.SHUT_WR)
        stored = end == "close_notify" or program is server
        assert client.getline().startswith("226" if stored else "426")
        found = box.find(f"/{end}-{kind}")
        assert (found is not None) == stored
        if stored:
            assert box.content(found["id"]) == CONTENT
        assert client.sendcmd("NOOP").startswith("200")
        client.close()


def test_downloads_end_with_close_notify(server, box, keys):
    box.file("vouched", CONTENT)
    client = ftp(server, keys)
    data, _ = client.ntransfercmd("RETR vouched")
    data.suppress_ragged_eofs = False
    received = bytearray()
    while piece := data.recv(65536):
        received += piece
    assert bytes(received) == CONTENT
    data.close()
    assert client.getline().startswith("226")
    client.close()


def add_accounts(server, keys):
    """Accounts that differ in what they ask for."""
    subject = "CN=alice Ünal,O=Example\\\\, Inc."
    text = (server.directory / "accounts.toml").read_text()
    if "[by-subject]" in text:
        return
    hashed = re.search(r'password = "(.*)"', text)[1]
    (server.directory / "accounts.toml").write_text(f"""{text}
[by-subject]
certificates = ["subject:{subject}"]
credential = "alice.json"
[by-digest]
certificates = ["sha256:{'0' * 64}", "sha256:{keys['alice'].sha256}"]
credential = "alice.json"
[by-either]
password = "{hashed}"
certificates = ["sha256:{keys['bob'].sha256}"]
credential = "alice.json"
""")


@pytest.mark.parametrize("account, certificate, user, password", [
    ("by-subject", "alice", "232", None), ("by-digest", "alice", "232", None), ("by-either", "bob", "232", None),
    ("by-subject", "bob", "331", "530"), ("by-digest", "bob", "331", "530"), ("by-either", "alice", "331", "230"),
    ("by-subject", None, "331", "530"), ("by-either", None, "331", "230"), ("alice", "alice", "331", "230"),
    ("nobody", "alice", "331", "530")])
def test_a_certificate_or_the_password_logs_in(server, keys, account, certificate, user, password):
    add_accounts(server, keys)
    wire = private_wire(server, keys, certificate=certificate and keys[certificate])
    assert wire.ask(f"USER {account}").startswith(user)
    if password:
        assert wire.ask(f"PASS {PASSWORD}").startswith(password)
    else:
        assert wire.ask("PASS").startswith("503") and wire.ask("PWD").startswith("257")


def test_certificates_of_other_authorities_end_the_handshake(server, keys):
    with pytest.raises((ssl.SSLError, OSError, AssertionError)):
        wire = private_wire(server, keys, certificate=keys["mallory"])
        assert wire.ask("NOOP").startswith("200")  # TLS 1.3 tells the client after its own end
    assert private_wire(server, keys).ask("NOOP").startswith("200")


def test_a_vanishing_client_hurts_nobody(server, keys):
    """In the middle of a handshake, of either connection, or behind it."""
    well = ftp(server, keys)
    for cut in (b"", b"\x16", b"\x16\x03\x01\x02\x00\x01", b"\x16\x03\x01\xff\xff" + b"x" * 100, b"GET / HTTP/1.1\r\n\r\n"):
        wire = Wire(server)
        assert wire.ask("AUTH TLS").startswith("234")
        wire.socket.sendall(cut)
        wire.socket.close()
        wire = private_wire(server, keys).log_in()
        data = wire.passive()
        assert wire.ask("LIST").startswith("150")
        data.sendall(cut)
        data.close()
        assert wire.reply().startswith("522")
    well.storbinary("STOR well", io.BytesIO(CONTENT))
    assert fetch(well, "well") == CONTENT
    well.quit()
