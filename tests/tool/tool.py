"""What the test programs share: the folder in which a case runs, the real tool, followed by the Python client, and what
the kernel says of its process.
"""

import atexit
import contextlib
import os
import select
import subprocess
import sys
import tempfile
import threading
import time

import places
from picture import FOLDER, difference

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../clients/python/src"))
import dirwarden  # noqa: E402

PATIENCE = 20  # seconds without anything that is waited for


def comes_true(condition, patience=PATIENCE):
    deadline = time.monotonic() + patience
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def watches(pid):
    """The watches that the kernel counts for the instance that follows the tree."""
    counts = [0]
    with contextlib.suppress(FileNotFoundError, PermissionError):  # it has been closed, or the tool has ended
        for name in os.listdir(f"/proc/{pid}/fdinfo"):
            with open(f"/proc/{pid}/fdinfo/{name}", encoding="ascii") as info:
                counts.append(info.read().count("inotify wd:"))
    return max(counts)


def flat(picture):
    """A client's picture as `disk` gives it."""
    return {path: FOLDER if entry.is_folder else (entry.modified, entry.size) for path, entry in picture.items()}


class Place(contextlib.ExitStack):
    """A folder for one case; what the case starts in it ends with it."""

    def __init__(self, tool, base):
        super().__init__()
        self.tool, self.base = tool, base

    def path(self, name):
        return os.path.join(self.base, os.fsencode(name))

    def read(self, name):
        with open(self.path(name), "rb") as file:
            return file.read()

    def write(self, name, text):
        with open(self.path(name), "w", encoding="utf-8") as file:
            file.write(text)

    def run(self, commands, **environment):
        """Runs shell commands in the folder."""
        subprocess.run(["bash", "-ec", commands], cwd=self.base, env={**os.environ, **environment}, check=True)


def run_case(cases, make=Place):
    """Runs the case that the command line names: TOOL CASE, and what else `make` takes."""
    tool, name, *more = sys.argv[1:]
    base = tempfile.mkdtemp(prefix="dirwarden-").encode()
    try:
        with make(os.path.abspath(tool), base, *more) as place:
            {case.__name__: case for case in cases}[name](place)
    finally:
        places.clear(base)


class Piped:
    """A process whose lines wait in a pipe until they are taken; killed at the end."""

    def __init__(self, command, **options):
        self.rest = b""  # read, not taken yet
        self.process = subprocess.Popen(command, **{"bufsize": 0, "stdout": subprocess.PIPE, **options})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def take(self, count=sys.maxsize, patience=PATIENCE):
        """The next lines, so many; fewer when they do not come in time or the output ends."""
        output = self.process.stdout
        while self.rest.count(b"\n") < count and select.select([output], [], [], patience)[0]:
            piece = output.read(65536)
            if not piece:
                break
            self.rest += piece
        *lines, self.rest = self.rest.split(b"\n", count)
        return [os.fsdecode(line) for line in lines]


class Tool:
    """A watched folder, and the client that a thread of its own reads with; it ends with the program."""

    def __init__(self, command, root):
        self.watcher = dirwarden.watch(root, tool=command, log=os.environ.get("SOAK_LOG"))
        self.pid = self.watcher.pid
        self.lock = threading.Lock()  # of all that the thread changes
        self.changes = []
        self.error = None
        self.may_read = threading.Event()
        self.may_read.set()
        atexit.register(self.watcher.close)
        threading.Thread(target=self._read, daemon=True).start()
        if not comes_true(lambda: self.watcher.is_ready or self.error, 60) or self.error:
            raise RuntimeError(f"no end of the first scan: {self.error}")

    def _read(self):
        while self.error is None:
            self.may_read.wait()
            with contextlib.suppress(ValueError, OSError):  # it has been closed
                select.select([self.watcher], [], [], 0.05)
            with self.lock:
                try:
                    while (event := self.watcher.next(0)) is not None:
                        if isinstance(event, dirwarden.Changes):
                            self.changes += event
                except dirwarden.DirwardenError as error:
                    self.error = error

    def entries(self):
        with self.lock:
            return flat(self.watcher.picture)

    def wait_for(self, wanted, patience=PATIENCE):
        """Waits until the picture is `wanted`; what differs when it does not come to that."""
        comes_true(lambda: not difference(self.entries(), wanted), patience)
        return difference(self.entries(), wanted)

    def memory(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
