"""The local Box as its own tests ask it: refused or not, and byte for byte."""

import base64
import dataclasses
import hashlib
import http.client
import json
import socket

from local import Box, form


@dataclasses.dataclass
class Reply:
    status: int = 0  # 0: the connection ended before a status line
    headers: dict = dataclasses.field(default_factory=dict)
    body: bytes = b""
    whole: bool = False  # the body has the announced length

    def at(self, path):
        """A value of the JSON body by a path such as "entries.0.name": a text as it is, others as JSON, "" for none."""
        try:
            value = json.loads(self.body)
            for key in path.split("."):
                value = value[int(key) if isinstance(value, list) else key]
        except (ValueError, LookupError, TypeError):
            return ""
        return value if isinstance(value, str) else json.dumps(value, separators=(",", ":"))

    def expect(self, members):
        """`members`: "path=value|path=value"."""
        for member in filter(None, members.split("|")):
            path, _, value = member.partition("=")
            assert self.at(path) == value, f"{member} in {self.body}"
        return self


class Connection:
    """One connection, for tests that care about its bytes."""

    def __init__(self, box):
        self.socket = socket.create_connection((box.host, box.port), timeout=60)
        if box.trusted:
            self.socket = box.trusted.wrap_socket(self.socket, server_hostname=box.host)
        self.lines = self.socket.makefile("rb")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.lines.close()
        self.socket.close()

    def send(self, data):
        try:
            self.socket.sendall(data)
        except OSError:
            pass  # what was answered before the connection ended can be read all the same

    def receive(self, has_body=True):
        try:
            status = self.lines.readline().split()
            if not status:
                return Reply()
            headers = http.client.parse_headers(self.lines)
            length = int(headers.get("Content-Length", 0)) if has_body else 0
            body = self.lines.read(length)
        except ConnectionError:
            return Reply()
        return Reply(int(status[1]), headers, body, len(body) == length)

    def ended(self):
        return self.lines.read(1) == b""


class EmulatedBox(Box):
    """`ids`: what "{name}" in the rows of `check` stands for."""

    def __init__(self, directory, *arguments, **more):
        super().__init__(directory, *arguments, **more)
        self.ids = {}

    def bytes_of(self, request, body="", headers=None, token=None):
        """A request ("GET /2.0/users/me"). With a header "Transfer-Encoding: chunked" the body is in chunks."""
        body = body.encode() if isinstance(body, str) else body
        fields = {"Host": self.address, **({} if token == "" else {"Authorization": f"Bearer {token or self.token}"}),
                  **(headers or {})}
        if "Transfer-Encoding" in fields:
            pieces = [body[at:at + 1000] for at in range(0, len(body), 1000)] + [b""]
            body = b"".join(f"{len(piece):x}\r\n".encode() + piece + b"\r\n" for piece in pieces)
        else:
            fields.setdefault("Content-Length", len(body))
        lines = [f"{request} HTTP/1.1", *(f"{name}: {value}" for name, value in fields.items()), "", ""]
        return "\r\n".join(lines).encode() + body

    def send(self, request, body="", headers=None, token=None):
        """One request on a connection of its own."""
        with Connection(self) as connection:
            connection.send(self.bytes_of(request, body, headers, token))
            return connection.receive(not request.startswith("HEAD "))

    def check(self, *rows):
        """Rows of (name, request, body, status[, members[, headers]]), each held to its answer. \\return the last one."""
        for name, request, body, status, *more in rows:
            members, headers = [*more, "", None][:2]
            reply = self.send(self.with_ids(request), self.with_ids(body), headers)
            assert reply.status == status, f"{name}: {reply}"
            reply.expect(self.with_ids(members))
        return reply

    def with_ids(self, text):
        for name, value in self.ids.items():
            text = text.replace(f"{{{name}}}", value) if isinstance(text, str) else text
        return text

    def upload(self, attributes, content, headers=None):
        return self.send("POST /api/2.0/files/content", form(attributes, content), {**FORM_TYPE, **(headers or {})})

    def fetch(self, file_id, span=None):
        """The answer to a download by way of its URL."""
        url = self.send(f"GET /2.0/files/{file_id}/content").headers["Location"]
        assert url.startswith(f"{self.base}/d/1/"), url
        return self.send("GET " + url.removeprefix(self.base), "", {"Range": span} if span else {}, token="")

    def set(self, **settings):
        self.call("POST", "/_emulator/settings", settings)

    def all_faults_used(self):
        rows = self.call("GET", "/_emulator/faults")
        return bool(rows) and all(row["used"] for row in rows)


FORM_TYPE = {"Content-Type": "multipart/form-data; boundary=edge"}


def named(name, parent="0", **more):
    return json.dumps({"name": name, "parent": {"id": parent}, **more})


def digest_of(content):
    return "sha=" + base64.b64encode(hashlib.sha1(content).digest()).decode()
