"""Extended block mode, both ways: any number of connections, blocks in any order, ranges, and clients that break off."""

import contextlib
import ftplib
import re
import socket
import ssl
import struct
import time

import pytest
from block_client import CLOSES, EOD, EOF, HEADER, BlockClient, assemble, cut
from certificates import issue, make_authority
from local import PASSWORD, SMALL_BOX, SMALL_SERVER, Box, Server, pattern, sha1, wait_until

SIZE = 5_000_011
LANES = [1, 2, 4, 8, 16]


@pytest.fixture(scope="module")
def content(box):
    whole = pattern(SIZE, seed=8)
    box.file("blocks", whole)
    return whole


@pytest.fixture
def client(ftp):
    return BlockClient(ftp)


@pytest.mark.parametrize("lanes", LANES)
@pytest.mark.parametrize("announced", [True, False])
def test_uploads_arrive_whole(box, client, content, lanes, announced):
    for seed, size, shuffle in ((0, 65536, 0), (1, 200_000, 5), (2, 9_000, 40)):
        name = f"/up-{lanes}-{announced}-{seed}"
        if announced:
            client.ftp.sendcmd(f"ALLO {SIZE}")
        answer = client.store(name, cut(content, size, lanes, shuffle, seed=seed), striped=seed == 1)
        assert answer.startswith("226"), answer
        assert box.find(name)["size"] == SIZE and box.find(name)["sha1"] == sha1(content)


def test_the_end_of_a_connection_s_turn_may_be_its_last(box, client):
    """All of it lies there when the server begins to read, and the rest of a turn is the end of the data."""
    for size in range((1 << 20) - 2_000, (1 << 20) + 16_000, 2_000):
        whole = pattern(size, seed=9)
        blocks = [(offset, whole[offset:offset + 9_000]) for offset in range(0, size, 9_000)]
        address = client.passive()
        lane = client.connect(address)
        lane.sendall(b"".join(HEADER.pack(0, len(block), offset) + block for offset, block in blocks)
                     + HEADER.pack(EOF, 0, 1) + HEADER.pack(EOD | CLOSES, 0, 0))
        client.ftp.putcmd(f"STOR /turn-{size}")
        assert client.reply().startswith("150") and client.reply().startswith("226")
        lane.close()


@pytest.mark.parametrize("streams", LANES)
def test_downloads_come_whole(client, content, streams):
    answer, blocks, opened = client.fetch("/blocks", streams=streams, striped=streams == 2)
    assert answer.startswith(f"226 Transfer complete; {SIZE} bytes"), answer
    assert opened == streams
    assert assemble(blocks, SIZE) == (content, f"0-{SIZE}")
    assert client.store("/again", cut(content, 300_000, streams), command="STOR").startswith("226"), "both ways in turn"


@pytest.mark.parametrize("rest, command, missing", [
    ("0", "RETR", "0-5000011"),
    ("4000000", "RETR", "4000000-5000011"),
    ("0-100,200-300", "RETR", "100-200,300-5000011"),
    ("5000000-5000011,0-10,2000000-3000000,5-20", "RETR", "20-2000000,3000000-5000000"),
    ("100-5000011", "RETR", "0-100"),
    ("0-5000011", "RETR", ""),
    ("0-2000,3000-4000", "ERET P 1000 9000", "2000-3000,4000-10000"),
    (None, "ERET P 1000000 2500000", "1000000-3500000"),
    (None, "ERET P 4999999 -1", "4999999-5000011"),
    (None, "ERET P 7 0", ""),
])
def test_restarted_downloads_bring_what_is_missing(server, client, content, rest, command, missing):
    if rest:
        assert client.ftp.sendcmd(f"REST {rest}").startswith("350")
    answer, blocks, _ = client.fetch("/blocks", command=command, streams=3)
    assert answer.startswith("226"), answer
    got, ranges = assemble(blocks, SIZE)
    assert ranges == missing
    wanted = [tuple(map(int, part.split("-"))) for part in missing.split(",") if part]
    assert all(got[a:b] == content[a:b] for a, b in wanted)
    client.ftp.sendcmd("MODE S")
    if rest:
        client.ftp.sendcmd(f"REST {rest}")
    received = bytearray()
    client.ftp.retrbinary(f"{command} /blocks", received.extend)
    assert received == b"".join(content[a:b] for a, b in wanted), "in stream mode one after the other"


