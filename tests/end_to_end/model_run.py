"""Runs a schedule against server and local Box, and compares what each reply says with what Box holds."""

import hashlib
import os
import re
import time
import uuid

from local import wait_until
from model_client import Client, Foreign, Lost, reset
from model_steps import CHANGES, CHUNKED, LISTING, PART, PASSING
from model_tree import apply, below, content_of, difference, file_of, has_folder, parent, same

RESUME = re.compile(r"REST (\d+)")
NOT_JUDGED = set(filter(None, os.environ.get("MODEL_IGNORE", "").split(",")))


class Difference(Exception):
    """What a client was told is not so. `rule` names the kind, for the search for a shorter schedule."""

    def __init__(self, rule, text):
        super().__init__(f"{rule}: {text}")
        self.rule = rule


class Episode:
    """One schedule, in a folder of its own, with sessions of its own."""

    def __init__(self, box, server, oracle_token):
        self.box, self.server = box, server
        self.name = "m" + uuid.uuid4().hex[:8]
        self.foreign = Foreign(box, oracle_token, box.folder(self.name))
        self.tree = {}
        self.clients = {}
        self.tainted = {}  # by session: paths that the foreign program has changed since the session began
        self.past = {}  # by path: the items that have ever been there
        self.contents = {}  # by SHA-1
        self.nested_done = None  # whether what was done during the last step was done; None: there was nothing
        self.trace = []

    def run(self, schedule):
        try:
            for number, step in enumerate(schedule):
                self.trace.append(f"{number}: {step}")
                self.do(step)
        finally:
            self.foreign.box.clear_faults()
            for client in self.clients.values():
                client.close()
            self.clients.clear()
            self.wait_for_end_of_sessions()

    # --- what happens

    def do(self, step):
        if step["who"] == "foreign":
            return self.do_foreign(step)
        try:
            self.judge_all(step)
        except Lost as lost:
            raise Difference("a session is lost", f"{step}: {lost}") from lost

    def do_foreign(self, step):
        if "/" in (step["path"], step.get("to")):
            return
        self.remember_content(step)
        self.foreign.change(self.tree, step)
        self.see()
        for taint in self.tainted.values():
            taint.update(filter(None, (step["path"], step.get("to"))))

    def judge_all(self, step):
        client = self.client(step["who"])
        self.remember_content(step)
        before, self.nested_done = self.tree, None
        fault = step.get("fault")
        if step.get("late") and step["path"] not in before:
            # The request's body is read after a while, so that something happens between first and last byte.
            path = "upload_sessions/*/commit" if step["size"] > CHUNKED else "content"
            fault = {"kind": "late", "row": {"method": "POST", "path": f"/api/2.0/files/{path}", "read_delay_ms": 300}}
        if fault:
            self.box.fault(**fault["row"])
        try:
            reply = self.perform(client, step, before)
        finally:
            spent = fault and self.foreign.fault_uses() >= fault["row"].get("times", 1)
            self.box.clear_faults()
        if reply is None or step.get("half_close"):
            client.close()
            del self.clients[step["who"]]
            self.wait_for_end_of_sessions()
        self.see()
        self.trace.append(f"     {reply}")
        Judgement(self, step, before, reply, fault, spent).judge()
        if reply and reply[0] >= 400 and not step.get("half_close") and client.command("NOOP")[0] != 200:
            raise Difference("the session does not go on", f"{step}: {reply}")

    def client(self, who):
        if who not in self.clients:
            self.clients[who] = Client(self.server)
            self.tainted[who] = set()
        return self.clients[who]

    def perform(self, client, step, before):
        """The final reply, with what came for it: (code, text[, bytes]); None when the client went away."""
        verb, path = step["do"], f"/{self.name}{step['path']}"
        if step["path"] == "/" and verb in (*CHANGES, "resume", "appe"):
            path = "/"  # nobody may touch the account's root
        if verb in ("store", "resume", "appe"):
            return self.perform_store(client, step, path, before)
        if verb == "rename":
            answer = client.command(f"RNFR {path}")
            line = f"RNTO /{self.name}{step['to']}" if step["to"] != "/" else "RNTO /"
            if answer[0] != 350:
                return answer
        elif verb == "fetch":
            return self.perform_fetch(client, step, path, before)
        elif verb == "list":
            return client.fetch(f"NLST {path}")
        else:
            line = {"mkd": "MKD ", "rmd": "RMD ", "rdel": "SITE RDEL ", "dele": "DELE ", "size": "SIZE ", "mlst": "MLST ",
                    "cwd": "CWD ", "cksm": "CKSM {algorithm} {range[0]} {range[1]} "}[verb].format(**step) + path
        client.send(line)
        if "die" in step:
            return None
        if step.get("half_close"):
            client.control.shutdown(1)
        return client.reply()

    def perform_fetch(self, client, step, path, before):
        if step["rest"]:
            client.command(f"REST {step['rest']}")
        if not step.get("during"):
            return client.fetch(f"RETR {path}")
        with client.data() as data:
            code, text = client.command(f"RETR {path}")
            received = b""
            self.overlap(step, before)
            if code == 150:
                while piece := data.recv(1 << 16):
                    received += piece
                code, text = client.reply()
        return code, text, received

    def perform_store(self, client, step, path, before):
        content = b"" if step["do"] == "appe" else content_of(step)
        offset = 0
        if step["do"] == "resume":
            offset = client.last_cut or 1
        data = client.data()
        if step.get("announce"):
            client.command(f"ALLO {len(content)}")
        if offset:
            client.command(f"REST {offset}")
        answer = client.command(f"{'APPE' if step['do'] == 'appe' else 'STOR'} {path}")
        if answer[0] != 150:
            data.close()
            return answer
        if "die" in step:
            return self.die(client, data, step["die"], content)
        cut = step.get("cut")
        try:
            self.send_content(step, data, content[offset:] if not cut else content[:cut["sent"]], before)
        except OSError:
            pass  # the reply says what that means
        if cut and cut["abort"]:
            return self.abort(client, data)
        data.close()
        if step.get("late"):
            if step["path"] not in before:
                self.foreign.wait_for_fault()
            self.overlap(step, before)
        answer = client.reply()
        resume = RESUME.search(answer[1]) if cut else None
        client.last_cut = int(resume[1]) if resume else None
        return answer

    def send_content(self, step, data, content, before):
        half = len(content) // 2
        data.sendall(content[:half])
        if step.get("during") and not step.get("late"):
            self.overlap(step, before)
        data.sendall(content[half:])

    def overlap(self, step, before):
        """What another does while this one is under way: it is judged by itself first."""
        self.tree = self.foreign.tree()
        nested = step.get("during")
        self.trace.append(f"     meanwhile {nested}")
        if not nested:
            return
        settled = self.tree
        if nested["who"] == "foreign":
            self.do_foreign(nested)
            self.nested_done = not same(self.tree, settled)
            return
        client = self.client(nested["who"])
        self.remember_content(nested)
        reply = self.perform(client, nested, settled)
        self.trace.append(f"     meanwhile {reply}")
        self.nested_done = reply[0] // 100 == 2
        self.tree = self.foreign.tree()
        if not any(touch(step["path"], path) for path in (nested["path"], nested.get("to")) if path):
            Judgement(self, nested, settled, reply, None, None, in_flux=step["path"]).judge()

    def abort(self, client, data):
        code, text = client.command("ABOR")
        data.close()
        if code == 225:
            raise Difference("the final reply is missing", "225 before the reply to the store")
        after = client.reply()
        if after[0] not in (225, 226):
            raise Difference("ABOR is answered", f"{text} then {after}")
        return code, text

    def die(self, client, data, how, content):
        try:
            data.sendall(content[:how["sent"]])
        except OSError:
            pass
        if how["how"] == "control_first":
            client.close()
            time.sleep(how["gap_ms"] / 1000)
        reset(data) if how["how"] == "reset" else data.close()
        time.sleep(how["gap_ms"] / 1000)
        client.close()

    # --- what is known

    def see(self):
        self.tree = self.foreign.tree()
        for path, item in self.tree.items():
            self.past.setdefault(path, set()).add(item)

    def remember_content(self, step):
        if "seed" in step:
            self.contents[file_of(step).sha1] = content_of(step)

    def wait_for_end_of_sessions(self):
        try:
            wait_until(lambda: len(self.server.sessions()) <= len(self.clients), 20)
        except AssertionError as error:
            raise Difference("a session outlives its client", str(self.server.sessions())) from error

    def is_tainted(self, who, path):
        return any(touch(path, each) for each in self.tainted[who])


