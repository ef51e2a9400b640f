#!/usr/bin/env python3
"""What the documents print and the examples are, run as they are: the recipes in docs/ by their names, the
shortest programs of the clients' READMEs, and the examples.

usage: programs_test.py TOOL CASE [PYTHON MODULES]

PYTHON is an interpreter that has the Python client, MODULES a node_modules with the other one; without them, those of the
source tree are used. Exit status 77: what the case needs is missing.
"""

import itertools
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from picture import difference, disk
from tool import comes_true, dirwarden, watches

SKIPPED = 77
TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ODD = b" it's \"odd\" %41 \\x41 \xff\xc3\xa9\n*\n"


class Place:
    """A folder with the folder to watch, "folder", in it, and all that programs look for on their paths."""

    def __init__(self, tool, base, python=sys.executable, modules=None):
        self.tool, self.base, self.python, self.started = tool, os.fsencode(base), python, []
        os.mkdir(self.path("folder"))
        os.mkdir(self.path("bin"))
        os.symlink(os.fsencode(tool), self.path("bin/Dirwarden"))
        os.mkdir(self.path("node_modules"))
        os.symlink(os.fsencode(os.path.join(modules, "dirwarden") if modules else f"{TREE}/clients/node"),
                   self.path("node_modules/dirwarden"))
        shutil.copy(f"{TREE}/examples/on_burst.mjs", os.fsdecode(self.path("on_burst.mjs")))
        os.symlink(b"../on_burst.mjs", self.path("bin/on_burst.mjs"))
        self.environment = {**os.environ, "PATH": os.fsdecode(self.path("bin")) + ":" + os.environ["PATH"],
                            "PYTHONUNBUFFERED": "1"}
        if modules is None:
            self.environment["PYTHONPATH"] = f"{TREE}/clients/python/src"

    def path(self, name):
        return os.path.join(self.base, os.fsencode(name))

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def start(self, name, text, *arguments):
        """Runs the text as a program of a language, "py", "mjs" or "sh"; its output goes to the files out and err."""
        program = self.path("program." + name)
        with open(program, "w", encoding="utf-8") as file:
            file.write(text)
        with open(self.path("out"), "wb") as out, open(self.path("err"), "wb") as err:
            self.started.append(subprocess.Popen(
                [{"py": self.python, "mjs": "node", "sh": "sh"}[name], program, *arguments], cwd=self.base, stdout=out,
                stderr=err, stdin=subprocess.DEVNULL, env=self.environment, start_new_session=True))
        return self.started[-1]

    def touch(self, *names):
        for name in names:
            with open(self.path(b"folder/" + os.fsencode(name)), "a", encoding="ascii") as file:
                file.write("x")

    def expect(self, what, condition):
        assert comes_true(condition), (what() if callable(what) else what, self.read("out"), self.read("err"))

    def runs(self, count):
        """Waits until the command that logs its runs has run so often."""
        self.expect(f"{count} runs", lambda: os.path.exists(self.path("runs")) and len(self.read("runs")) >= count)
        assert len(self.read("runs")) == count, self.read("runs")

    def end(self):
        for process in self.started:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)


LOG_RUN = ["sh", "-c", "printf x >>runs"]


def recipe(name, document="recipes.md"):
    with open(f"{TREE}/docs/{document}", encoding="utf-8") as file:
        language, text = re.search(rf"^```(\w+) {re.escape(name)}\n(.*?)^```$", file.read(), re.M | re.S).groups()
    return {"python": "py"}.get(language, language), text


def once_per_burst(place, language, text, before=(), names=("1", "2", "3")):
    place.start(language, text, *before, "folder", *LOG_RUN)
    place.runs(1)
    place.touch(*names)
    place.runs(2)
    place.touch(names[0])
    place.runs(3)


def burst(place):
    once_per_burst(place, *recipe("burst"))


def touch_until_over(place, process):
    """A file changes until the program, which ends after the first burst that it sees, has seen one."""
    for _ in range(3):
        place.touch("notes.txt")
        if comes_true(lambda: process.poll() is not None, 8):
            break
    assert process.returncode == 0, place.read("err")


def build(place):
    language, text = recipe("build")
    place.start(language, text, "folder", "sh", "-c", "echo x >>runs; ls -1 folder >>listed")
    place.expect("the first", lambda: os.path.exists(place.path("listed")))
    touch_until_over(place, place.start("py", recipe("finished")[1], "folder"))
    place.touch("main.c")
    place.expect("the second", lambda: b"main.c" in place.read("listed"))
    assert place.read("runs") == b"x\nx\n", place.read("listed")


def rsync(place):
    if shutil.which("rsync") is None or shutil.which("node") is None:
        sys.exit(SKIPPED)
    os.mkdir(place.path("copy"))
    place.touch("a", ODD)
    place.start(*recipe("rsync"), "folder", "copy")
    follow = lambda: sorted(os.listdir(place.path("copy"))) == sorted(os.listdir(place.path("folder")))
    place.expect("the start", follow)
    os.unlink(place.path("folder/a"))
    place.touch("b")
    place.expect("the burst", follow)


def paths(place, name, command):
    """The loops over paths: `ls` is replaced by a command that shows where each argument begins and ends."""
    place.start("sh", recipe(name)[1].replace("ls -ld --", command), "folder")
    place.expect("watching", lambda: place.touch("before") or place.read("out"))
    place.touch(ODD, "new", "-x")
    for wanted in (ODD, b"new", b"-x"):
        place.expect(wanted, lambda w=wanted: b"[folder/" + w + b"]" in place.read("out"))
    assert place.read("err") == b"", place.read("err")