@pytest.fixture(scope="module")
def private(tmp_path_factory, box):
    """A server with TLS, and how clients with a certificate, with another, and with none speak it."""
    directory = tmp_path_factory.mktemp("private")
    authority = make_authority(directory)
    certificate = issue(directory, authority, "server", "/CN=localhost")
    server = Server(directory, box, server_lines=f'''[tls]
certificate = "{certificate.file}"
key = "{certificate.key}"
client_ca = "{authority.file}"''')
    contexts = {}
    for name in ("none", "alice", "bob"):
        contexts[name] = ssl.create_default_context(cafile=authority.file)
        if name != "none":
            shown = issue(directory, authority, name, f"/CN={name}", "extendedKeyUsage=clientAuth")
            contexts[name].load_cert_chain(shown.file, shown.key)
    yield server, contexts
    server.stop()


def private_client(server, context):
    ftp = ftplib.FTP_TLS(context=context, timeout=60)
    ftp.connect("127.0.0.1", server.port)
    ftp.login("alice", PASSWORD)
    ftp.prot_p()
    return BlockClient(ftp, context)


@pytest.mark.parametrize("lanes", LANES)
def test_tls_is_the_same_both_ways(box, private, content, lanes):
    server, contexts = private
    client = private_client(server, contexts["none"])
    if lanes % 4:
        client.ftp.sendcmd(f"ALLO {SIZE}")
    assert client.store(f"/tls-{lanes}", cut(content, 150_000, lanes, 4, seed=lanes)).startswith("226")
    assert box.find(f"/tls-{lanes}")["sha1"] == sha1(content)
    answer, blocks, opened = client.fetch("/blocks", streams=lanes)
    assert answer.startswith("226") and opened == lanes and assemble(blocks, SIZE)[0] == content


def test_data_connections_show_the_certificate(private, content):
    server, contexts = private
    client = private_client(server, contexts["none"])
    with pytest.raises(ftplib.error_perm, match="503"):
        client.ftp.sendcmd("DCAU A")
    client = private_client(server, contexts["alice"])
    assert client.ftp.sendcmd("DCAU A").startswith("200")
    assert client.fetch("/blocks", streams=2)[0].startswith("226")
    client.ftp.sendcmd("PROT C")
    client.passive()
    with pytest.raises(ftplib.error_perm, match="503 DCAU A needs private"):
        client.ftp.sendcmd("STOR /plain-dcau")
    client.ftp.sendcmd("PROT P")
    address = client.passive()
    client.ftp.putcmd("STOR /stolen")
    assert client.reply().startswith("150")
    with socket.create_connection(address) as plain, contexts["bob"].wrap_socket(plain, server_hostname="localhost"):
        assert client.reply().startswith("522 The data connection has to show the certificate")


def test_empty_files_go_both_ways(box, client):
    assert client.store("/empty", [[]]).startswith("226")
    assert box.find("/empty")["size"] == 0
    answer, blocks, opened = client.fetch("/empty", streams=4)
    assert answer.startswith("226") and blocks == {} and opened == 1


def test_ipv6_and_listings(tmp_path, box, content):
    server = Server(tmp_path, box, listen="[::1]:0")
    ftp = server.ftp()
    client = BlockClient(ftp)
    assert client.store("/six", cut(content, 100_000, 4)).startswith("226")
    assert box.find("/six")["sha1"] == sha1(content)
    answer, blocks, opened = client.fetch("/six", streams=4)
    assert answer.startswith("226") and opened == 4 and assemble(blocks, SIZE)[0] == content
    answer, blocks, _ = client.fetch("/", command="MLSD")
    assert answer.startswith("226") and b"; six\r\n" in assemble(blocks, sum(map(len, blocks.values())))[0]
    ftp.close()
    server.stop()


