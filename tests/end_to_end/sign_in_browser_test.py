"""A person signs an account in: Box's consent page and the page after it, in a real browser."""

import subprocess

import pytest
from account_browser import Browser
from account_place import Place, Shown, query_of, sign_in_box, with_query
from local import wait_until

DONE = "You are signed in; close this page."


@pytest.fixture(scope="module")
def browser(tmp_path_factory):
    program = Browser(tmp_path_factory.mktemp("browser"))
    yield program
    program.quit()


@pytest.fixture(scope="module")
def box(tmp_path_factory):
    # A browser takes "localhost" for whichever loopback address answers first.
    program = sign_in_box(tmp_path_factory.mktemp("box"),
                          redirect_uris=["http://127.0.0.1/callback", "http://localhost/back"])
    yield program
    assert program.stop() == 0


class SignIn:
    """The command, which sends `$BROWSER` to Box's page."""

    def __init__(self, place, browser):
        shown = Shown(place.directory)
        self.browser = browser
        self.process = place.start("add", "alice", "--box", "--password-file", place.directory / "password",
                                   environment=shown.environment, stdin=subprocess.DEVNULL)
        wait_until(shown.address)
        self.address = shown.address()
        browser.open(self.address)

    def answer(self, password, button="#grant"):
        self.browser.type("#login", "alice")
        self.browser.type("#password", password)
        self.browser.click(button)

    def finish(self):
        """\\return how the command ended, and what it said."""
        errors = self.process.communicate(timeout=60)[1]
        return self.process.returncode, errors


@pytest.mark.parametrize("box_lines", ["", 'redirect = "http://localhost/back"'])
def test_a_person_grants_access_at_the_second_attempt(tmp_path, box, browser, box_lines):
    place = Place(tmp_path, box, box_lines)
    sign_in = SignIn(place, browser)
    assert "An app" in browser.wait_for("Grant access")
    sign_in.answer("wrong")
    browser.wait_for("Wrong account or password")
    sign_in.answer("alice")
    assert browser.wait_for(DONE) == DONE
    status, errors = sign_in.finish()
    assert status == 0, errors
    assert place.state("alice") == "ready"


def test_a_person_denies_access(tmp_path, box, browser):
    place = Place(tmp_path, box)
    sign_in = SignIn(place, browser)
    browser.click("#deny")
    assert "access_denied" in browser.wait_for("You are not signed in.")
    status, errors = sign_in.finish()
    assert status == 1 and "access_denied" in errors
    assert place.json("list") == []


def test_the_answer_to_another_question_is_not_taken(tmp_path, box, browser):
    place = Place(tmp_path, box)
    sign_in = SignIn(place, browser)
    # Somebody has the browser give access by a question of theirs.
    forged = with_query(sign_in.address, state="f" * 32)
    browser.open(forged)
    sign_in.answer("alice")
    assert DONE not in browser.wait_for("not the answer to the sign-in")
    assert query_of(browser.address())["code"]
    assert sign_in.process.poll() is None
    browser.open(sign_in.address)
    sign_in.answer("alice")
    browser.wait_for(DONE)
    assert sign_in.finish()[0] == 0
