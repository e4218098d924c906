"""The local Box of a case, with the arguments that its module names in BOX_ARGUMENTS."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "end_to_end"))
from emulated_box import EmulatedBox  # noqa: E402


@pytest.fixture
def box(tmp_path, request):
    program = EmulatedBox(tmp_path, *getattr(request.module, "BOX_ARGUMENTS", ()))
    yield program
    assert program.stop() == 0
