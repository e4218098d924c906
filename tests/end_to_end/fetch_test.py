"""Files fetched through real clients, whole and in pieces, and what happens when Box or the client goes away."""

import ftplib
import socket
import threading
import time

import pytest
from local import Server, pattern, sha1, wait_until

SIZE = 3_000_000


@pytest.fixture(scope="module")
def files(box):
    folder = box.folder("fetch")
    contents = {"data.bin": pattern(SIZE), "empty": b"", "one": b"1"}
    return {name: (box.file(name, content, folder), content) for name, content in contents.items()}


def fetch(ftp, path, rest=None):
    received = bytearray()
    ftp.retrbinary(f"RETR {path}", received.extend, rest=rest)
    return bytes(received)


def downloads(box, mark):
    return [entry for entry in box.journal(mark) if entry["path"].startswith("/d/")]


@pytest.mark.parametrize("name", ["data.bin", "empty", "one"])
def test_whole_files_arrive(files, server, ftp, tmp_path, name):
    content = files[name][1]
    assert fetch(ftp, f"/fetch/{name}") == content
    assert ftp.size(f"/fetch/{name}") == len(content)
    server.curl("-o", tmp_path / "curl", f"{server.url}/fetch/{name}")
    assert (tmp_path / "curl").read_bytes() == content
    server.lftp(f"get -O {tmp_path} /fetch/{name}")
    assert (tmp_path / name).read_bytes() == content


@pytest.mark.parametrize("rest", [1, 65536, SIZE - 1, SIZE])
def test_fetching_goes_on_from_an_offset(files, ftp, rest):
    assert fetch(ftp, "/fetch/data.bin", rest) == files["data.bin"][1][rest:]
    assert fetch(ftp, "/fetch/one") == b"1", "REST holds for one command only"


@pytest.mark.parametrize("span, start, end", [("0-0", 0, 1), ("100-149", 100, 150), ("2999990-", SIZE - 10, SIZE)])
def test_curl_fetches_a_range(files, server, span, start, end):
    assert server.curl("-r", span, f"{server.url}/fetch/data.bin").stdout == files["data.bin"][1][start:end]


def test_curl_resumes_and_asks_for_attributes(files, server, tmp_path):
    content = files["data.bin"][1]
    (tmp_path / "part").write_bytes(content[:1_000_000])
    server.curl("-C", "-", "-o", tmp_path / "part", f"{server.url}/fetch/data.bin")
    assert (tmp_path / "part").read_bytes() == content
    head = server.curl("-I", f"{server.url}/fetch/data.bin").stdout.decode()
    assert f"Content-Length: {SIZE}" in head and "Last-Modified:" in head


@pytest.mark.parametrize("options", ["", "set ftp:passive-mode no; ", "set ftp:prefer-epsv yes; "])
def test_lftp_fetches_in_every_mode(files, server, tmp_path, options):
    server.lftp(f"{options}pget -n 3 -O {tmp_path} /fetch/data.bin")
    assert (tmp_path / "data.bin").read_bytes() == files["data.bin"][1]


def test_lftp_mirrors_a_tree(box, server, tmp_path):
    root = box.folder("mirror")
    expected = {}
    for i in range(8):
        folder = box.folder(f"folder {i}", root)
        for j in range(5):
            content = pattern(1000 * i + j, seed=i)
            box.file(f"file {j}.dat", content, folder)
            expected[f"folder {i}/file {j}.dat"] = sha1(content)
    server.lftp(f"mirror --parallel=4 /mirror {tmp_path}/copy")
    found = {str(path.relative_to(tmp_path / "copy")): sha1(path.read_bytes())
             for path in (tmp_path / "copy").rglob("*.dat")}
    assert found == expected


def test_a_folder_is_no_file(files, ftp):
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="^5.*PATH_NOT_FOUND|^550"):
        fetch(ftp, "/fetch")
    with pytest.raises(ftplib.error_perm, match='(?s)550-PATH_NOT_FOUND.*"/fetch/nothing"'):
        fetch(ftp, "/fetch/nothing")
    assert fetch(ftp, "/fetch/one") == b"1"


@pytest.mark.parametrize("cut_after", [0, 1, 100_000, SIZE - 1])
def test_a_cut_download_goes_on_where_it_stopped(files, box, ftp, cut_after):
    box.fault(method="GET", path="/d/**", times=1, cut_answer_after=cut_after)
    assert fetch(ftp, "/fetch/data.bin") == files["data.bin"][1]


def test_a_download_that_is_cut_again_fails_and_the_session_goes_on(files, box, ftp):
    box.fault(method="GET", path="/d/**", times=2, cut_answer_after=100_000)
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="^[45]"):
        fetch(ftp, "/fetch/data.bin")
    assert fetch(ftp, "/fetch/data.bin") == files["data.bin"][1]


