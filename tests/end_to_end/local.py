"""A local Box and a server before it, on free ports of 127.0.0.1, for the tests and the benchmarks."""

import ftplib
import hashlib
import io
import json
import os
import pathlib
import signal
import ssl
import subprocess
import time
import urllib.request
import uuid

BUILD = pathlib.Path(os.environ.get("TARVEX_BUILD_DIR", pathlib.Path(__file__).parents[2] / "build" / "release"))
PASSWORD = "correct horse"
# A pacing rate that no test waits for; pacing itself is tested with the plug-in.
FAST_POLICY = '{"user_api_rate_limit": 100000}'

# Tests that are run by root have no other user to become.
SECURITY = '[security]\nuser = "root"'


def is_sanitized(binary):
    """Whether AddressSanitizer is in a binary: then freed memory stays, and Python cannot load it."""
    return b"__asan_init" in binary.read_bytes()


class Program:
    """A program that says "listening on HOST:PORT" once it serves."""

    def __init__(self, arguments, directory, name, environment=None, inherited=()):
        """`inherited`: descriptors that the program gets under the numbers that they have."""
        self.log_path = directory / f"{name}.log"
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(
                [str(argument) for argument in arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log,
                env={**os.environ, **(environment or {})}, pass_fds=inherited)
        line = self.process.stdout.readline().decode()
        assert line.startswith("listening on "), f"{name} did not start: {line!r}\n{self.log()}"
        self.address = line.split()[-1]
        self.host, port = self.address.rsplit(":", 1)
        self.port = int(port)

    def log(self):
        return self.log_path.read_text(errors="replace")

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        status = self.process.wait(timeout=30)
        self.process.stdout.close()
        assert "Sanitizer" not in self.log(), self.log()
        return status


class Box(Program):
    """The local Box, and the calls that fill it and look into it."""

    def __init__(self, directory, *arguments, listen="127.0.0.1:0", ca=None):
        """`ca`: the authority to trust when the arguments make it speak TLS."""
        self.token = "token-" + uuid.uuid4().hex
        self.trusted = ca and ssl.create_default_context(cafile=ca)
        super().__init__(
            [BUILD / "bin/tarvex-box-emulator", "--listen", listen, "--data", directory / "box", "--account",
             f"alice:{self.token}", "--quiet", *arguments], directory, "emulator")
        self.base = f"http{'s' if ca else ''}://{self.address}"
        self.user_id = self.call("GET", "/2.0/users/me")["id"]

    def call(self, method, path, body=None, headers=None, raw=False):
        data = body if isinstance(body, (bytes, type(None))) else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data=data, method=method, headers={
            "Authorization": f"Bearer {self.token}", "Content-Type": "application/json", **(headers or {})})
        with urllib.request.urlopen(request, timeout=60, context=self.trusted) as answer:
            content = answer.read()
        return content if raw else (json.loads(content) if content else None)

    def folder(self, name, parent="0"):
        return self.call("POST", "/2.0/folders", {"name": name, "parent": {"id": parent}})["id"]

    def file(self, name, content, parent="0"):
        body = form(json.dumps({"name": name, "parent": {"id": parent}}), content)
        return self.call("POST", "/api/2.0/files/content", body,
                         {"Content-Type": "multipart/form-data; boundary=edge"})["entries"][0]["id"]

    def items(self, folder="0"):
        page = self.call("GET", f"/2.0/folders/{folder}/items?limit=1000&fields=type,id,name,size,sha1")
        return {entry["name"]: entry for entry in page["entries"]}

    def find(self, path):
        item = {"id": "0", "type": "folder"}
        for name in path.strip("/").split("/"):
            item = self.items(item["id"]).get(name)
            if item is None:
                return None
        return item

    def content(self, file_id):
        return self.call("GET", f"/2.0/files/{file_id}/content", raw=True)

    def fault(self, **row):
        """Adds one fault; its members are in the emulator's --help."""
        self.call("POST", "/_emulator/faults", [row])

    def clear_faults(self):
        self.call("DELETE", "/_emulator/faults")

    def journal(self, since=0):
        return self.call("GET", f"/_emulator/journal?since={since}")

    def mark(self):
        """Where the journal stands: requests after it are `journal(mark)`."""
        return self.call("GET", "/_emulator/journal/last")["number"]

    def fill(self, folder, count, size, prefix="file-"):
        """Many equal files at once."""
        self.call("POST", "/_emulator/fill", {"folder": int(folder), "count": count, "bytes": size, "prefix": prefix})


# Thresholds that small files reach: what goes up in parts, and in which; and no wait that a test would feel.
SMALL_BOX = ("--set", "chunked_minimum=1", "--set", "part_size=40000")
SMALL_SERVER = {"chunked_minimum": 100_000, "progress_timeout_ms": 700, "max_delay": 1, "commit_attempts": 2}


