"""Accounts that the broker serves, signed in at the local Box, and what lies between the two."""

import contextlib
import http.server
import json
import threading
import urllib.error
import urllib.parse
import urllib.request

from local import PASSWORD, Box, Server, hashed_password

CLIENT_SECRET = "marker-of-the-client-secret"
REDIRECT = "http://127.0.0.1/callback"


class NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *_):
        return None


class SignInBox(Box):
    """A local Box whose consent is given at once, with as many users as are named."""

    def __init__(self, directory, *arguments, users=("alice",)):
        more = [part for user in users if user != "alice" for part in ("--account", f"{user}:token-of-{user}")]
        super().__init__(directory, "--set", "consent=at_once", *more, *arguments)

    def tokens(self, user, base=None):
        """What a person's consent brings."""
        query = urllib.parse.urlencode({"response_type": "code", "client_id": "app", "redirect_uri": REDIRECT,
                                        "user": user, "state": "s"})
        try:
            urllib.request.build_opener(NoRedirect).open(f"{self.base}/api/oauth2/authorize?{query}")
        except urllib.error.HTTPError as answer:
            code = urllib.parse.parse_qs(urllib.parse.urlparse(answer.headers["Location"]).query)["code"][0]
        return self.ask_tokens({"grant_type": "authorization_code", "code": code, "redirect_uri": REDIRECT}, base)

    def ask_tokens(self, form, base=None):
        body = urllib.parse.urlencode({**form, "client_id": "app", "client_secret": CLIENT_SECRET}).encode()
        with urllib.request.urlopen(f"{base or self.base}/oauth2/token", data=body, timeout=30) as answer:
            return json.load(answer)

    def user(self, token):
        request = urllib.request.Request(f"{self.base}/2.0/users/me", headers={"Authorization": f"Bearer {token}"})
        with urllib.request.urlopen(request, timeout=30) as answer:
            return json.load(answer)

    def token_requests(self, since=0, grant="refresh_token"):
        return sum(1 for entry in self.journal(since) if entry.get("grant") == grant)

    def settings(self, **values):
        self.call("POST", "/_emulator/settings", values)


def write_record(folder, name, tokens, user, expires_at, **members):
    """A record of a store without encryption."""
    record = {"generation": 1, "grant": "box",
              "current": {"access": tokens["access_token"], "refresh": tokens["refresh_token"],
                          "expires_at": int(expires_at)},
              "attempt_open": 0, "renewed_at": int(expires_at) - 3600, "sign_in_needed": 0, "last_error": "",
              "box_user": user["id"], "box_login": user["login"], "max_upload": user["max_upload_size"], **members}
    path = folder / f"{name}.record"
    path.write_bytes(b"TVXR0" + bytes(8) + (1).to_bytes(8, "big") + json.dumps(record).encode())
    path.chmod(0o600)


def read_record(folder, name):
    return json.loads((folder / f"{name}.record").read_bytes()[21:])


class SignedInServer(Server):
    """A server with accounts of the broker's, whose store is not encrypted so that tests can look into it."""

    def __init__(self, directory, box, users=("alice",), life=3600, lines=None, token_base=None, broker_lines="",
                 tables="", box_lines="", **more):
        """`life`: seconds that the first access token has; `lines`: more lines of accounts, by user."""
        import time
        self.store = directory / "broker"
        self.store.mkdir(mode=0o700, exist_ok=True)
        (directory / "secret").write_text(CLIENT_SECRET + "\n")
        (directory / "secret").chmod(0o600)
        self.tokens = {}
        for user in users:
            self.tokens[user] = box.tokens(user)
            write_record(self.store, user, self.tokens[user], box.user(self.tokens[user]["access_token"]),
                         time.time() + life)
        hashed = hashed_password()
        self.tables = {user: f'[{user}]\npassword = "{hashed}"\n' + (lines or {}).get(user, "") for user in users}
        super().__init__(
            directory, box, accounts="".join(self.tables.values()),
            box_lines=f'token_url = "{token_base or box.base}/oauth2/token"\nclient_id = "app"\n'
                      f'client_secret_file = "secret"\n{box_lines}',
            tables=f'[broker]\ndirectory = "broker"\nencryption = "none"\n{broker_lines}\n{tables}', **more)

    def ftp_as(self, user, timeout=60):
        import ftplib
        client = ftplib.FTP(timeout=timeout)
        client.connect(self.host, self.port)
        client.login(user, PASSWORD)
        return client

    def write_accounts(self, **lines):
        """Replaces the accounts file; `lines`: more lines by user, None: without that account."""
        text = "".join(table + (lines.get(user) or "") for user, table in self.tables.items()
                       if lines.get(user, "") is not None)
        new = self.directory / "accounts.new"
        new.write_text(text)
        new.chmod(0o600)
        new.rename(self.directory / "accounts.toml")

    def record(self, user):
        return read_record(self.store, user)


@contextlib.contextmanager
def watched_tokens(box):
    """An address before Box's token address that keeps all tokens that go through. Yields (address, tokens)."""
    seen = []

    class Between(http.server.BaseHTTPRequestHandler):
        def do_POST(self):
            body = self.rfile.read(int(self.headers["Content-Length"]))
            try:
                with urllib.request.urlopen(box.base + self.path, data=body, timeout=30) as answer:
                    status, content = answer.status, answer.read()
            except urllib.error.HTTPError as error:
                status, content = error.code, error.read()
            if status == 200 and content:
                tokens = json.loads(content)
                seen.extend(tokens[key] for key in ("access_token", "refresh_token") if key in tokens)
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(content)))
            self.end_headers()
            self.wfile.write(content)

        def log_message(self, *_):
            pass

    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Between)
    thread = threading.Thread(target=server.serve_forever)
    thread.start()
    try:
        yield f"http://127.0.0.1:{server.server_port}", seen
    finally:
        server.shutdown()
        thread.join()
        server.server_close()
