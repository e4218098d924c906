"""The settings that the packaged configuration switches on."""

import tomllib

import pytest
from local import BUILD, Server, pattern, put

SETTINGS = tomllib.loads((BUILD.parents[1] / "packaging/server.toml").read_text())["storage"]["settings"]


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    program = Server(tmp_path_factory.mktemp("server"), box, settings=SETTINGS, server_lines="end_grace_ms = 15")
    yield program
    assert program.stop() == 0


def requests(box, since):
    return [f"{entry['method']} {entry['path']}" for entry in box.journal(since)]


def test_a_store_over_a_file_keeps_it(server, box):
    client = server.ftp()
    for content in (b"one", b"another", pattern(60_000_000)):
        if len(content) > 1000:
            client.sendcmd(f"ALLO {len(content)}")
        put(client, "kept", content)
        ident = box.find("kept")["id"]
        since = box.mark()
        client.sendcmd(f"ALLO {len(content) + 1}")
        put(client, "kept", b"." + content)
        asked = requests(box, since)
        assert box.find("kept")["id"] == ident and box.content(ident) == b"." + content
        assert not any(line.startswith(("DELETE", "GET /2.0/folders")) for line in asked), asked
    client.quit()
