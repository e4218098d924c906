"""A local Box and a server before it, shared by the tests of a module."""

import pytest
from local import Box, Server


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"))
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    # The wait for clients that die is a matter of the cases about what is true.
    program = Server(tmp_path_factory.mktemp("server"), box, server_lines="end_grace_ms = 15")
    yield program
    assert program.stop() == 0


@pytest.fixture
def ftp(server):
    client = server.ftp()
    yield client
    client.close()


@pytest.fixture(autouse=True)
def no_faults_left(request):
    yield
    if "box" in request.fixturenames:
        request.getfixturevalue("box").clear_faults()
