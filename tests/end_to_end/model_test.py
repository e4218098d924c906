"""Random commands of three sessions of one account and of a foreign program, with everything going wrong that can.

After each reply, what the client was told is compared with what Box holds. A run prints its seed. From the environment:
  MODEL_STEPS=400        how many steps; MODEL_SECONDS=60 ends the run earlier (0: never)
  MODEL_SEED=N           another run than the usual one, or the same again; MODEL_EPISODE=K only its Kth schedule
  MODEL_WITHOUT=faults,deaths,foreign,sessions   leaves these out; MODEL_IGNORE: names of rules not to judge by
"""

import json
import os
import time

import pytest
from local import SMALL_BOX, SMALL_SERVER, Box, Server
from model_run import Difference, Episode
from model_steps import SESSIONS, Generator

STEPS = int(os.environ.get("MODEL_STEPS", 400))
SECONDS = float(os.environ.get("MODEL_SECONDS", 60)) or float("inf")
SEED = int(os.environ.get("MODEL_SEED", 5))
WITHOUT = set(filter(None, os.environ.get("MODEL_WITHOUT", "").split(",")))
STEPS_OF_AN_EPISODE = 40
SHRINK_SECONDS = 90
ORACLE = "token-of-who-looks"


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    program = Box(tmp_path_factory.mktemp("box"), "--account", f"alice:{ORACLE}", *SMALL_BOX)
    yield program
    assert program.stop() == 0


@pytest.fixture(scope="module")
def server(tmp_path_factory, box):
    program = Server(tmp_path_factory.mktemp("server"), box, settings=SMALL_SERVER)
    yield program
    assert program.stop() == 0


def failure_of(box, server, schedule):
    """(the difference or None, the trace) of a run."""
    episode = Episode(box, server, ORACLE)
    try:
        episode.run(schedule)
    except Difference as found:
        return found, episode.trace
    return None, episode.trace


def simpler(step):
    """The same step with one thing less going wrong."""
    for key in ("fault", "die", "cut", "half_close", "during", "late", "announce"):
        if step.get(key):
            yield {other: value for other, value in step.items() if other != key}


def shrink(schedule, fails):
    """Leaves out ever smaller pieces, then makes single steps simpler, as long as it still fails."""
    end = time.monotonic() + SHRINK_SECONDS
    for size in (16, 8, 4, 2, 1, 1):
        for at in range(len(schedule) - size, -1, -size):
            shorter = schedule[:at] + schedule[at + size:]
            if shorter and time.monotonic() < end and fails(shorter):
                schedule = shorter
    for at, step in enumerate(schedule):
        for other in simpler(step):
            if time.monotonic() < end and fails(schedule[:at] + [other] + schedule[at + 1:]):
                schedule = schedule[:at] + [other] + schedule[at + 1:]
                break
    return schedule


def test_what_the_server_says_is_true(box, server):
    begun = time.monotonic()
    only = os.environ.get("MODEL_EPISODE")
    print(f"MODEL_SEED={SEED}")
    for episode in range(STEPS // STEPS_OF_AN_EPISODE) if only is None else [int(only)]:
        if time.monotonic() - begun > SECONDS:
            break
        options = {f"with_{each}": each not in WITHOUT for each in ("faults", "deaths")}
        generator = Generator(f"{SEED}:{episode}", with_foreign=episode % 2 == 1 and "foreign" not in WITHOUT,
                              sessions=SESSIONS[:1] if "sessions" in WITHOUT else SESSIONS, **options)
        schedule = generator.schedule(STEPS_OF_AN_EPISODE)
        found, trace = failure_of(box, server, schedule)
        if found is None:
            continue

        def fails(shorter, rule=found.rule):
            again, _ = failure_of(box, server, shorter)
            return again is not None and again.rule == rule

        # What has failed is at the end of the trace; the steps behind it play no part.
        steps = [step for number, step in enumerate(schedule) if any(line.startswith(f"{number}: ") for line in trace)]
        short = shrink(steps, fails)
        last, last_trace = failure_of(box, server, short)
        pytest.fail(f"{last or found}\n\nMODEL_SEED={SEED} MODEL_EPISODE={episode}; cut down from {len(steps)} steps:\n"
                    + "\n".join(json.dumps(step) for step in short) + "\n\n" + "\n".join(last_trace or trace)[-6000:],
                    pytrace=False)
