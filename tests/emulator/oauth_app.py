"""An app that signs people in at the local Box, as its own program would."""

import base64
import html.parser
import json
import subprocess
import time
import urllib.parse
import uuid

REDIRECT = "http://127.0.0.1:4000/callback"
NAME = 'Bits & <b>"Bytes"</b>'


class App:
    """`keys`: directory of the PEM files that `make_keys` makes; without it the app signs no assertions."""

    def __init__(self, box, client_id="app", secret="s3cret", keys=None):
        self.box, self.client_id, self.secret, self.keys = box, client_id, secret, keys

    def registered(self, **more):
        """What is told the local Box of this app."""
        keys = self.keys and [{"kid": kid, "pem": (self.keys / f"{kid}.pub").read_text()} for kid in ("k1", "k2")]
        return {"client_id": self.client_id, "client_secret": self.secret, "name": NAME, "enterprise_id": "77",
                "redirect_uris": ["http://127.0.0.1/callback", "https://example.com/back?x=1"],
                **({"public_keys": keys} if keys else {}), **more}

    def register(self, **more):
        self.box.call("POST", "/_emulator/apps", self.registered(**more))

    def address(self, **more):
        """Where the person is sent; None leaves a member out. `state` is not encoded."""
        state = more.pop("state", None)
        members = {"response_type": "code", "client_id": self.client_id, "redirect_uri": REDIRECT, **more}
        query = urllib.parse.urlencode({key: value for key, value in members.items() if value is not None})
        return "/api/oauth2/authorize?" + query + (f"&state={state}" if state else "")

    def answer(self, login="alice", password="alice", consent="grant", address=None):
        """The page's form as a browser sends it."""
        form = urllib.parse.urlencode({"login": login, "password": password, "consent": consent})
        return self.box.send("POST " + (address or self.address()), form, token="")

    def code(self, **more):
        query = urllib.parse.urlsplit(self.answer(**more).headers["Location"]).query
        return urllib.parse.parse_qs(query)["code"][0]

    def post(self, path, **form):
        form = {"client_id": self.client_id, "client_secret": self.secret, **form}
        body = urllib.parse.urlencode({key: value for key, value in form.items() if value is not None})
        return self.box.send("POST " + path, body, token="")

    def token(self, grant_type, expected=200, **form):
        """One token request. \\return the JSON answer, or of a refusal "error: description"."""
        reply = self.post("/oauth2/token", grant_type=grant_type, **form)
        assert reply.status == expected, reply
        return json.loads(reply.body) if expected == 200 else f"{reply.at('error')}: {reply.at('error_description')}"

    def sign_in(self, **more):
        return self.token("authorization_code", code=self.code(**more))

    def renew(self, pair, expected=200, **more):
        return self.token("refresh_token", expected, refresh_token=pair["refresh_token"], **more)

    def revoke(self, token):
        return self.post("/oauth2/revoke", token=token).status

    def assertion(self, header=None, key="k1", digest="sha256", signature=None, **claims):
        """A signed JWT; None leaves a claim out."""
        claims = {"iss": self.client_id, "aud": self.box.base + "/oauth2/token", "sub": self.box.user_id,
                  "box_sub_type": "user", "jti": uuid.uuid4().hex, "exp": int(time.time()) + 45, **claims}
        header = {"alg": "RS256", "kid": "k1", **(header or {})}
        message = b".".join(encoded(json.dumps({name: value for name, value in part.items() if value is not None}))
                            for part in (header, claims))
        if signature is None:
            signature = subprocess.run(["openssl", "dgst", f"-{digest}", "-sign", self.keys / f"{key}.key"],
                                       input=message, capture_output=True, check=True).stdout
        return (message + b"." + encoded(signature)).decode()

    def assert_jwt(self, expected=200, **more):
        return self.token("urn:ietf:params:oauth:grant-type:jwt-bearer", expected, assertion=self.assertion(**more))


def same(*pairs):
    """Whether answers differ in nothing but the time that is left."""
    return len({json.dumps({**pair, "expires_in": 0}, sort_keys=True) for pair in pairs}) == 1


class Page(html.parser.HTMLParser):
    """What a browser makes of a page: its elements' attributes by id, the names of its tags, its text."""

    def __init__(self, reply):
        super().__init__()
        self.ids, self.tags, self.text = {}, set(), ""
        assert reply.headers["Content-Type"] == "text/html; charset=utf-8", reply
        self.feed(reply.body.decode())

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        self.ids[dict(attributes).get("id")] = dict(attributes)

    def handle_data(self, data):
        self.text += data


def encoded(data):
    return base64.urlsafe_b64encode(data.encode() if isinstance(data, str) else data).rstrip(b"=")


def make_keys(directory):
    """k1, k2 and a stranger's key, with their public halves; and one that is too short."""
    for name, bits in {"k1": 2048, "k2": 2048, "stranger": 2048, "short": 1024}.items():
        key = directory / f"{name}.key"
        subprocess.run(["openssl", "genrsa", "-out", key, str(bits)], check=True, capture_output=True)
        subprocess.run(["openssl", "rsa", "-in", key, "-pubout", "-out", directory / f"{name}.pub"], check=True,
                       capture_output=True)
    return directory
