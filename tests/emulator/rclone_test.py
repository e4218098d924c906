"""rclone's Box backend against the local Box, over TLS and through a proxy.

The path of the built emulator comes in TARVEX_EMULATOR.
"""

import filecmp
import http.client
import json
import os
import pathlib
import random
import ssl
import subprocess
import tempfile
import unittest
import urllib.parse

from rclone_proxy import Proxy

HOSTS = ("api.box.com", "upload.box.com", "app.box.com", "dl.boxcloud.com")
TOKEN = "rclone-token"


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


class RcloneTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.holder = tempfile.TemporaryDirectory()
        cls.top = pathlib.Path(cls.holder.name)
        make_certificate(cls.top)
        cls.box = subprocess.Popen(
            [os.environ["TARVEX_EMULATOR"], "--quiet", "--listen", "127.0.0.1:0", "--data", cls.top / "box",
             "--account", "rc:" + TOKEN, "--certificate", cls.top / "cert.pem", "--key", cls.top / "key.pem",
             "--set", "commit_pending_count=1"],
            stdout=subprocess.PIPE, text=True)
        cls.port = int(cls.box.stdout.readline().rsplit(":", 1)[1])
        cls.proxy = Proxy(cls.port)
        (cls.top / "rclone.conf").write_text(
            f"[bx]\ntype = box\naccess_token = {TOKEN}\n\n"
            "[renewing]\ntype = box\nclient_id = id\nclient_secret = secret\ntoken = " + cls.old_token() + "\n")

    @classmethod
    def tearDownClass(cls):
        cls.proxy.close()
        cls.box.terminate()
        status = cls.box.wait()
        cls.box.stdout.close()
        cls.holder.cleanup()
        assert status == 0, f"the emulator ended with {status}"

    @classmethod
    def request(cls, path, form=None):
        """One request straight to the emulator; redirects are not followed."""
        context = ssl.create_default_context(cafile=cls.top / "ca.pem")
        connection = http.client.HTTPSConnection("127.0.0.1", cls.port, context=context)
        connection.request("POST" if form else "GET", path, urllib.parse.urlencode(form) if form else None)
        return connection.getresponse()

    @classmethod
    def old_token(cls):
        """A token that has run out, with a refresh token that has not."""
        query = "response_type=code&client_id=id&redirect_uri=http%3A%2F%2Fh%2F"
        with cls.request("/api/oauth2/authorize?" + query) as consent:
            code = consent.headers["Location"].split("code=")[1]
        form = {"grant_type": "authorization_code", "code": code, "client_id": "id", "client_secret": "secret"}
        with cls.request("/oauth2/token", form) as answer:
            refresh = json.load(answer)["refresh_token"]
        return json.dumps({"access_token": "old", "token_type": "bearer", "refresh_token": refresh,
                           "expiry": "2020-01-01T00:00:00Z"})

    def rclone(self, *arguments):
        environment = dict(os.environ, HTTPS_PROXY=f"http://127.0.0.1:{self.proxy.port}", NO_PROXY="", no_proxy="")
        done = subprocess.run(
            ["rclone", "--config", self.top / "rclone.conf", "--ca-cert", self.top / "ca.pem", "--retries", "1", *arguments],
            env=environment, capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def make_tree(self):
        tree = self.top / "up"
        source = random.Random(1)
        for name, size in {"a.txt": 10, "empty": 0, "sub folder/b c.bin": 70000, "sub folder/\u00fc/d": 1,
                           "large.bin": 51 * 1024 * 1024}.items():
            (tree / name).parent.mkdir(parents=True, exist_ok=True)
            (tree / name).write_bytes(source.randbytes(size))
            os.utime(tree / name, (1500000000, 1500000000))
        return tree

    def assert_same(self, left, right):
        names = sorted(str(path.relative_to(left)) for path in left.rglob("*"))
        self.assertEqual(names, sorted(str(path.relative_to(right)) for path in right.rglob("*")))
        files = [name for name in names if (left / name).is_file()]
        self.assertEqual(filecmp.cmpfiles(left, right, files, shallow=False)[0], files)
        for name in files:
            self.assertEqual((right / name).stat().st_mtime, 1500000000, name)

    def test_files_up_and_down(self):
        tree = self.make_tree()
        self.rclone("copy", tree, "bx:tree")
        self.assertEqual(sorted(self.rclone("lsf", "bx:tree").split("\n")),
                         ["", "a.txt", "empty", "large.bin", "sub folder/"])
        self.rclone("check", tree, "bx:tree")
        self.rclone("copy", "bx:tree", self.top / "down")
        self.assert_same(tree, self.top / "down")

        (tree / "a.txt").write_text("a new version")
        self.rclone("copy", tree, "bx:tree")
        self.assertEqual(self.rclone("cat", "bx:tree/a.txt"), "a new version")
        self.assertEqual(self.rclone("cat", "--offset", "2", "--count", "3", "bx:tree/a.txt"), "new")
        self.rclone("moveto", "bx:tree/a.txt", "bx:tree/sub folder/moved.txt")
        self.rclone("copyto", "bx:tree/empty", "bx:tree/sub folder/copied")
        self.rclone("deletefile", "bx:tree/large.bin")
        self.assertEqual(sorted(self.rclone("lsf", "-R", "--files-only", "bx:tree").split("\n")),
                         ["", "empty", "sub folder/b c.bin", "sub folder/copied", "sub folder/moved.txt", "sub folder/\u00fc/d"])
        self.rclone("purge", "bx:tree")
        self.assertEqual(self.rclone("lsf", "bx:"), "")
        self.rclone("cleanup", "bx:")
        self.assertEqual(json.loads(self.rclone("about", "--json", "bx:"))["used"], 0)
        self.assertLessEqual(self.proxy.hosts, set(HOSTS))

    def test_an_old_token_is_renewed(self):
        self.rclone("mkdir", "renewing:renewed")
        self.assertIn("renewed/", self.rclone("lsf", "renewing:"))
        self.rclone("rmdir", "renewing:renewed")


if __name__ == "__main__":
    unittest.main()
