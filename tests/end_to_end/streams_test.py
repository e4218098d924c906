"""Large files in ranges side by side: byte for byte, or a clear error, whatever the download address does meanwhile."""

import ftplib
import threading
import time

import pytest
from block_client import BlockClient, assemble
from download_host import DownloadHost
from local import Box, Server, form, pattern, wait_until

SIZE = 12_000_007
CONTENT = pattern(SIZE, seed=10)
STREAMS = {"download_streams": 4, "download_stream_minimum": 1_000_000, "download_range": 1 << 20, "max_delay": 1,
           "progress_timeout_ms": 2000}
LASTING = 0  # times of a fault: all


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    program = Server(tmp_path_factory.mktemp("server"), box, settings=STREAMS, server_lines="end_grace_ms = 15")
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def file_id(box):
    return box.file("large", CONTENT)


def fetch(ftp, path="/large", start=0):
    """\\return what came, and the final reply."""
    received = bytearray()
    ftp.voidcmd("TYPE I")
    with ftp.transfercmd(f"RETR {path}", rest=start or None) as data:
        while piece := data.recv(1 << 20):
            received += piece
    try:
        return bytes(received), ftp.voidresp()
    except ftplib.Error as error:
        return bytes(received), str(error)


def expect(ftp, error, content=CONTENT):
    received, reply = fetch(ftp)
    assert error in reply and reply[0] in ("45" if error else "2"), reply
    assert received == content if not error else content.startswith(received)
    return reply


def asked_of(box, since):
    """What was asked for a download: "record", "content" or a range."""
    kinds = []
    for entry in box.journal(since):
        path = entry["path"]
        ranges = [value for name, value in entry["headers"] if name == "Range"]
        if path.startswith("/d/"):
            kinds.append(ranges[0] if ranges else "all")
        elif path.startswith("/2.0/files/"):
            kinds.append("content" if path.endswith("/content") else "record")
    return kinds


def spans_of(kinds):
    return sorted(tuple(map(int, kind[len("bytes="):].split("-"))) for kind in kinds if kind.startswith("bytes="))


def test_a_file_comes_in_ranges_from_one_address(box, ftp, file_id):
    since = box.mark()
    expect(ftp, "")
    kinds = asked_of(box, since)
    assert kinds[:2] == ["record", "content"] and kinds.count("content") == 1
    spans = spans_of(kinds[2:])
    assert spans[0][0] == 0 and spans[-1][1] == SIZE - 1 and len(spans) == len(kinds) - 2
    assert all(before[1] + 1 == after[0] for before, after in zip(spans, spans[1:]))
    assert max(last - first + 1 for first, last in spans) == 1 << 20


@pytest.mark.parametrize("settings", [{}, {**STREAMS, "download_streams": 1},
                                      {**STREAMS, "download_stream_minimum": SIZE + 1}])
def test_otherwise_there_is_one_stream(tmp_path, box, file_id, settings):
    alone = Server(tmp_path, box, settings=settings)
    client = alone.ftp()
    client.size("/large")
    for start, asked in ((0, "all"), (7, "bytes=7-")):
        since = box.mark()
        assert fetch(client, start=start)[0] == CONTENT[start:]
        assert asked_of(box, since) == ["content", asked]
    client.close()
    alone.stop()