def touch(one, other):
    """Whether one path is the other, or leads through it."""
    return one == other or one.startswith(other.rstrip("/") + "/") or other.startswith(one.rstrip("/") + "/")


class Judgement:
    """One reply against the tree before and after it."""

    def __init__(self, episode, step, before, reply, fault, spent, in_flux=None):
        """`in_flux`: a path that something else is at work on."""
        self.episode, self.step, self.reply, self.fault, self.spent = episode, step, reply, fault, spent
        self.before, self.after = ({path: item for path, item in tree.items() if path != in_flux}
                                   for tree in (before, episode.tree))
        self.paths = [path for path in (step["path"], step.get("to")) if path]
        self.tainted = any(episode.is_tainted(step["who"], path) for path in self.paths)
        self.code = reply[0] if reply else 0

    def fail(self, rule, text=""):
        if rule in NOT_JUDGED:
            return
        changes = "; ".join(difference(self.after, self.before)) or "nothing"
        raise Difference(rule, f"{text} {self.step} was told {self.reply and self.reply[:2]}; changed: {changes}")

    def judge(self):
        if self.reply:
            self.judge_code()
        if self.step["do"] in (*CHANGES, "resume", "appe"):
            self.judge_change()
        else:
            if not self.step.get("during") and not same(self.after, self.before):
                self.fail("a question changes something")
            if self.code and self.code < 300:
                self.judge_answer()
            elif self.code and self.answer_exists() and not self.fault and not self.tainted and not self.step.get("during"):
                self.fail("what is there is answered for")

    def judge_code(self):
        step = self.step
        if self.code == 500 or self.code == 421 or self.code == 530:
            self.fail("reply codes", "none of these is right for a session in order:")
        if self.code < 400 or self.fault is None or self.tainted:
            return
        possible = self.answer_exists() if step["do"] not in (*CHANGES, "resume", "appe") else (
            step["do"] in CHANGES and apply(self.before, step) is not None)
        if possible and self.fault["kind"] in PASSING and self.code >= 500:
            self.fail("reply codes", f"what may pass ({self.fault['kind']}) is a 4yz:")
        listing = (self.fault["row"]["method"], self.fault["row"]["path"]) == LISTING
        if possible and listing and self.fault["kind"] != 404:
            for word in ("PATH_NOT_FOUND", "NOT_A_DIRECTORY", "PATH_EXISTS"):
                if word in self.reply[1]:
                    self.fail("a listing that failed tells nothing", word)

    # --- changes

    def judge_change(self):
        before, step = self.before, self.step
        if any(not item.folder and item.sha1 not in self.episode.contents for item in self.after.values()):
            self.fail("only whole files are stored")
        both = step.get("during") and self.episode.nested_done is not None
        outcomes = self.outcomes_of_both() if both else [(before, apply(before, step))]
        done = any(same(self.after, wanted) for _, wanted in outcomes)
        undone = any(same(self.after, base) for base, _ in outcomes)
        possible = any(wanted is not None for _, wanted in outcomes)
        if self.tainted:
            return self.judge_tainted(done, undone)
        if done and (self.code == 0 or self.code // 100 == 2 or step.get("cut", {}).get("abort")):
            if self.code and step["do"] == "appe":
                self.fail("nothing is continued by appending")
            return
        if self.code // 100 == 2:
            self.fail("what is confirmed is done")
        if not undone and not done:
            return self.judge_former_file(outcomes)
        if undone and self.code // 100 in (0, 4, 5):
            if self.code // 100 in (4, 5) and possible and self.is_free():
                self.fail("what can be done is done")
            if not possible and self.code // 100 == 4 and not self.fault:
                self.fail("reply codes", "what the client asks wrongly is a 5yz:")
            return
        if self.code // 100 == 5 or not self.is_blind():
            self.fail("what is refused is not done")

    def outcomes_of_both(self):
        """(what stands when only the other one is done, what stands when both are), in either order."""
        step, nested = self.step, self.step["during"]
        if not self.episode.nested_done:
            return [(self.before, apply(self.before, step))]
        outcomes = []
        # The other one may have come when the former file was gone already.
        for base in (self.before, {path: item for path, item in self.before.items() if path != step["path"] or item.folder}):
            first, mine = apply(base, nested), apply(base, step)
            first = base if first is None else first
            last = None if mine is None else apply(mine, nested)
            if step.get("late") and step["path"] in first and step["path"] not in base and base is self.before:
                return [(first, last)]  # the bytes were on their way when the other one's item came: that one stays
            outcomes += [(first, apply(first, step)), (first, last)]
        return outcomes

    def judge_former_file(self, outcomes):
        """Only a store may leave less than before: the file that it was to replace, in the trash, and says so."""
        step, path = self.step, self.step["path"]
        for base, _ in outcomes:
            if step["do"] in ("store", "resume") and path in base and not base[path].folder and same(
                    self.after, {each: item for each, item in base.items() if each != path}):
                break
        else:
            self.fail("nothing else is touched")
        if base[path].id is None:
            self.fail("what another one has stored stays")
        if not self.episode.foreign.in_trash(base[path]):
            self.fail("the former file is in the trash")
        if self.code and "trash" not in self.reply[1]:
            self.fail("a failed store says where the former file is")
        sent = step.get("cut", step.get("die", {})).get("sent", step["size"])
        if sent < step["size"] and (not step.get("announce") or step["size"] <= CHUNKED or sent < PART):
            self.fail("what exists is not touched before its replacement is on its way")

    def judge_tainted(self, done, undone):
        """The foreign program has changed things here: the session may not know. It harms nothing else all the same."""
        if done or undone:
            return
        at_hand = {item.id for path, items in self.episode.past.items() for item in items
                   if any(touch(path, each) for each in self.paths)}
        for path, item in self.before.items():
            if item.id in at_hand:
                at_hand.update(self.before[each].id for each in below(self.before, path))
        known = {item.id for item in self.before.values()}
        for path, item in {**self.before, **self.after}.items():
            if self.after.get(path) == self.before.get(path) or item.id in at_hand or item.id not in known:
                continue
            self.fail("nothing else is touched", f"(after a foreign change) {path}:")

    def is_free(self):
        """Whether nothing stands in the way of a command that is possible."""
        step = self.step
        return not (self.fault or step.get("cut") or step.get("during") or step["do"] == "resume")

    def is_blind(self):
        """Whether Box could not be looked at when the command was over."""
        return bool(self.fault) and not self.spent and (self.fault["row"]["method"], self.fault["row"]["path"]) == LISTING

    # --- answers

    def item(self, tree=None):
        return (self.before if tree is None else tree).get(self.step["path"])

    def answer_exists(self):
        step, item = self.step, self.item()
        if step["do"] in ("list", "cwd"):
            return has_folder(self.before, step["path"])
        if step["do"] == "mlst":
            return item is not None
        if item is None or item.folder:
            return False
        start, length = step.get("range", (step.get("rest", 0), -1))
        return start <= item.size and start + max(length, 0) <= item.size

    def judge_answer(self):
        if self.step["do"] == "list":
            if not self.tainted and not self.listing_is_right():
                self.fail("a listing is right", f"{self.reply[2]} of")
            return
        if self.step["do"] == "fetch":
            candidates = [self.item(), self.item(self.after)]
        else:
            candidates = [self.item()]
        if self.tainted:
            candidates += self.episode.past.get(self.step["path"], ())
        if not any(self.answers_for(item) for item in candidates) and not (self.tainted and self.code == 250):
            self.fail("an answer is of what is there", f"{candidates[0]}:")

    def listing_is_right(self):
        names = sorted(self.reply[2].decode().split("\r\n")[:-1])
        path = self.step["path"]
        if not has_folder(self.before, path):
            return path in self.before and names == [path.rpartition("/")[2]]
        return names == sorted(each.rpartition("/")[2] for each in below(self.before, path) if parent(each) == path)

    def answers_for(self, item):
        step, text = self.step, self.reply[1]
        if step["do"] == "cwd":
            return has_folder(self.before, step["path"])
        if item is None:
            return step["path"] == "/" and step["do"] == "mlst"
        if step["do"] == "mlst":
            return (f"type={'dir' if item.folder else 'file'};" in text) and (item.folder or f"size={item.size};" in text)
        if item.folder:
            return False
        if step["do"] == "size":
            return text.split() == ["213", str(item.size)]
        content = self.episode.contents[item.sha1]
        if step["do"] == "fetch":
            return self.reply[2] == content[step["rest"]:]
        start, length = step["range"]
        part = content[start:start + length] if length >= 0 else content[start:]
        return text.split() == ["213", hashlib.new(step["algorithm"], part).hexdigest()]
