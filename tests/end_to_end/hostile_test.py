"""Clients and answers of Box that mean harm. Meanwhile another session fetches a file, and has to get all of it."""

import http.server
import os
import pathlib
import re
import socket
import threading
import time
import urllib.request

import pytest
from local import Server, pattern, wait_until
from model_client import Client

LARGE = pattern(24_000_000)
LINE_MAX = 8192
CONTROL = re.compile(rb"[\x00-\x09\x0b\x0c\x0e-\x1f\x7f]|\xc2[\x80-\x9f]|\r(?!\n)|(?<!\r)\n")


@pytest.fixture(scope="module", autouse=True)
def files(box):
    box.file("large", LARGE)
    box.file("file", b"hello")


@pytest.fixture(autouse=True)
def other_session(server, files):
    """Begins a download before a case and ends it behind it; no session may have died in between."""
    client = Client(server)
    data = client.data()
    assert client.command("RETR /large")[0] == 150
    received = bytearray(data.recv(1 << 16))
    yield client
    while piece := data.recv(1 << 20):
        received += piece
    assert received == LARGE and client.reply()[0] == 226
    assert client.command("NOOP")[0] == 200
    client.close()
    data.close()
    assert "died of signal" not in server.log() and "Sanitizer" not in server.log()


@pytest.fixture
def session(server):
    client = Client(server)
    yield client
    client.close()


@pytest.fixture
def raw(server):
    """A control connection behind its greeting, and its lines."""
    with socket.create_connection((server.host, server.port), timeout=20) as control:
        lines = control.makefile("rb")
        assert lines.readline().startswith(b"220 ")
        yield control, lines


def verbs(client):
    return " ".join(client.command("HELP")[1].splitlines()[1:-1]).split()


@pytest.mark.parametrize("unit", [b"n", b"a/", b"../", b"\xff\xff", b'{a,b}*"%n'])
def test_names_of_every_length_in_every_command(server, session, unit):
    for verb in verbs(session):
        if verb in ("QUIT", "REIN", "USER", "PASS"):
            continue
        for size in (1, 256, 4096, 4097, LINE_MAX - 3 - len(verb), LINE_MAX - 2 - len(verb), 70_000):
            name = (unit * size)[:size]
            code, text = session.command(verb.encode() + b" " + name)
            assert 200 <= code < 600 and code != 421, (verb, size, text)
            assert size < 70_000 or code == 500, (verb, text)
        assert session.command("PWD")[0] == 257, verb
    # A login may be tried with any name, too.
    for verb in (b"USER ", b"PASS ", b"HOST ", b"CLNT "):
        client = Client(server, login=False)
        for size in (1, 255, 4096, 8180, 70_000):
            assert 200 <= client.command(verb + (unit * size)[:size])[0] < 600
        client.close()


@pytest.mark.parametrize("packets, codes", [
    ((b"NO\xff", b"\xf4\xff", b"\xf2OP\r\n"), "200"),
    ((b"\xff", b"\xfb", b"\x01NOOP\r\n"), "200"),
    ((b"\nNOOP\r\n", b"\r\n"), "502 200 502"),
    ((b"\xe4\xf6\xfc \xdf\x80\xfe\r\n", b"n\xe4op\r\nnoop\r\n"), "502 502 200"),
    ((b"CLNT \xff", b"\xff\xff\xff\r\n", b"CLNT \xff\r\n"), "200 200"),
    ((b"NOOP\0\r\nNO\rOP\r\n", b"NOOP\r", b"\nNOOP\n"), "501 501 200 200"),
    ((b"x" * 70_000, b"\r\nNOOP\r\n"), "500 200"),
    ((b"\xff\xff" * 70_000, b"\xff\nNOOP\r\n"), "500 200"),
    ((b"\xff" * 70_001 + b"\r\nNOOP\r\n",), "500 200"),
])
def test_bytes_that_are_no_text(raw, packets, codes):
    control, lines = raw
    control.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    for packet in packets:
        control.sendall(packet)
        time.sleep(0.01)
    for code in codes.split():
        assert lines.readline().startswith(code.encode()), (packets, code)


