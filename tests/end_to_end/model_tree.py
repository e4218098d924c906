"""What Box holds, as a dictionary from paths to items, and what a step that is done makes of it."""

import dataclasses
import hashlib
import posixpath


@dataclasses.dataclass(frozen=True)
class Item:
    folder: bool
    id: str | None = None  # None: made by the step, so not known
    sha1: str = ""
    size: int = 0


def content_of(step):
    """The bytes that a step stores: they differ from place to place and from step to step."""
    block = hashlib.sha256(str(step["seed"]).encode()).digest() * 32
    pieces = (i.to_bytes(4, "big") + block for i in range(step["size"] // len(block) + 1))
    return b"".join(pieces)[:step["size"]]


def file_of(step):
    content = content_of(step)
    return Item(False, None, hashlib.sha1(content).hexdigest(), len(content))


def parent(path):
    return posixpath.dirname(path)


def below(tree, path):
    """The paths below a folder."""
    return [each for each in tree if each.startswith(path.rstrip("/") + "/") and each != "/"]


def has_folder(tree, path):
    return path == "/" or (path in tree and tree[path].folder)


def _make_folder(tree, step):
    path = step["path"]
    if has_folder(tree, path):
        return tree  # a folder that is there is fine
    if path in tree or not has_folder(tree, parent(path)):
        return None
    return {**tree, path: Item(True)}


def _store(tree, step):
    path = step["path"]
    if has_folder(tree, path) or not has_folder(tree, parent(path)):
        return None
    return {**tree, path: file_of(step)}


def _remove(tree, step):
    path = step["path"]
    if path not in tree or tree[path].folder != (step["do"] != "dele"):
        return None
    gone = {path, *below(tree, path)}
    if step["do"] == "rmd" and len(gone) > 1:
        return None
    return {each: item for each, item in tree.items() if each not in gone}


def _rename(tree, step):
    path, to = step["path"], step["to"]
    if path not in tree or to in tree or not has_folder(tree, parent(to)) or to.startswith(path + "/"):
        return None
    moved = {each: to + each[len(path):] for each in (path, *below(tree, path))}
    return {moved.get(each, each): item for each, item in tree.items()}


EFFECTS = {"mkd": _make_folder, "store": _store, "resume": _store, "dele": _remove, "rmd": _remove, "rdel": _remove,
           "rename": _rename}


def apply(tree, step):
    """The tree after a step that changes something; None where it cannot be done."""
    if "/" in (step["path"], step.get("to")) or step["do"] == "appe":
        return None  # the root stays, and nothing is continued by appending
    return EFFECTS[step["do"]](tree, step)


def same(found, wanted):
    """Whether Box holds what is wanted; what is wanted may be None: then it does not."""
    return wanted is not None and found.keys() == wanted.keys() and all(
        (found[path].folder, found[path].sha1) == (item.folder, item.sha1) and item.id in (None, found[path].id)
        for path, item in wanted.items())


def difference(found, wanted):
    lines = [f"+ {path} {found[path]}" for path in found if path not in wanted]
    lines += [f"- {path} {wanted[path]}" for path in wanted if path not in found]
    return lines + [f"~ {path} {wanted[path]} -> {found[path]}" for path in found
                    if path in wanted and found[path] != wanted[path]]
