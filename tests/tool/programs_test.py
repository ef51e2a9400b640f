#!/usr/bin/env python3
"""What the documents print and the examples are, run as they are: the recipes in docs/ by their names, the
shortest programs of the clients' READMEs, and the examples.

usage: programs_test.py TOOL CASE [PYTHON MODULES]

PYTHON is an interpreter that has the Python client, MODULES a node_modules with the other one; without them, those of
the source tree are used. Exit status 77: what the case needs is missing.
"""

import contextlib
import itertools
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

import places
from picture import difference, disk
from tool import Place, Tool, comes_true, run_case, watches

TREE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
ODD = b" it's \"odd\" %41 \\x41 \xff\xc3\xa9\n*\n"


def source(name):
    with open(f"{TREE}/{name}", encoding="utf-8") as file:
        return file.read()


def recipe(name, document="recipes.md"):
    language, text = re.search(rf"^```(\w+) {re.escape(name)}\n(.*?)^```$", source(f"docs/{document}"),
                               re.M | re.S).groups()
    return {"python": "py"}.get(language, language), text


def end(process):
    if process.poll() is None:
        os.killpg(process.pid, signal.SIGKILL)


class Programs(Place):
    """A folder with the folder to watch, "folder", in it, and all that programs look for on their paths."""

    def __init__(self, tool, base, python=sys.executable, modules=None):
        super().__init__(tool, base)
        self.python = python
        self.run("""mkdir folder bin node_modules
                    cp "$tree/examples/on_burst.mjs" .
                    ln -s ../on_burst.mjs "$tool" bin
                    ln -s "$client" node_modules/dirwarden""",
                 tool=tool, tree=TREE, client=f"{modules}/dirwarden" if modules else f"{TREE}/clients/node")
        self.environment = {**os.environ, "PATH": os.fsdecode(self.path("bin")) + ":" + os.environ["PATH"],
                            "PYTHONUNBUFFERED": "1"}
        if modules is None:
            self.environment["PYTHONPATH"] = f"{TREE}/clients/python/src"

    def start(self, name, text, *arguments):
        """Runs the text as a program of a language, "py", "mjs" or "sh"; its output goes to the files out and err."""
        self.write("program." + name, text)
        with open(self.path("out"), "wb") as out, open(self.path("err"), "wb") as err:
            process = subprocess.Popen(
                [{"py": self.python, "mjs": "node", "sh": "sh"}[name], "program." + name, *arguments], cwd=self.base,
                stdout=out, stderr=err, stdin=subprocess.DEVNULL, env=self.environment, start_new_session=True)
        self.callback(end, process)
        return process

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


def once_per_burst(place, language, text, *before):
    place.start(language, text, *before, "folder", "sh", "-c", "printf x >>runs")
    place.runs(1)
    place.touch("1", "2", "3")
    place.runs(2)
    place.touch("1")
    place.runs(3)


def burst(place):
    once_per_burst(place, *recipe("burst"))


def on_burst(place):
    places.need("node")
    once_per_burst(place, "mjs", source("examples/on_burst.mjs"), "--quiet", "1.5")


def build(place):
    """The recipe "finished" ends after a burst that the build ignores."""
    place.start(*recipe("build"), "folder", "sh", "-c", "echo x >>runs; ls -1 folder >>listed")
    place.expect("the first", lambda: os.path.exists(place.path("listed")))
    finished = place.start(*recipe("finished"), "folder")
    for _ in range(3):  # it may not watch yet
        place.touch("notes.txt")
        if comes_true(lambda: finished.poll() is not None, 8):
            break
    assert finished.returncode == 0, place.read("err")
    place.touch("main.c")
    place.expect("the second", lambda: b"main.c" in place.read("listed"))
    assert place.read("runs") == b"x\nx\n", place.read("listed")


def rsync(place):
    places.need("rsync")
    places.need("node")
    os.mkdir(place.path("copy"))
    place.touch("a", ODD)
    place.start(*recipe("rsync"), "folder", "copy")
    follow = lambda: sorted(os.listdir(place.path("copy"))) == sorted(os.listdir(place.path("folder")))
    place.expect("the start", follow)
    os.unlink(place.path("folder/a"))
    place.touch("b")
    place.expect("the burst", follow)


def paths(place, name):
    """The loops over paths: `ls` is replaced by a command that shows where each argument begins and ends."""
    place.start("sh", recipe(name)[1].replace("ls -ld --", "printf '[%s]'"), "folder")
    place.expect("watching", lambda: place.touch("before") or place.read("out"))
    place.touch(ODD, "new", "-x")
    for wanted in (ODD, b"new", b"-x"):
        place.expect(wanted, lambda w=wanted: b"[folder/" + w + b"]" in place.read("out"))
    assert place.read("err") == b"", place.read("err")