@pytest.mark.parametrize("request_lines", [
    b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", b"POST /x HTTP/1.1\r\nContent-Length: 5\r\n\r\n", b"get /\r\n",
    b"Host: 127.0.0.1\r\n", b"X" * 9000 + b"\r\nCookie: y\r\n", b"CONNECT x:1 HTTP/1.1\r\n",
])
def test_a_browser_gets_one_reply_and_no_command_through(raw, request_lines):
    control, lines = raw
    control.sendall(request_lines + b"USER alice\r\nNOOP\r\n")
    *too_long, last = lines.readlines()
    assert last.startswith(b"500 This is") and all(line.startswith(b"500 The line") for line in too_long)


def processor_ticks(session):
    fields = pathlib.Path(f"/proc/{session}/stat").read_text().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


@pytest.mark.parametrize("text", [b"x" * 100_000, b"\xff" * 100_000, b"USER " + b"\0" * 100_000, b"", b"\xff", b"\r"])
def test_an_endless_line_costs_no_time(server, text):
    before = set(server.sessions())
    client = Client(server, login=False)
    client.control.sendall(text)
    (session,) = set(server.sessions()) - before
    time.sleep(0.1)
    ticks = processor_ticks(session)
    time.sleep(0.4)
    assert processor_ticks(session) - ticks <= 0.05 * os.sysconf("SC_CLK_TCK")
    client.control.shutdown(socket.SHUT_WR)
    wait_until(lambda: session not in server.sessions(), seconds=5)
    client.close()


@pytest.mark.parametrize("offset, accepted", [
    ("-1", False), ("9223372036854775807", True), ("9223372036854775808", False), ("18446744073709551615", False),
    ("18446744073709551616", False), ("1e3", False), ("0x10", False), (" 5", False), ("6", True)])
def test_offsets_beyond_everything(box, session, offset, accepted):
    for line, refusal in (("RETR /file", 551), ("STOR /file", 553), ("NOOP", 200), ("LIST /file", None)):
        data = session.data()
        assert session.command(f"REST {offset}")[0] == (350 if accepted else 501)
        if line.startswith("STOR") and not accepted:
            continue  # would be stored
        code = session.command(line)[0]
        if code == 150:
            assert data.recv(100) and session.reply()[0] == 226
            assert not accepted or line.startswith("LIST")
        else:
            assert code == refusal or (code == 200 and line == "NOOP"), line
        data.close()
    # What was refused, or not used, is not in force any more.
    session.command("PWD")
    assert session.fetch("RETR /file")[2] == b"hello" and box.content(box.find("/file")["id"]) == b"hello"


def test_data_connections_to_nowhere(session):
    """What has ended whole servers: addresses with too few numbers, and transfers with no data connection."""
    rows = [("PORT 127,0,0,1,4", 501), ("STOR /x", 425), ("PORT 1", 501), ("RETR /file", 425), ("PORT ,", 501), ("LIST", 425),
            ("EPRT |", 501), ("APPE /x", 553), ("EPRT |1", 501), ("MLSD", 425), ("EPRT ||||", 501), ("NLST", 425),
            ("PORT 10,0,0,1,200,1", 504), ("PORT 127,0,0,1,0,25", 504), ("EPRT |1|192.0.2.1|40000|", 504),
            ("PORT 0,0,0,0,200,1", 504), ("PORT 255,255,255,255,200,1", 504), ("EPRT |1|224.0.0.1|40000|", 504),
            ("EPRT |2|::ffff:127.0.0.1|40000|", 522), ("STOR /x", 425)]
    for line, code in rows:
        assert session.command(line)[0] == code, line
    with socket.create_server(("127.0.0.1", 0)) as listener:
        port = listener.getsockname()[1]
    assert session.command(f"PORT 127,0,0,1,{port >> 8},{port & 255}")[0] == 200  # nobody listens there
    assert session.command("STOR /x")[0] == 150 and session.reply()[0] == 425
    assert session.fetch("RETR /file")[2] == b"hello"