def loop(place):
    paths(place, "loop", "printf '[%s]'")


def nul(place):
    paths(place, "nul", "printf '[%s]'")


def finished(place):
    process = place.start("py", recipe("finished")[1], "folder")
    touch_until_over(place, process)


def service(place):
    if shutil.which("systemd-analyze") is None:
        sys.exit(SKIPPED)
    unit = place.path("dirwarden-copy.service")
    with open(unit, "w", encoding="ascii") as file:
        file.write(recipe("dirwarden-copy.service")[1])
    done = subprocess.run(["systemd-analyze", "verify", unit], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    said = [line for line in done.stdout.splitlines() if b"dirwarden-copy" in line]
    assert done.returncode == 0 and not said, done.stdout


def count(place):
    """The watches of all programs, of which one has three folders."""
    os.makedirs(place.path("folder/a/b"))
    place.start("sh", "exec Dirwarden folder")
    watching = place.started[0].pid
    place.expect("watching", lambda: watches(watching) == 3)
    assert f"3 {watching} Dirwarden" in subprocess.run(
        ["sh", "-c", recipe("count", "when-nothing-comes.md")[1]], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        check=True, text=True).stdout.splitlines()


def readmes(place):
    """The shortest programs: the first block of each README."""
    for language, folder in (("py", "python"), ("mjs", "node")):
        if language == "mjs" and shutil.which("node") is None:
            sys.exit(SKIPPED)
        with open(f"{TREE}/clients/{folder}/README.md", encoding="utf-8") as file:
            block = re.search(r"\n\n((?:    .*\n|\n)+)", file.read())[1]
        process = place.start(language, re.sub("^    ", "", block, flags=re.M))
        name = f"new-{language}"
        place.expect(name, lambda n=name: place.touch(n) or f"file folder/{n}\n".encode() in place.read("out"))
        os.killpg(process.pid, signal.SIGKILL)


def on_burst(place):
    if shutil.which("node") is None:
        sys.exit(SKIPPED)
    with open(f"{TREE}/examples/on_burst.mjs", encoding="utf-8") as file:
        once_per_burst(place, "mjs", file.read(), ["--quiet", "1.5"])


def words(place):
    place.start("sh", f'exec {TREE}/examples/words.sh folder')
    place.expect("watching", lambda: place.touch("a") or b"file folder%2fa\n" in place.read("out"))
    os.rename(place.path("folder/a"), place.path("folder/b c"))
    place.expect("rename", lambda: b"rename file folder%2fb%20c folder%2fa\n" in place.read("out"))


def copy_tree(place):
    """Random changes: the copy has to equal the folder after each burst, and to outlive the folder."""
    def tree(name):
        return {path[len(place.path(name)):]: entry for path, entry in disk(place.path(name)).items()}

    def follow():
        return not [path for path, *_ in difference(tree("copy"), tree("folder"))] or None

    def write(path):
        """Another second each time: a file that replaces one of the same second has no record."""
        with open(path, "ab") as file:
            file.write(b"x")
        os.utime(path, (next(clock), next(clock)))

    chance, clock = random.Random(4), itertools.count(10**9)
    names = [b"a", b"b", b"c", ODD]
    for name in ("copy", "copy/odd", "folder/kept"):
        os.mkdir(place.path(name))
    place.touch("kept/file")
    with open(f"{TREE}/examples/copy_tree.py", encoding="utf-8") as file:
        place.start("py", file.read(), "folder", "copy")
    place.expect("the start", follow)
    for i in range(5):
        for _ in range(60):
            folder = chance.choice([top for top, _, _ in os.walk(place.path("folder"))])
            path, other = [os.path.join(folder, chance.choice(names)) for _ in range(2)]
            try:
                chance.choice([os.mkdir, os.mkdir, write,
                               lambda p, o=other: os.rename(p, o), shutil.rmtree, os.unlink,
                               lambda p: os.rename(p, place.path(b"folder/" + names[i % 4]))])(path)
            except OSError:
                pass
            time.sleep(chance.random() * chance.choice([0, 0.1]))  # so that a burst is more than one gathering
        place.expect(lambda: difference(tree("copy"), tree("folder")), follow)
    with dirwarden.watch(place.path("folder"), tool=place.tool) as watcher:  # a move once the contents are reported
        while not watcher.is_ready:
            watcher.next(1)
        os.mkdir(place.path("folder/made"))
        place.touch("made/file")
        for change in watcher.changes():
            if change.path.endswith(b"/file"):
                break
    os.rename(place.path("folder/made"), place.path("folder/moved"))
    place.expect(lambda: difference(tree("copy"), tree("folder")), follow)
    before = tree("copy")
    os.rename(place.path("folder"), place.path("away"))
    os.mkdir(place.path("other"))
    os.rename(place.path("away"), place.path("folder"))
    place.touch("back")
    place.expect("back", follow)
    assert not difference({path: tree("copy").get(path) for path in before}, before), "emptied meanwhile"
    assert place.read("err") == b"", place.read("err")


CASES = {case.__name__: case for case in (burst, build, rsync, loop, nul, finished, service, count, readmes, on_burst, words,
                                          copy_tree)}


def main():
    tool, name, *installed = sys.argv[1:]
    with tempfile.TemporaryDirectory(prefix="dirwarden-") as base:
        place = Place(os.path.abspath(tool), base, *installed)
        try:
            CASES[name](place)
        finally:
            place.end()


if __name__ == "__main__":
    signal.alarm(110)
    main()
