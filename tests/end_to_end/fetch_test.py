"""Files fetched through real clients, whole and in pieces, and what happens when Box goes away meanwhile."""

import pytest
from local import pattern

SIZE = 3_000_000


@pytest.fixture(scope="module")
def files(box):
    folder = box.folder("fetch")
    contents = {"data.bin": pattern(SIZE), "empty": b"", "one": b"1"}
    return {name: (box.file(name, content, folder), content) for name, content in contents.items()}


def fetch(ftp, path):
    received = bytearray()
    ftp.retrbinary(f"RETR {path}", received.extend)
    return bytes(received)


@pytest.mark.parametrize("name", ["data.bin", "empty", "one"])
def test_whole_files_arrive(files, server, ftp, tmp_path, name):
    content = files[name][1]
    assert fetch(ftp, f"/fetch/{name}") == content
    assert ftp.size(f"/fetch/{name}") == len(content)
    server.curl("-o", tmp_path / "curl", f"{server.url}/fetch/{name}")
    assert (tmp_path / "curl").read_bytes() == content
    server.lftp(f"get -O {tmp_path} /fetch/{name}")
    assert (tmp_path / name).read_bytes() == content


def test_curl_fetches_ranges_resumes_and_asks_for_attributes(files, server, tmp_path):
    content = files["data.bin"][1]
    for span, start, end in [("0-0", 0, 1), ("100-149", 100, 150), ("2999990-", SIZE - 10, SIZE)]:
        assert server.curl("-r", span, f"{server.url}/fetch/data.bin").stdout == content[start:end]
    (tmp_path / "part").write_bytes(content[:1_000_000])
    server.curl("-C", "-", "-o", tmp_path / "part", f"{server.url}/fetch/data.bin")
    assert (tmp_path / "part").read_bytes() == content
    head = server.curl("-I", f"{server.url}/fetch/data.bin").stdout.decode()
    assert f"Content-Length: {SIZE}" in head and "Last-Modified:" in head


@pytest.mark.parametrize("options", ["", "set ftp:passive-mode no; ", "set ftp:prefer-epsv yes; "])
def test_lftp_fetches_in_every_mode(files, server, tmp_path, options):
    server.lftp(f"{options}pget -n 3 -O {tmp_path} /fetch/data.bin")
    assert (tmp_path / "data.bin").read_bytes() == files["data.bin"][1]


@pytest.mark.parametrize("cut_after", [0, 100_000, SIZE - 1])
def test_a_cut_download_goes_on_where_it_stopped(files, box, ftp, cut_after):
    box.fault(method="GET", path="/d/**", times=1, cut_answer_after=cut_after)
    assert fetch(ftp, "/fetch/data.bin") == files["data.bin"][1]