def loop(place):
    paths(place, "loop")


def nul(place):
    paths(place, "nul")


def service(place):
    places.need("systemd-analyze")
    unit = place.path("dirwarden-copy.service")
    place.write(unit, recipe("dirwarden-copy.service")[1])
    done = subprocess.run(["systemd-analyze", "verify", unit], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    said = [line for line in done.stdout.splitlines() if b"dirwarden-copy" in line]
    assert done.returncode == 0 and not said, done.stdout


def count(place):
    """The watches of all programs, of which one has three folders."""
    os.makedirs(place.path("folder/a/b"))
    watching = place.start("sh", "exec Dirwarden folder").pid
    place.expect("watching", lambda: watches(watching) == 3)
    assert f"3 {watching} Dirwarden" in subprocess.run(
        ["sh", "-c", recipe("count", "when-nothing-comes.md")[1]], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        check=True, text=True).stdout.splitlines()


def readmes(place):
    """The shortest programs: the first block of each README."""
    for language, folder in (("py", "python"), ("mjs", "node")):
        if language == "mjs":
            places.need("node")
        block = re.search(r"\n\n((?:    .*\n|\n)+)", source(f"clients/{folder}/README.md"))[1]
        process = place.start(language, re.sub("^    ", "", block, flags=re.M))
        name = f"new-{language}"
        place.expect(name, lambda n=name: place.touch(n) or f"file folder/{n}\n".encode() in place.read("out"))
        end(process)


def words(place):
    process = place.start("sh", f'exec {TREE}/examples/words.sh folder')
    place.expect("watching", lambda: place.touch("a") or b"file folder%2fa\n" in place.read("out"))
    os.rename(place.path("folder/a"), place.path("folder/b c"))
    place.expect("rename", lambda: b"rename file folder%2fb%20c folder%2fa\n" in place.read("out"))
    tool = int(subprocess.check_output(["pgrep", "-P", str(process.pid)]))
    process.kill()
    place.expect("the end of the tool", lambda: not os.path.exists(f"/proc/{tool}/fd/1"))


def copy_tree(place):
    """Random changes: the copy has to equal the folder after each burst, and to outlive the folder."""
    def tree(name):
        return {path[len(place.path(name)):]: entry for path, entry in disk(place.path(name)).items()}

    def left():
        return difference(tree("copy"), tree("folder"))

    def follow():
        return not left()

    def write(path):
        """Another second each time: a file that replaces one of the same second has no record."""
        with open(path, "ab") as file:
            file.write(b"x")
        os.utime(path, (next(clock), next(clock)))

    chance, clock = random.Random(4), itertools.count(10**9)
    names = [b"a", b"b", b"c", ODD]
    place.run("mkdir -p copy/odd folder/kept; echo >folder/kept/file")
    place.start("py", source("examples/copy_tree.py"), "folder", "copy")
    place.expect("the start", follow)
    for i in range(5):
        for _ in range(60):
            folder = chance.choice([top for top, _, _ in os.walk(place.path("folder"))])
            path, other = [os.path.join(folder, chance.choice(names)) for _ in range(2)]
            with contextlib.suppress(OSError):
                chance.choice([os.mkdir, os.mkdir, write,
                               lambda p, o=other: os.rename(p, o), shutil.rmtree, os.unlink,
                               lambda p: os.rename(p, place.path(b"folder/" + names[i % 4]))])(path)
            time.sleep(chance.random() * chance.choice([0, 0.1]))  # so that a burst is more than one gathering
        place.expect(left, follow)
    watching = Tool(place.tool, place.path("folder"))
    place.run("mkdir folder/made; echo >folder/made/file")  # and a move once they are reported
    place.expect("reported", lambda: any(change.path.endswith(b"/made/file") for change in watching.changes))
    place.run("mv folder/made folder/moved")
    place.expect(left, follow)
    before = tree("copy")
    place.run("mv folder away; mkdir other; mv away folder; echo >folder/back")
    place.expect("back", follow)
    assert not difference({path: tree("copy").get(path) for path in before}, before), "emptied meanwhile"
    assert place.read("err") == b"", place.read("err")


if __name__ == "__main__":
    signal.alarm(110)
    run_case([burst, on_burst, build, rsync, loop, nul, service, count, readmes, words, copy_tree], Programs)