DOWN = {"method": "GET", "path": "/d/**"}
FAULTS = {
    "cut before the answer": ({"times": 6, "cut_before_answer": True}, ""),
    "cut before a later answer": ({"nth": 9, "times": 4, "cut_before_answer": True}, ""),
    "cut at the start of a range": ({"times": 5, "cut_answer_after": 0}, ""),
    "cut after its first byte": ({"nth": 3, "times": 5, "cut_answer_after": 1}, ""),
    "cut in the middle of every range": ({"nth": 1, "times": 12, "cut_answer_at": 0.5}, ""),
    "cut again and again": ({"times": LASTING, "cut_answer_after": 200_000}, ""),
    "cut before every answer": ({"nth": 8, "times": LASTING, "cut_before_answer": True}, "without an answer"),
    "429": ({"nth": 2, "times": 3, "status": 429, "empty": True}, ""),
    "429 with Retry-After": ({"nth": 2, "status": 429, "empty": True, "headers": {"Retry-After": "1"}}, ""),
    "429 for ever": ({"nth": 2, "times": LASTING, "status": 429, "empty": True}, "TOO_BUSY"),
    "500": ({"nth": 1, "times": 5, "status": 500, "html": "<p>out of order"}, ""),
    "503 with Retry-After": ({"nth": 5, "status": 503, "empty": True, "headers": {"Retry-After": "1"}}, ""),
    "500 for ever": ({"nth": 7, "times": LASTING, "status": 500, "html": "<p>out of order"}, "INTERNAL_ERROR"),
    "401": ({"nth": 4, "status": 401, "empty": True}, ""),
    "403": ({"nth": 1, "times": 3, "status": 403, "html": "<p>forbidden"}, ""),
    "404 now and then": ({"probability": 0.2, "times": LASTING, "status": 404, "html": "<p>gone"}, ""),
    "403 for ever": ({"nth": 6, "times": LASTING, "status": 403, "html": "<p>forbidden"}, "PERMISSION_DENIED"),
    "404 for ever": ({"times": LASTING, "status": 404, "html": "<p>gone"}, "PATH_NOT_FOUND"),
    "200 with a page": ({"nth": 5, "status": 200, "html": "<p>wait"}, ""),
    "400": ({"nth": 5, "status": 400, "html": "<p>no"}, "Bad BOX request"),
    "416": ({"nth": 5, "status": 416, "empty": True, "headers": {"Content-Range": f"bytes */{SIZE}"}},
            "refused a part of the file"),
    "416 of a shorter file": ({"nth": 9, "status": 416, "empty": True, "headers": {"Content-Range": "bytes */99"}},
                              "FILE_CHANGED"),
    "416 of a shorter file at once": ({"nth": 1, "status": 416, "times": 4, "empty": True,
                                       "headers": {"Content-Range": "bytes */99"}}, ""),
    "another range": ({"nth": 6, "status": 206, "text": "0123456789", "headers": {"Content-Range": f"bytes 0-9/{SIZE}"}},
                      "another part of the file"),
    "a range without Content-Range": ({"nth": 6, "status": 206, "text": "0123456789"}, "another part of the file"),
    "nothing for too long": ({"nth": 4, "times": 2, "hang": True}, ""),
}


@pytest.mark.parametrize("what", FAULTS)
def test_faults_of_the_download_address(box, ftp, file_id, what):
    fault, error = FAULTS[what]
    box.fault(**DOWN, **fault)
    since = box.mark()
    expect(ftp, error)
    assert asked_of(box, since).count("content") <= (5 if "for ever" in what else SIZE)
    box.clear_faults()
    expect(ftp, "")


CONTENT_FAULTS = {
    "addresses that have expired": ({"times": 3, "settings": {"download_lifetime_s": 0}}, ""),
    "an address that never holds": ({"times": LASTING, "settings": {"download_lifetime_s": 0}}, "PATH_NOT_FOUND"),
    "a refused renewal": ({"nth": 2, "status": 403, "code": "access_denied_insufficient_permissions"},
                          "PERMISSION_DENIED"),
    "a renewal that has to wait": ({"nth": 2, "times": 3, "status": 429, "empty": True}, ""),
    "no record": ({"path": "/2.0/files/*/", "status": 500, "times": 2, "empty": True}, ""),
}


@pytest.mark.parametrize("what", CONTENT_FAULTS)
def test_faults_of_renewals(box, ftp, file_id, what):
    fault, error = CONTENT_FAULTS[what]
    box.fault(**{"method": "GET", "path": "/2.0/files/*/content", **fault})
    box.fault(**DOWN, nth=5, status=404, empty=True)
    expect(ftp, error)


