"""rclone's Box backend against the local Box, over TLS and through a proxy."""

import asyncio
import filecmp
import json
import os
import random
import subprocess
import threading
import urllib.parse

import pytest
from emulated_box import EmulatedBox

HOSTS = ("api.box.com", "upload.box.com", "app.box.com", "dl.boxcloud.com")
CLIENT = {"client_id": "id", "client_secret": "secret"}


class Proxy:
    """Every CONNECT is joined to one server, whatever host it names: a client with its hosts compiled in reaches the local
    Box, and nothing reaches anything else. `hosts` collects the names that were asked for."""

    def __init__(self, target_port):
        self.hosts, self.target_port = set(), target_port
        self.loop = asyncio.new_event_loop()
        server = self.loop.run_until_complete(asyncio.start_server(self.join, "127.0.0.1", 0))
        self.port = server.sockets[0].getsockname()[1]
        threading.Thread(target=self.loop.run_forever, daemon=True).start()

    async def join(self, reader, writer):
        self.hosts.add((await reader.readuntil(b"\r\n\r\n")).split()[1].decode().rsplit(":", 1)[0])
        from_box, to_box = await asyncio.open_connection("127.0.0.1", self.target_port)
        writer.write(b"HTTP/1.1 200 Connected\r\n\r\n")
        await asyncio.gather(self.copy(reader, to_box), self.copy(from_box, writer))

    async def copy(self, source, target):
        try:
            while piece := await source.read(262144):
                target.write(piece)
                await target.drain()
        except ConnectionError:
            pass
        target.close()

    def close(self):
        self.loop.call_soon_threadsafe(self.loop.stop)


def make_certificate(directory):
    """An authority of our own (ca.pem) and a certificate of Box's names by it (cert.pem, key.pem)."""
    extensions = directory / "extensions"
    extensions.write_text("subjectAltName=IP:127.0.0.1," + ",".join("DNS:" + host for host in HOSTS))
    for arguments in (
        "req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=local -keyout ca.key -out ca.pem",
        "req -newkey rsa:2048 -nodes -subj /CN=box -keyout key.pem -out box.csr",
        "x509 -req -in box.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile extensions -out cert.pem",
    ):
        subprocess.run(["openssl", *arguments.split()], cwd=directory, check=True, capture_output=True)


def old_token(box):
    """A token that has run out, with a refresh token that has not."""
    place = "/api/oauth2/authorize?response_type=code&client_id=id&redirect_uri=http%3A%2F%2Fh%2F"
    consent = box.send("POST " + place, "login=alice&password=alice&consent=grant", token="")
    form = {"grant_type": "authorization_code", "code": consent.headers["Location"].split("code=")[1], **CLIENT}
    refresh = box.send("POST /oauth2/token", urllib.parse.urlencode(form), token="").at("refresh_token")
    return json.dumps({"access_token": "old", "token_type": "bearer", "refresh_token": refresh,
                       "expiry": "2020-01-01T00:00:00Z"})


@pytest.fixture
def rclone(tmp_path):
    """Runs rclone with its remotes "bx" and "renewing". \\return what it printed."""
    make_certificate(tmp_path)
    box = EmulatedBox(tmp_path, "--certificate", tmp_path / "cert.pem", "--key", tmp_path / "key.pem",
                      "--set", "commit_pending_count=1", ca=tmp_path / "ca.pem")
    config = tmp_path / "rclone.conf"
    config.write_text(f"[bx]\ntype = box\naccess_token = {box.token}\n\n[renewing]\ntype = box\nclient_id = id\n"
                      f"client_secret = secret\ntoken = {old_token(box)}\n")
    proxy = Proxy(box.port)
    environment = dict(os.environ, HTTPS_PROXY=f"http://127.0.0.1:{proxy.port}", NO_PROXY="", no_proxy="")

    def run(*arguments):
        done = subprocess.run(
            ["rclone", "--config", config, "--ca-cert", tmp_path / "ca.pem", "--retries", "1", *arguments],
            env=environment, capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stderr
        return done.stdout

    yield run
    assert proxy.hosts <= set(HOSTS)
    proxy.close()
    assert box.stop() == 0


def make_tree(tree):
    source = random.Random(1)
    for name, size in {"a.txt": 10, "empty": 0, "sub folder/b c.bin": 70000, "sub folder/\u00fc/d": 1,
                       "large.bin": 51 * 1024 * 1024}.items():
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        (tree / name).write_bytes(source.randbytes(size))
        os.utime(tree / name, (1500000000, 1500000000))


def assert_same(left, right):
    names = sorted(str(path.relative_to(left)) for path in left.rglob("*"))
    assert names == sorted(str(path.relative_to(right)) for path in right.rglob("*"))
    files = [name for name in names if (left / name).is_file()]
    assert filecmp.cmpfiles(left, right, files, shallow=False)[0] == files
    assert {(right / name).stat().st_mtime for name in files} == {1500000000}


def test_files_up_and_down(rclone, tmp_path):
    tree = tmp_path / "up"
    make_tree(tree)
    rclone("copy", tree, "bx:tree")
    assert sorted(rclone("lsf", "bx:tree").split("\n")) == ["", "a.txt", "empty", "large.bin", "sub folder/"]
    rclone("check", tree, "bx:tree")
    rclone("copy", "bx:tree", tmp_path / "down")
    assert_same(tree, tmp_path / "down")

    (tree / "a.txt").write_text("a new version")
    rclone("copy", tree, "bx:tree")
    assert rclone("cat", "bx:tree/a.txt") == "a new version"
    assert rclone("cat", "--offset", "2", "--count", "3", "bx:tree/a.txt") == "new"
    rclone("moveto", "bx:tree/a.txt", "bx:tree/sub folder/moved.txt")
    rclone("copyto", "bx:tree/empty", "bx:tree/sub folder/copied")
    rclone("deletefile", "bx:tree/large.bin")
    assert sorted(rclone("lsf", "-R", "--files-only", "bx:tree").split("\n")) == [
        "", "empty", "sub folder/b c.bin", "sub folder/copied", "sub folder/moved.txt", "sub folder/\u00fc/d"]
    rclone("purge", "bx:tree")
    assert rclone("lsf", "bx:") == ""
    rclone("cleanup", "bx:")
    assert json.loads(rclone("about", "--json", "bx:"))["used"] == 0


def test_an_old_token_is_renewed(rclone):
    rclone("mkdir", "renewing:renewed")
    assert "renewed/" in rclone("lsf", "renewing:")
    rclone("rmdir", "renewing:renewed")