def test_wrong_orders_are_refused(client, content):
    client.passive()
    with pytest.raises(Exception, match="425 In extended block mode the server connects"):
        client.ftp.sendcmd("RETR /blocks")
    client.listen().close()
    with pytest.raises(Exception, match="425 In extended block mode the client connects"):
        client.ftp.sendcmd("STOR /x")
    for line, code in (("REST 0-5000012", "350"), ("RETR /blocks", "551"), ("ERET P 5000012 1 /blocks", "551"),
                       ("ERET X 1 1 /blocks", "504"), ("ERET P 1 /blocks", "501"), ("ERET P 9223372036854775807 2 /b", "501"),
                       ("ESTO A 5 /new", "425"), ("ESTO B 5 /new", "504"), ("ESTO A -1 /new", "501"),
                       ("OPTS RETR Parallelism=0;", "501"), ("OPTS RETR Parallelism=4,1,8;StripeLayout=Blocked;", "200"),
                       ("OPTS RETR Nonsense=1;", "501"), ("OPTS RETR Parallelism=99;BlockSize=1;", "200 .*16 conn"),
                       ("DCAU N", "200"), ("DCAU A", "503"), ("DCAU S /CN=x", "504"), ("DCAU", "501"), ("DCAU X", "501"),
                       ("SBUF 1000000", "200"), ("SBUF x", "501"), ("SITE BUFSIZE 65536", "200"), ("SPOR 1,2,3", "501"),
                       ("SPOR 127,0,0,1,200,1 127,0,0,1,200,2", "200"), ("SPOR 127,0,0,2,200,1", "504"),
                       ("SPAS", "229"), ("REST 5-1", "501"), ("MODE X", "504"), ("MODE s", "200"), ("MODE E", "200")):
        client.ftp.putcmd(line)
        assert re.match(code, client.reply()), line
    client.passive()
    client.ftp.putcmd("ESTO A 5 /new")
    assert client.reply().startswith("553"), "nothing to go on with"
    assert client.store("/esto", cut(content, 100_000, 2), command="ESTO A 0").startswith("226")


HOSTILE = {
    "count that overflows": ([HEADER.pack(0, 2**64 - 1, 1)], "451"),
    "offset that overflows": ([HEADER.pack(0, 10, 2**63 - 5)], "451"),
    "header cut short": ([b"\0" * 9], "426"),
    "payload cut short": ([HEADER.pack(0, 100, 0) + b"x" * 50], "426"),
    "no end": ([HEADER.pack(0, 5, 0) + b"12345"], "426"),
    "ends on no connection": ([HEADER.pack(EOF | EOD, 0, 0)], "451"),
    "ends on too many": ([HEADER.pack(EOF | EOD, 0, 17)], "451"),
    "ends on fewer than there are": ([HEADER.pack(0, 5, 0) + b"12345", HEADER.pack(EOF | EOD, 0, 1)], "451"),
    "overlap": ([HEADER.pack(0, 6, 0) + b"123456" + HEADER.pack(0, 6, 3) + b"abcdef"], "451"),
    "gap at the end": ([HEADER.pack(0, 5, 10) + b"12345" + HEADER.pack(EOF | EOD, 0, 1)], "426"),
    "damaged": ([HEADER.pack(32, 5, 0) + b"12345"], "451"),
    "gap wider than the window": ([HEADER.pack(0, 2**30, 2**40) + b"x" * 1000], "451"),
}


@pytest.mark.parametrize("name", HOSTILE)
def test_what_breaks_stores_nothing(box, server, name):
    sent, code = HOSTILE[name]
    good = BlockClient(server.ftp())
    client = BlockClient(server.ftp())
    address = client.passive()
    client.ftp.putcmd("STOR /hostile")
    assert client.reply().startswith("150")
    lanes = [client.connect(address) for _ in sent]
    for lane, raw in zip(lanes, sent):
        lane.sendall(raw)
        if "short" in name or name == "no end":
            lane.shutdown(socket.SHUT_WR)
    assert good.store("/good", cut(b"good" * 1000, 700, 2)).startswith("226"), "others go on"
    answer = client.reply()
    assert answer.startswith(code), answer
    assert box.find("/hostile") is None
    for lane in lanes:
        lane.settimeout(10)
        assert lane.recv(1) == b"", "closed"
    assert client.store("/hostile-after", cut(b"x" * 5000, 900, 2)).startswith("226"), "the session goes on"