@pytest.mark.parametrize("changes", [False, True])
def test_an_address_that_expires_gives_way_to_one_of_the_same_version(box, server, changes):
    number = box.file(f"renewed-{changes}", CONTENT)
    ftp = server.ftp()
    box.fault(**DOWN, nth=6, status=404, empty=True, delay_ms=700)
    since = box.mark()

    def change():
        wait_until(lambda: len(asked_of(box, since)) > 7)
        box.call("POST", f"/api/2.0/files/{number}/content", form("{}", pattern(SIZE, seed=11)),
                 {"Content-Type": "multipart/form-data; boundary=edge"})

    other = threading.Thread(target=change if changes else lambda: None)
    other.start()
    received, reply = fetch(ftp, f"/renewed-{changes}")
    other.join()
    assert CONTENT.startswith(received)
    assert reply.startswith("451") and "FILE_CHANGED" in reply if changes else len(received) == SIZE, reply
    received, reply = fetch(ftp, f"/renewed-{changes}")
    assert received == (pattern(SIZE, seed=11) if changes else CONTENT), "the second try gets the file as it is"
    ftp.close()


def tagged(tag, since=1, until=10**9):
    def script(request):
        if since <= request.number < until:
            request.headers_out["ETag"] = tag
    return script


def both(*scripts):
    return lambda request: [script(request) for script in scripts]


def whole(request):
    request.status, request.body, request.headers_out = 200, CONTENT, {}


def late(script, number):
    return lambda request: script(request) if request.number >= number else None


def of_size(size):
    def script(request):
        request.headers_out["Content-Range"] = f"bytes {request.first}-{request.last}/{size}"
    return script


def short_part(request):
    """Half of what was asked for, and it says so."""
    if request.last - request.first < 1000:
        return
    request.last = (request.first + request.last) // 2
    request.body = CONTENT[request.first:request.last + 1]
    request.headers_out = {"Content-Range": f"bytes {request.first}-{request.last}/{SIZE}"}


def lies_about_length(factor):
    """Another length than that of the announced range."""
    def script(request):
        request.body = CONTENT[request.first:request.first + 1 + int((request.last - request.first) * factor)]
    return script


HOSTS = {
    "validators that agree": (tagged('"a"'), ""),
    "validators that change": (both(tagged('"a"', until=8), tagged('"b"', since=8)), "FILE_CHANGED"),
    "validators that come late": (tagged('"a"', since=5), ""),
    "a date that changes": (lambda r: r.headers_out.update({"Last-Modified": f"day {r.number // 8}"}), "FILE_CHANGED"),
    "a size that changes": (late(of_size(SIZE + 1), 8), "FILE_CHANGED"),
    "another size than the record's": (of_size(SIZE + 1), ""),
    "no size": (of_size("*"), ""),
    "no ranges": (whole, ""),
    "no ranges any more": (late(whole, 7), ""),
    "shorter parts": (short_part, ""),
    "less than announced": (lies_about_length(0.8), ""),
    "more than announced": (lies_about_length(1.5), ""),
}


@pytest.mark.parametrize("what", HOSTS)
def test_download_hosts(box, ftp, file_id, what):
    script, error = HOSTS[what]
    with DownloadHost(CONTENT, script) as host:
        box.fault(**host.redirect)
        expect(ftp, error)


def test_parts_of_a_file(box, server, ftp, file_id, tmp_path):
    for start in (1, SIZE - 1_000_001, SIZE - 1):
        received, reply = fetch(ftp, start=start)
        assert received == CONTENT[start:], reply
    for start, length in ((100, 5_000_000), (SIZE - 2_000_000, 2_000_000)):
        with ftp.transfercmd(f"ERET P {start} {length} /large") as data:
            assert b"".join(iter(lambda: data.recv(1 << 20), b"")) == CONTENT[start:start + length]
        ftp.voidresp()
    (tmp_path / "curl").write_bytes(CONTENT[:3_000_000])
    server.curl("-C", "-", "-o", tmp_path / "curl", f"{server.url}/large")
    assert (tmp_path / "curl").read_bytes() == CONTENT
    server.lftp(f"pget -n 3 -O {tmp_path} /large")
    assert (tmp_path / "large").read_bytes() == CONTENT


@pytest.mark.parametrize("command, held, ranges", [
    ("RETR", None, f"0-{SIZE}"), ("RETR", "0-3000000,5000000-6000000", f"3000000-5000000,6000000-{SIZE}"),
    ("ERET P 1000 7000000", None, "1000-7001000")])
