"""A local Box with a registered app, a configuration that uses it, and the program's account commands."""

import json
import os
import pty
import subprocess
import termios
import urllib.error
import urllib.parse
import urllib.request

from local import BUILD, FAST_POLICY, SECURITY, Box, Program

PROGRAM = BUILD / "bin/tarvex-gridftp-server"
NAME = "tarvex-gridftp-server: "
REDIRECT = "http://127.0.0.1/callback"
APP = {"client_id": "app", "client_secret": "s3cret-of-the-app", "name": "An app", "enterprise_id": "77",
       "redirect_uris": [REDIRECT]}
PASSWORD = "open sesame"
TIMEOUT = 60


class NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *_):
        return None


def key_pair(directory):
    """An RSA key and its public half, as PEM."""
    key = directory / "app.key"
    subprocess.run(["openssl", "genrsa", "-out", key, "2048"], check=True, capture_output=True)
    public = subprocess.run(["openssl", "rsa", "-in", key, "-pubout"], check=True, capture_output=True)
    return key.read_text(), public.stdout.decode()


def sign_in_box(directory, **app):
    """A local Box with users alice and bob, whose passwords are their names."""
    (directory / "apps.json").write_text(json.dumps({**APP, **app}))
    return Box(directory, "--account", "bob:token-of-bob", "--app", directory / "apps.json")


def consent(address, login="alice", password=None, choice="grant"):
    """What the page's form gives, as a browser sends it. \\return the address that the browser is sent to."""
    form = urllib.parse.urlencode({"login": login, "password": password or login, "consent": choice}).encode()
    try:
        urllib.request.build_opener(NoRedirect).open(address, form, timeout=TIMEOUT)
    except urllib.error.HTTPError as answer:
        return answer.headers["Location"]
    raise AssertionError("the page was shown again")


class Place:
    """A folder with a configuration."""

    def __init__(self, directory, box, box_lines="", encryption="aes-256-gcm", broker=True):
        self.directory, self.box = directory, box
        self.config, self.accounts = directory / "server.toml", directory / "accounts.toml"
        self.record = directory / "broker"
        for name, content in {"secret": APP["client_secret"] + "\n", "key": "k" * 40, "password": PASSWORD + "\n"}.items():
            (directory / name).write_text(content)
            (directory / name).chmod(0o600)
        self.write_config(box_lines, encryption, broker)

    def write_config(self, box_lines="", encryption="aes-256-gcm", broker=True):
        base = self.box.base
        self.config.write_text(f"""
[server]
listen = ["127.0.0.1:0"]
[accounts]
file = "accounts.toml"
[storage]
policy = '{FAST_POLICY}'
[box]
api_base = "{base}"
upload_base = "{base}"
authorize_url = "{base}/api/oauth2/authorize"
token_url = "{base}/oauth2/token"
client_id = "{APP['client_id']}"
client_secret_file = "secret"
{box_lines}
{'[broker]' if broker else ''}
{'key_file = "key"' if broker else ''}
{f'encryption = "{encryption}"' if broker else ''}
{SECURITY}
""")

    def command(self, *words):
        return [str(word) for word in (PROGRAM, "account", words[0], "--config", self.config, *words[1:])]

    def start(self, *words, environment=None, stdin=subprocess.PIPE):
        return subprocess.Popen(self.command(*words), stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                text=True, env={**os.environ, **(environment or {})})

    def run(self, *words, expected=0, stdin=""):
        """\\return standard output, or where another end is expected the line that says why."""
        process = self.start(*words)
        output, errors = process.communicate(stdin, timeout=TIMEOUT)
        assert "Sanitizer" not in errors, errors
        assert process.returncode == expected, (process.returncode, output, errors)
        if expected == 0:
            return output
        reasons = [line.removeprefix(NAME) for line in errors.splitlines() if line.startswith(NAME)]
        return output if words[0] == "test" and not reasons else the_one(reasons, errors)

    def json(self, *words):
        return json.loads(self.run(*words, "--json"))

    def state(self, name):
        return self.json("show", name)["state"]

    def sign_in(self, name="alice", login="alice", expected=0, answer=None, choice="grant"):
        """Signs an account in by a pasted address. `answer`: makes another address of the one that was meant."""
        process = self.start("add", name, "--box", "--no-browser", "--password-file", self.directory / "password")
        address = process.stdout.readline().strip()
        if not address:
            reason = process.communicate(timeout=TIMEOUT)[1]
        else:
            back = consent(address, login, choice=choice)
            output, reason = process.communicate((answer(back) if answer else back) + "\n", timeout=TIMEOUT)
            assert output == "", "the address stands alone"
        assert process.returncode == expected, reason
        return reason if expected == 0 else the_one([line for line in reason.splitlines() if line.startswith(NAME)], reason)

    def tokens(self, name):
        """What an unencrypted record holds."""
        content = (self.record / f"{name}.record").read_bytes()
        return json.loads(content[content.index(b"{"):])

    def serve(self):
        return Program([PROGRAM, "--config", self.config], self.directory, "server")


def the_one(reasons, errors):
    assert len(reasons) == 1, errors
    return reasons[0]


class Terminal:
    """A command whose standard input is a terminal."""

    def __init__(self, command):
        self.child, self.end = pty.fork()
        if self.child == 0:
            os.execv(command[0], command)
        self.seen = ""

    def wait_for(self, text):
        while text not in self.seen:
            try:
                self.seen += os.read(self.end, 4096).decode()
            except OSError as error:  # the other end is closed
                raise AssertionError(self.seen) from error

    def answer(self, question, line):
        self.wait_for(question)
        self.seen = self.seen.split(question, 1)[1]
        os.write(self.end, line.encode() + b"\n")

    def finish(self):
        """\\return how it ended, and what was shown since the last question."""
        try:
            while more := os.read(self.end, 4096):
                self.seen += more.decode()
        except OSError:
            pass
        os.close(self.end)
        return os.waitstatus_to_exitcode(os.waitpid(self.child, 0)[1]), self.seen

    def echoes(self):
        return bool(termios.tcgetattr(self.end)[3] & termios.ECHO)

    def interrupt(self):
        """Control-C. \\return how the command ended."""
        os.write(self.end, b"\x03")
        return os.waitstatus_to_exitcode(os.waitpid(self.child, 0)[1])


class Shown:
    """A `$BROWSER` that only notes which address it was given."""

    def __init__(self, directory):
        self.noted, self.program = directory / "shown", directory / "browser"
        self.program.write_text(f'#!/bin/sh\nprintf %s "$1" >"{self.noted}.new"\nmv "{self.noted}.new" "{self.noted}"\n')
        self.program.chmod(0o755)

    @property
    def environment(self):
        return {"BROWSER": str(self.program)}

    def address(self):
        return self.noted.read_text() if self.noted.exists() else None


def fetch(address):
    """\\return status and text of a page."""
    try:
        with urllib.request.urlopen(address, timeout=TIMEOUT) as answer:
            return answer.status, answer.read().decode()
    except urllib.error.HTTPError as answer:
        return answer.code, answer.read().decode()


def query_of(address):
    return dict(urllib.parse.parse_qsl(urllib.parse.urlsplit(address).query))


def with_query(address, **changes):
    parts = urllib.parse.urlsplit(address)
    query = urllib.parse.urlencode({**query_of(address), **changes})
    return urllib.parse.urlunsplit(parts._replace(query=query))