@pytest.mark.parametrize("how", ["lane", "reset", "control"])
def test_clients_that_die_store_nothing(box, server, how):
    client = BlockClient(server.ftp())
    address = client.passive()
    client.ftp.putcmd("STOR /dead")
    assert client.reply().startswith("150")
    lanes = [client.connect(address) for _ in range(3)]
    for number, lane in enumerate(lanes):
        lane.sendall(HEADER.pack(0, 5, number * 5) + b"12345")
    time.sleep(0.3)  # who is gone before being let in was nobody
    if how == "control":
        client.ftp.close()
        with contextlib.suppress(OSError):  # the server may have seen that already, and have let go of the lanes
            lanes[0].sendall(HEADER.pack(EOF, 0, 3))
            for lane in lanes:
                lane.sendall(HEADER.pack(EOD | CLOSES, 0, 0))
    else:
        if how == "reset":
            lanes[1].setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        lanes[1].close()
        assert client.reply().startswith("426")
    time.sleep(0.3)
    assert box.find("/dead") is None


@pytest.fixture(scope="module")
def small(tmp_path_factory):
    """Files of some hundred kilobytes go up in parts, progress is told each second, and the window is small."""
    box = Box(tmp_path_factory.mktemp("small-box"), *SMALL_BOX)
    server = Server(tmp_path_factory.mktemp("small-server"), box, SMALL_SERVER,
                    server_lines="update_interval = 1\n[limits]\nwindow_bytes = 1048576\ndata_streams = 4")
    yield box, server
    server.stop()
    box.stop()


def test_markers_tell_where_an_upload_can_go_on(small):
    box, server = small
    content = pattern(400_000)
    client = BlockClient(server.ftp())
    client.ftp.sendcmd(f"ALLO {len(content)}")
    address = client.passive()
    client.ftp.putcmd("STOR /cut")
    assert client.reply().startswith("150")
    lanes = [client.connect(address) for _ in range(2)]
    lanes[0].sendall(HEADER.pack(0, 100_000, 0) + content[:100_000])
    lanes[1].sendall(HEADER.pack(0, 100_000, 100_000) + content[100_000:150_000])
    time.sleep(2.5)
    for lane in lanes:
        lane.close()
    answer = client.reply()
    assert answer.startswith("426") and "REST 120000" in answer
    marks = "\n".join(client.marks)
    assert "111 Range Marker 0-120000" in marks
    assert re.search(r"112-Perf Marker\n Timestamp: \d+\.\d\n Stripe Index: 0\n Stripe Bytes Transferred: 150000\n"
                     r" Total Stripe Count: 1\n112 End\.", marks), marks
    client.ftp.sendcmd("REST 0-100,120-50000")
    client.passive()
    client.ftp.putcmd("STOR /cut")
    assert client.reply().startswith("553"), "one range from the beginning"
    client.ftp.sendcmd("REST 0-90000")
    again = cut(content[90_000:], 7000, 3, 4, start=90_000, seed=3)
    assert client.store("/cut", again).startswith("226"), "what is there may come again"
    assert box.find("/cut")["sha1"] == sha1(content)


def test_early_blocks_wait_outside_the_window(small):
    box, server = small
    content = pattern(6_000_000)
    quarters = [[(at, content[at:at + 50_000]) for at in range(start, start + 1_500_000, 50_000)]
                for start in range(0, len(content), 1_500_000)]
    for announced in (True, False):
        client = BlockClient(server.ftp())
        if announced:
            client.ftp.sendcmd(f"ALLO {len(content)}")
        assert client.store(f"/quarters-{announced}", quarters).startswith("226")
        assert box.find(f"/quarters-{announced}")["sha1"] == sha1(content)
        answer = client.store("/many", [[]] * 5)
        assert answer.startswith("451") and "at most 4" in answer.lower(), answer


def test_stream_mode_sees_no_markers(small):
    box, server = small
    box.fault(method="PUT", path="/api/2.0/files/upload_sessions/*", delay_ms=1100, times=3)
    client = server.ftp()
    client.sendcmd("TYPE I")
    client.sendcmd("ALLO 200000")
    data = client.transfercmd("STOR /plain")
    data.sendall(pattern(200_000))
    data.close()
    assert client.getmultiline().startswith("226")
    wait_until(lambda: box.find("/plain"))