@pytest.mark.parametrize("path, row, words", [
    ("/2.0/files/{id}/content", {"status": 403, "text": '{"code": "access_denied_insufficient_permissions"}'},
     "550-?.*PERMISSION_DENIED"),
    ("/2.0/files/{id}/content", {"status": 404, "text": '{"code": "trashed"}'}, "550-?.*PATH_NOT_FOUND"),
    ("/d/**", {"status": 500, "text": "<html>never for the client</html>"}, "500.*INTERNAL_ERROR"),
    ("/d/**", {"status": 404, "text": "<html>never for the client</html>"}, "550.*PATH_NOT_FOUND"),
    ("/2.0/files/{id}/content", {"status": 302, "headers": {"Location": "file:///etc/passwd"}, "text": ""}, "500"),
    ("/2.0/files/{id}/content", {"status": 302, "text": ""}, "500"),
    ("/2.0/files/{id}/content", {"status": 302, "headers": {"Location": "http://127.0.0.1:1/x"}, "text": "", "times": 2},
     "500"),
])
def test_box_refuses_a_download(files, box, server, path, row, words):
    client = server.ftp()
    client.nlst("/fetch")
    box.fault(method="GET", path=path.format(id=files["data.bin"][0]), **row)
    received = bytearray()
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match=f"(?s){words}"):
        client.retrbinary("RETR /fetch/data.bin", received.extend)
    assert received == b""
    box.clear_faults()
    assert fetch(client, "/fetch/one") == b"1"
    client.close()


def slow(box):
    """A Box that delivers one piece and then takes its time."""
    box.fault(method="GET", path="/d/**", times=1, piece_bytes=100_000, piece_delay_ms=30_000)


def test_a_client_that_closes_its_data_connection_stops_the_download(files, box, server):
    client = server.ftp()
    slow(box)
    data = client.transfercmd("RETR /fetch/data.bin")
    assert data.recv(1000)
    begun = time.monotonic()
    data.close()
    with pytest.raises(ftplib.error_temp, match="^426"):
        client.voidresp()
    assert time.monotonic() - begun < 3
    assert fetch(client, "/fetch/one") == b"1"
    assert " error " not in server.log().lower()
    client.close()


def test_abort_ends_a_stuck_download_and_the_session_goes_on(files, box, server):
    client = server.ftp()
    slow(box)
    data = client.transfercmd("RETR /fetch/data.bin")
    assert data.recv(1000)
    begun = time.monotonic()
    assert client.sendcmd("NOOP").startswith("200"), "the control connection stays responsive"
    client.putcmd("ABOR")
    assert client.getmultiline().startswith("426") and client.getmultiline().startswith("226")
    assert time.monotonic() - begun < 3
    data.close()
    assert fetch(client, "/fetch/one") == b"1"
    client.close()


def test_a_client_that_vanishes_takes_its_session_with_it(files, box, server):
    client = server.ftp()
    slow(box)
    data = client.transfercmd("RETR /fetch/data.bin")
    assert data.recv(1000)
    children = f"/proc/{server.process.pid}/task/{server.process.pid}/children"
    session = open(children).read().split()[-1]
    client.sock.close()
    client.file.close()
    data.close()
    wait_until(lambda: session not in open(children).read().split(), seconds=5)


def test_a_box_that_falls_silent_is_given_up(tmp_path, files, box):
    server = Server(tmp_path, box, settings={"progress_timeout_ms": 700})
    client = server.ftp()
    box.fault(method="GET", path="/d/**", times=2, piece_bytes=1000, piece_delay_ms=30_000)
    with pytest.raises((ftplib.error_perm, ftplib.error_temp), match="^[45]"):
        fetch(client, "/fetch/data.bin")
    assert fetch(client, "/fetch/one") == b"1"
    client.close()
    assert server.stop() == 0


def test_many_sessions_at_once(files, server):
    wrong = []

    def run():
        client = server.ftp()
        for _ in range(3):
            if sha1(fetch(client, "/fetch/data.bin")) != sha1(files["data.bin"][1]):
                wrong.append("other bytes")
        client.quit()

    threads = [threading.Thread(target=run) for _ in range(8)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(60)
    assert not wrong and not any(thread.is_alive() for thread in threads)


def test_nobody_else_gets_the_data(files, server):
    client = server.ftp()
    host, port = client.makepasv()
    thief = socket.create_connection((host, port), source_address=("127.0.0.2", 0))
    client.putcmd("RETR /fetch/one")
    honest = socket.create_connection((host, port))
    assert client.getresp().startswith("150")
    assert honest.recv(10) == b"1"
    assert thief.recv(10) == b""
    assert client.voidresp().startswith("226")
    for connection in (thief, honest):
        connection.close()
    client.close()