def test_extended_block_mode(box, ftp, file_id, command, held, ranges):
    client = BlockClient(ftp)
    box.fault(**DOWN, nth=3, times=5, cut_answer_at=0.5)
    if held:
        ftp.sendcmd(f"REST {held}")
    answer, blocks, _ = client.fetch("/large", command=command, streams=4)
    assert answer.startswith("226"), answer
    content, came = assemble(blocks, SIZE)
    assert came == ranges
    for part in ranges.split(","):
        first, end = map(int, part.split("-"))
        assert content[first:end] == CONTENT[first:end]


def test_blocks_come_in_any_order(box, ftp, file_id):
    def script(request):
        if request.first == 0:
            time.sleep(2)
    with DownloadHost(CONTENT, script) as host:
        box.fault(**host.redirect)
        client, order, blocks = BlockClient(ftp), [], {}
        answer, _, _ = client.fetch("/large", streams=4,
                                    take=lambda offset, block: (order.append(offset), blocks.__setitem__(offset, block)))
    assert answer.startswith("226"), answer
    assert assemble(blocks, SIZE) == (CONTENT, f"0-{SIZE}") and sum(map(len, blocks.values())) == SIZE
    # What would wait for the first range in stream mode is here before it.
    assert order.index(0) > 4


def test_gaps_are_filled_in_one_stream(box, ftp, file_id):
    """The address stops giving parts while the first range is still to come, and later ones are with the client."""
    def script(request):
        if request.first == 0 and request.number <= 4:
            time.sleep(0.3)
            request.wfile.write(b"HTTP/1.1 500 Out of order\r\n")
            raise BrokenPipeError
        if request.number > 8:
            whole(request)
    with DownloadHost(CONTENT, script) as host:
        box.fault(**host.redirect)
        client, blocks = BlockClient(ftp), []
        answer, _, _ = client.fetch("/large", streams=4, take=lambda *block: blocks.append(block))
    assert answer.startswith("226"), answer
    assert sum(len(block) for _, block in blocks) == SIZE, "no byte comes twice"
    assert assemble(dict(blocks), SIZE)[0] == CONTENT


def test_a_slow_client_bounds_what_is_fetched(box, server):
    box.fill("0", 1, 200_000_000, "slow-")
    ftp = server.ftp()
    since = box.mark()
    name = next(name for name in box.items() if name.startswith("slow-"))
    ftp.voidcmd("TYPE I")
    data = ftp.transfercmd(f"RETR /{name}")
    data.recv(1000)
    time.sleep(2.5)  # longer than a request may idle
    # Six ranges wait; the rest is in the buffers of the two sockets.
    assert spans_of(asked_of(box, since))[-1][1] < 60_000_000
    left = 200_000_000 - 1000
    while piece := data.recv(1 << 20):
        left -= len(piece)
    data.close()
    assert ftp.voidresp().startswith("226")
    assert left == 0
    ftp.close()


def test_an_aborted_download_ends_at_once(box, ftp, file_id):
    box.fault(**DOWN, nth=2, times=LASTING, piece_bytes=20_000, piece_delay_ms=100)
    data = ftp.transfercmd("RETR /large")
    data.recv(1000)
    started = time.monotonic()
    ftp.putcmd("ABOR")
    assert [ftp.getmultiline()[:3], ftp.getmultiline()[:3]] == ["426", "226"]
    assert time.monotonic() - started < 1.5
    data.close()
    box.clear_faults()
    expect(ftp, "")


def test_sessions_of_one_user_share_eight_connections(box, server, file_id):
    with DownloadHost(CONTENT, lambda request: time.sleep(0.05)) as host:
        box.fault(**host.redirect)
        clients = [server.ftp() for _ in range(3)]
        results = []
        threads = [threading.Thread(target=lambda c=c: results.append(fetch(c)[0] == CONTENT)) for c in clients]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for client in clients:
            client.close()
    assert results == [True] * 3
    assert 4 < host.most_at_once <= 8 + len(clients) - 1
