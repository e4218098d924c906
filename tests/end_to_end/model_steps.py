"""Random schedules: lists of steps that depend on nothing but the seed, so that they can be replayed and cut down.

A step is a dictionary: "who" does it ("a", "b", "c": sessions; "foreign": a program that speaks to Box itself), what it
does ("do", "path" and so on), and, where given, how it goes wrong: "fault" (a row of the local Box), "die" (how the
client goes away), "half_close", and "during" (another step while the data are on their way; "late": after the last byte).
"""

import random

from model_tree import apply, parent

SESSIONS = ("a", "b", "c")
NAMES = ("x", "y", "z")
CHUNKED = 100_000  # above this many bytes files go up in parts
PART = 40_000
SIZES = (0, 1, 700, 30_000, CHUNKED, CHUNKED + 1, 3 * PART + 7)

VERBS = {"mkd": 8, "store": 22, "dele": 8, "rmd": 5, "rdel": 3, "rename": 14, "fetch": 8, "size": 8, "mlst": 4,
         "cksm": 6, "list": 6, "cwd": 2, "appe": 1, "resume": 3}
CHANGES = ("mkd", "store", "dele", "rmd", "rdel", "rename")

LISTING = ("GET", "/2.0/folders/*/items")
# Which requests of an operation a fault may meet.
TARGETS = {
    "mkd": [("POST", "/2.0/folders"), LISTING], "rmd": [("DELETE", "/2.0/folders/*"), LISTING],
    "rdel": [("DELETE", "/2.0/folders/*"), LISTING], "dele": [("DELETE", "/2.0/files/*"), LISTING],
    "rename": [("PUT", "/2.0/f*/*"), LISTING],
    "store": [("POST", "/api/2.0/files/content"), ("DELETE", "/2.0/files/*"), ("POST", "/api/2.0/files/upload_sessions"),
              ("PUT", "/api/2.0/files/upload_sessions/*"), ("POST", "/api/2.0/files/upload_sessions/*/commit"),
              ("POST", "/2.0/files/*/metadata/global/properties"), LISTING],
    "fetch": [("GET", "/2.0/files/*/content"), ("GET", "/d/**"), LISTING],
    "cksm": [("GET", "/2.0/files/*/content"), ("GET", "/d/**"), ("GET", "/2.0/files/*/"), LISTING]}
STATUSES = (200, 201, 202, 204, 206, 302, 303, 304, 307, 400, 402, 403, 404, 405, 408, 409, 410, 412, 416, 423, 429, 451,
            500, 502, 503)
PASSING = (408, 423, 429, 500, 502, 503, "cut", "slow")  # what may pass: the reply is a 4yz
SLOW_MS = 1500


def random_fault(rng, verb):
    """A row, and under "kind" what it amounts to."""
    method, path = rng.choice(TARGETS.get(verb, [LISTING]))
    row = {"method": method, "path": path, "times": rng.choice((1, 1, 2, 9))}
    # A removal that Box confirms, and a plain refusal, are believed: there is nothing to tell them from a lie.
    statuses = tuple(status for status in STATUSES if method != "DELETE" or status not in (200, 204))
    kind = rng.choice(statuses + ("cut", "cut", "cut", "slow", "short", "short"))
    if kind == "cut":
        row.update({"cut_before_answer": True, "store": rng.random() < 0.6})
    elif kind == "slow":
        row.update({"delay_ms": SLOW_MS, "times": 1, "store": True})
    elif kind == "short":
        cut = "cut_request_after" if method in ("POST", "PUT") and "/api/" in path else "cut_answer_after"
        row[cut] = rng.choice((0, 1, 100, 5000))
    else:
        refused = kind in (400, 403, 404, 409, 429)
        row.update({"status": kind, "store": rng.random() < 0.3 and not refused})
        row.update(rng.choice(({"text": ""}, {"html": "<html>no</html>"}, {"body": {"code": "odd"}})))
    return {"kind": kind, "row": row}