class Server(Program):
    """The server, with an account "alice", and others that serve the same Box user."""

    def __init__(self, directory, box, settings=None, policy=FAST_POLICY, server_lines="", credential=None,
                 api_base=None, ca=None, environment=None, tables="", command=(), listen="127.0.0.1:0",
                 inherited=(), accounts=None, box_lines="", storage_lines="", prepare=None,
                 others=None, options=()):
        """`tables`: TOML that follows the rest; `command`: what starts the program, where it is not just started;
        `accounts`: the accounts file, where it is not that of one account with a credential file; `prepare`: called
        when all files are there; `others`: name -> what else the table of an account says that serves the same Box user;
        `options`: of the program."""
        self.directory = directory
        self.credential_path = directory / "alice.json"
        self.write_credential(credential or {
            "access_token": box.token, "token_expiry": "2099-01-01T00:00:00.000000+00:00", "sub": box.user_id,
            "max_upload": 5 * 1024**3})
        (directory / "accounts.toml").write_text(accounts or "".join(
            f'[{name}]\npassword = "{hashed_password()}"\ncredential = "alice.json"\n{lines}\n'
            for name, lines in {"alice": "", **(others or {})}.items()))
        settings = {"upload_per_second": 10000, **(settings or {})} if settings != {} else {}
        values = "\n".join(f"{key} = {value}" for key, value in settings.items())
        (directory / "server.toml").write_text(f"""
[server]
listen = ["{listen}"]
{server_lines}
[accounts]
file = "accounts.toml"
[storage]
policy = '{policy}'
{storage_lines}
[storage.settings]
{values}
[box]
api_base = "{api_base or box.base}"
upload_base = "{api_base or box.base}"
{box_lines}
{f'ca_file = "{ca}"' if ca else ""}
{"" if "[security]" in tables else SECURITY}
{tables}
""")
        if prepare:
            prepare()
        super().__init__([*command, BUILD / "bin/tarvex-gridftp-server", "--config", directory / "server.toml", *options],
                         directory, "server", environment, inherited)

    def write_credential(self, document):
        new = self.credential_path.with_suffix(".new")
        new.write_text(json.dumps(document))
        new.chmod(0o600)
        new.rename(self.credential_path)

    def ftp(self, timeout=60):
        client = ftplib.FTP(timeout=timeout)
        client.connect(self.host.strip("[]"), self.port)
        client.login("alice", PASSWORD)
        return client

    def sessions(self):
        """Process ids of the sessions that run."""
        return [pid for pid in self.children() if self.name_of(pid) not in ("tarvex-broker", "tarvex-starter")]

    def broker(self):
        """Process id of the broker; None: there is none at this moment."""
        return next((pid for pid in self.children() if self.name_of(pid) == "tarvex-broker"), None)

    def children(self):
        return pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()

    @staticmethod
    def name_of(pid):
        try:
            return pathlib.Path(f"/proc/{pid}/comm").read_text().strip()
        except OSError:
            return ""

    @property
    def url(self):
        return f"ftp://{self.address}"

    def curl(self, *arguments, check=True, timeout=120):
        return subprocess.run(["curl", "-sS", "-u", f"alice:{PASSWORD}", *[str(a) for a in arguments]],
                              capture_output=True, check=check, timeout=timeout)

    def lftp(self, commands, check=True, timeout=180):
        script = f"set cmd:fail-exit yes; set net:max-retries 1; set net:timeout 30; {commands}"
        return subprocess.run(["lftp", "-u", f"alice,{PASSWORD}", "-e", script + "; bye", self.url],
                              capture_output=True, text=True, check=check, timeout=timeout,
                              env={**os.environ, "HOME": str(self.directory)})


def hashed_password():
    return subprocess.run(["openssl", "passwd", "-5", PASSWORD], capture_output=True, text=True,
                          check=True).stdout.strip()


def put(client, path, content):
    client.storbinary(f"STOR {path}", io.BytesIO(content))


def form(attributes, content):
    """A multipart body that uploads a file; its boundary is "edge"."""
    return (b'--edge\r\nContent-Disposition: form-data; name="attributes"\r\n\r\n' + attributes.encode() +
            b'\r\n--edge\r\nContent-Disposition: form-data; name="file"; filename="a "quoted" name"\r\n'
            b"Content-Type: application/octet-stream\r\n\r\n" + content + b"\r\n--edge--\r\n")


def sha1(content):
    return hashlib.sha1(content).hexdigest()


def pattern(size, seed=1):
    """Bytes that do not repeat within a part or a page, the same for the same arguments."""
    block = b"".join(hashlib.sha256(f"{seed}:{i}".encode()).digest() for i in range(4096))
    whole, rest = divmod(size, len(block) + 8)
    return b"".join(i.to_bytes(8, "big") + block for i in range(whole)) + (whole.to_bytes(8, "big") + block)[:rest]


def let_others_in(folder):
    """Lets every user into a test's folder: pytest makes those above it for their owner alone."""
    for above in (folder, *folder.parents):
        if above.stat().st_uid == os.getuid() and not above.stat().st_mode & 0o005 == 0o005:
            above.chmod(0o755)


def wait_until(condition, seconds=10):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, "what was waited for did not come"
        time.sleep(0.02)