ITEM = {"type": "file", "id": "77", "name": "good", "size": 5, "content_modified_at": "2020-01-02T03:04:05-00:00", "sha1": "a" * 40}
NAMES = ["a\r\nb", "a\n226 done", "\x1b[31m", "a\x7fb\x85c", "\u2028", "..", ".", "a/b", "", "n" * 70_000, " ", "-la", "\ufeff"]
ODD = [{"size": value} for value in (1.5, -5, 1e300, -1e300, "5", None, True, [5], 2**63 - 1, -2**63, {})]
ODD += [{"content_modified_at": value} for value in (None, 7, "", "9999-99-99T99:99:99-99:99", "0000-00-00T00:00:00+00:00", "x" * 9000)]
ODD += [{"sha1": value} for value in (None, 7, "", "z" * 9000)] + [{"name": None}, {"id": None}, {"id": 7}, {"type": "x"}, {"type": None}]
PAGES = [[], {}, None, 7, "x", {"entries": None}, {"entries": {}}, {"entries": [None, 7, "x", []]}, {"entries": [[]] * 100},
         {"entries": [], "next_marker": 7}]


def check_listings(session, path):
    """Every listing of a folder is clean to the byte, or refused; and the session goes on."""
    for verb in ("LIST", "NLST", "MLSD", "STAT"):
        code, text, received = session.fetch(f"{verb} {path}") if verb != "STAT" else (*session.command(f"STAT {path}"), b"")
        assert code in (226, 213) or 400 <= code < 600, text
        assert not CONTROL.search(received) and not CONTROL.search(text.encode()), (verb, received, text)
        for line in received.splitlines():
            assert verb != "LIST" or re.match(rb"[d-][rwx-]{9} +1 ftp +ftp +\d+ \w{3} [ \d]\d [ \d:]{5} .", line), line
            assert verb != "MLSD" or re.match(rb"type=(file|dir|cdir);(size=\d+;)?modify=\d{14};perm=\w*;.* .", line), line
    assert session.command("PWD")[0] == 257


def hostile_pages():
    yield from PAGES
    for name in NAMES:
        yield {"entries": [ITEM, {**ITEM, "name": name}, {**ITEM, "type": "folder", "name": name, "id": "78"}]}
    for change in ODD:
        yield {"entries": [ITEM, {**ITEM, **change}]}
    yield {"entries": [{key: value for key, value in ITEM.items() if key == kept} for kept in ITEM]}


def test_listings_that_box_would_never_send(box, server):
    folder = box.folder("hostile")
    session = Client(server)
    for page in hostile_pages():
        box.fault(path=f"/2.0/folders/{folder}/items", status=200, body=page, times=0)
        check_listings(session, "/hostile")
        box.clear_faults()
    for text in ("", "{", '{"entries":[', "[" * 100_000, '{"entries":[{"name":"\\ud800"}]}', '{"entries":[{"name":"a\\u0000b"}]}',
                 '{"entries":[{"size":1e999}]}', '{"entries":[{"size":99999999999999999999}]}', "<html>", "\x00"):
        box.fault(path=f"/2.0/folders/{folder}/items", status=200, text=text, times=0)
        check_listings(session, "/hostile")
        box.clear_faults()
    assert session.fetch("NLST /hostile")[0] == 226
    session.close()


def test_names_in_no_encoding(tmp_path, box):
    """A Box behind a proxy that breaks the UTF-8 of one name."""
    box.file("broken-name", b"x", box.folder("encoding"))

    class Proxy(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            asked = urllib.request.Request(box.base + self.path, headers={"Authorization": self.headers["Authorization"]})
            with urllib.request.urlopen(asked, timeout=20) as answer:
                body = answer.read().replace(b"broken-name", b"bro\xc3\xffn-\xf5\x80")
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Proxy) as proxy:
        threading.Thread(target=proxy.serve_forever, daemon=True).start()
        server = Server(tmp_path, box, api_base=f"http://127.0.0.1:{proxy.server_port}")
        client = Client(server)
        check_listings(client, "/encoding")
        client.close()
        assert server.stop() == 0
        proxy.shutdown()
