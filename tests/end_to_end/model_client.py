"""An FTP client whose sockets can be closed at any point, and the program that looks into Box and changes it."""

import json
import re
import socket
import struct
import time
import urllib.error

from local import PASSWORD, form
from model_tree import Item, content_of

PATIENCE_S = 30


class Lost(Exception):
    """The server has ended the control connection, or says nothing."""


class Client:
    """One session."""

    def __init__(self, server, login=True, user="alice"):
        self.control = socket.create_connection((server.host, server.port), timeout=PATIENCE_S)
        self.lines = self.control.makefile("rb")
        self.address = (server.host, server.port)
        self.last_cut = None  # what the server has said of the last store that broke off
        entry = (f"USER {user}", 331), (f"PASS {PASSWORD}", 230), ("TYPE I", 200)
        for line, code in ((None, 220), *(entry if login else ())):
            answer = self.command(line) if line else self.reply()
            if answer[0] != code:
                raise Lost(f"login: {answer}")

    def send(self, line):
        self.control.sendall((line if isinstance(line, bytes) else line.encode()) + b"\r\n")

    def reply(self):
        """(code, text) of the next final or preliminary reply."""
        text = ""
        try:
            while line := self.lines.readline().decode(errors="replace"):
                text += line
                if re.match(r"\d{3} ", line):
                    return (int(line[:3]), text) if line[:3] != "113" else self.reply()
        except OSError as error:
            raise Lost(f"{error} after {text!r}") from error
        raise Lost(f"the control connection ended after {text!r}")

    def command(self, line):
        try:
            self.send(line)
        except OSError as error:
            raise Lost(str(error)) from error
        return self.reply()

    def data(self):
        code, text = self.command("EPSV")
        if code != 229:
            raise Lost(f"EPSV: {text}")
        return socket.create_connection((self.address[0], int(re.search(r"\|\|\|(\d+)\|", text)[1])), timeout=PATIENCE_S)

    def fetch(self, line):
        """(code, text, bytes) of a command that brings data."""
        with self.data() as data:
            code, text = self.command(line)
            received = b""
            if code == 150:
                try:
                    while piece := data.recv(1 << 16):
                        received += piece
                except OSError:
                    pass  # the final reply says what that means
                code, text = self.reply()
        return code, text, received

    def close(self):
        for end in (self.lines, self.control):
            end.close()


def reset(connection):
    """Closes with a reset, as when a machine is gone and comes back."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class Foreign:
    """A program that speaks to Box itself, with a token of its own: it changes things, and it is who knows the truth."""

    def __init__(self, box, token, root):
        self.box, self.token, self.root = box, token, root

    def call(self, method, path, body=None, headers=None, raw=False):
        return self.box.call(method, path, body, {"Authorization": f"Bearer {self.token}", **(headers or {})}, raw)

    def tree(self, folder=None, prefix=""):
        """All that lies in the root of the episode."""
        page = self.call("GET", f"/2.0/folders/{folder or self.root}/items?limit=1000&fields=type,id,name,size,sha1")
        found = {}
        for entry in page["entries"]:
            path, is_folder = f"{prefix}/{entry['name']}", entry["type"] == "folder"
            found[path] = Item(is_folder, entry["id"], entry.get("sha1") or "", 0 if is_folder else int(entry["size"]))
            if is_folder:
                found.update(self.tree(entry["id"], path))
        return found

    def in_trash(self, item):
        try:
            return bool(self.call("GET", f"/2.0/files/{item.id}/trash"))
        except urllib.error.HTTPError:
            return False

    def change(self, tree, step):
        """Does a step, where Box lets it. \\return whether it did."""
        try:
            self._change(tree, step)
        except (urllib.error.HTTPError, KeyError):
            return False
        return True

    def _change(self, tree, step):
        ids = {"/": self.root, **{path: item.id for path, item in tree.items()}}
        path = step["path"]
        folder, name = ids[path.rpartition("/")[0] or "/"], path.rpartition("/")[2]
        kind = "folders" if path in tree and tree[path].folder else "files"
        if step["do"] == "mkd":
            self.call("POST", "/2.0/folders", {"name": name, "parent": {"id": folder}})
        elif step["do"] == "store":
            place = f"{ids[path]}/content" if path in ids else "content"
            body = form(json.dumps({"name": name, "parent": {"id": folder}}), content_of(step))
            self.call("POST", f"/api/2.0/files/{place}", body, {"Content-Type": "multipart/form-data; boundary=edge"})
        elif step["do"] == "rename":
            to, new = step["to"].rpartition("/")[::2]
            self.call("PUT", f"/2.0/{kind}/{ids[path]}", {"name": new, "parent": {"id": ids[to or "/"]}})
        elif tree[path].folder == (step["do"] == "dele"):
            raise KeyError(path)  # no file is removed as a folder, nor the other way round
        else:
            query = "?recursive=true" if step["do"] == "rdel" else ""
            self.call("DELETE", f"/2.0/{kind}/{ids[path]}{query}")

    def fault_uses(self):
        return sum(row["used"] for row in self.call("GET", "/_emulator/faults"))

    def wait_for_fault(self, seconds=5):
        """Until a request has met a fault."""
        end = time.monotonic() + seconds
        while self.fault_uses() == 0 and time.monotonic() < end:
            time.sleep(0.01)
