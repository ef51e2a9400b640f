"""The real tool, followed by the Python client, and what the kernel says of its process."""

import contextlib
import os
import select
import sys
import threading
import time

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
    try:
        for name in os.listdir(f"/proc/{pid}/fdinfo"):
            with open(f"/proc/{pid}/fdinfo/{name}", encoding="ascii") as info:
                counts.append(info.read().count("inotify wd:"))
    except (FileNotFoundError, PermissionError):
        pass  # it has been closed, or the tool has ended
    return max(counts)


def flat(picture):
    """A client's picture as `disk` gives it."""
    return {path: FOLDER if entry.is_folder else (entry.modified, entry.size) for path, entry in picture.items()}


class Tool:
    """A watched folder, and the client that a thread of its own reads with."""

    all = []

    def __init__(self, command, root):
        self.watcher = dirwarden.watch(root, tool=command, log=os.environ.get("SOAK_LOG"))
        self.pid = self.watcher.pid
        self.lock = threading.Lock()  # of all that the thread changes
        self.changes = []
        self.error = None
        self.may_read = threading.Event()
        self.may_read.set()
        Tool.all.append(self)
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

    def close(self):
        self.error = self.error or "closed"
        self.watcher.close()

    def entries(self):
        with self.lock:
            return flat(self.watcher.picture)

    def wait_for(self, wanted, patience=PATIENCE):
        """Waits until the picture is `wanted`, a dictionary or what gives one; what differs when it does not come."""
        left = []

        def is_there():
            left[:] = difference(self.entries(), wanted() if callable(wanted) else wanted)
            return not left

        comes_true(is_there, patience)
        return left

    def memory(self):
        with open(f"/proc/{self.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    def watches(self):
        return watches(self.pid)