class Generator:
    """Keeps the tree that would stand if all steps were done, so that most steps find what they need."""

    def __init__(self, seed, with_foreign=True, with_faults=True, with_deaths=True, sessions=SESSIONS):
        self.rng = random.Random(seed)
        self.tree = {}
        self.with_foreign, self.with_faults, self.with_deaths = with_foreign, with_faults, with_deaths
        self.sessions = sessions

    def any_path(self):
        """A path that may exist or not; seldom one that leads through a file, or to the root."""
        rng = self.rng
        if rng.random() < 0.01:
            return "/"
        folders = ["/"] + [path for path, item in self.tree.items() if item.folder]
        if rng.random() < 0.05 and self.tree:
            folders = list(self.tree)
        folder = rng.choice([path for path in folders if path.count("/") < 3] or ["/"])
        return folder.rstrip("/") + "/" + rng.choice(NAMES)

    def path_for(self, verb):
        wanted = {"dele": False, "fetch": False, "size": False, "cksm": False, "rmd": True, "rdel": True, "list": True,
                  "cwd": True}.get(verb)
        fitting = [path for path, item in self.tree.items() if wanted is None or item.folder == wanted]
        if verb in ("mkd", "store", "appe", "resume") or not fitting or self.rng.random() < 0.2:
            return self.any_path()
        return self.rng.choice(fitting)

    def plain(self, who, verbs):
        rng = self.rng
        verb = rng.choices(list(verbs), [VERBS[each] for each in verbs])[0]
        step = {"who": who, "do": verb, "path": self.path_for(verb)}
        if verb in ("store", "resume"):
            step.update(size=rng.choice(SIZES), seed=rng.randrange(1 << 30), announce=rng.random() < 0.4)
        if verb == "rename":
            step["to"] = self.any_path()
        if verb == "fetch":
            step["rest"] = rng.choice((0, 0, 0, 1, 700, 1 << 40))
        if verb == "cksm":
            step.update(algorithm=rng.choice(("MD5", "SHA1", "SHA256")),
                        range=rng.choice(((0, -1), (0, -1), (1, -1), (0, 1), (5, 600))))
        if verb in CHANGES:
            done = apply(self.tree, step)
            self.tree = self.tree if done is None else done
        return step

    def step(self):
        rng = self.rng
        if self.with_foreign and rng.random() < 0.12:
            return self.plain("foreign", CHANGES)
        step = self.plain(rng.choice(self.sessions), VERBS)
        chance = rng.random()
        if self.with_faults and chance < 0.3:
            step["fault"] = random_fault(rng, step["do"])
        elif self.with_deaths and chance < 0.4:
            step.update(self.mishap(step))
        elif len(self.sessions) > 1 and step["do"] in ("store", "fetch") and chance < 0.6:
            others = [who for who in self.sessions if who != step["who"]] + ["foreign"] * self.with_foreign
            step["during"] = self.plain(rng.choice(others), CHANGES)
            if rng.random() < 0.5 and parent(step["path"]) == parent(step["during"]["path"]):
                step["during"]["path"] = step["path"]  # the same name at once
            step["late"] = step["do"] == "store" and rng.random() < 0.5
        return step

    def mishap(self, step):
        rng = self.rng
        if step["do"] != "store":
            return {"half_close": True} if rng.random() < 0.5 else {"die": {}}
        sent = rng.choice((0, step["size"] // 3, step["size"] * 9 // 10, step["size"]))
        if rng.random() < 0.5:
            step["announce"] = step["announce"] or sent < step["size"]
            return {"cut": {"sent": sent, "abort": rng.random() < 0.5}}
        how = rng.choice(("data_first", "data_first", "control_first", "reset"))
        return {"die": {"sent": sent, "how": how, "gap_ms": rng.choice((0, 0, 5, 50, 400))}}

    def schedule(self, count):
        steps = []
        while len(steps) < count:
            steps.append(self.step())
            cut = steps[-1].get("cut")
            if cut and not cut["abort"] and self.rng.random() < 0.7:
                again = {key: steps[-1][key] for key in ("who", "path", "size", "seed", "announce")}
                steps.append({**again, "do": "resume"})
        return steps
