"""The real tool, run on a folder, and the picture kept from its records."""

import os
import subprocess
import threading
import time

from picture import Picture, difference


class Tool:
    """The watching process and the picture kept from its lines by a thread of its own."""

    all = []

    def __init__(self, binary, root, **process):
        self.picture = Picture()
        self.lines = []
        self.scanned = threading.Event()
        self.may_read = threading.Event()
        self.may_read.set()
        log = os.environ.get("SOAK_LOG", "")  # the tool's debug log, for looking into a failure
        self.process = subprocess.Popen([binary, root, "true", "true" if log else "false", log],
                                        stdout=subprocess.PIPE, **process)
        Tool.all.append(self)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        if not self.scanned.wait(60):
            raise RuntimeError("no end of the first scan within a minute")

    def _read(self):
        for line in self.process.stdout:
            self.may_read.wait()
            self.lines.append(line)
            self.picture.apply(line)
            if line.startswith(b'<scan action="complete"'):
                self.scanned.set()

    def wait_for(self, wanted, patience):
        """Waits until the picture is `wanted`, a dictionary or what gives one; what differs when it does not come."""
        deadline = time.monotonic() + patience
        while True:
            left = difference(dict(self.picture.entries), wanted() if callable(wanted) else wanted)
            if not left or time.monotonic() > deadline:
                return left
            time.sleep(0.05)

    def memory(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))

    def watches(self):
        """The watches that the kernel counts for the instance that follows the tree."""
        counts = [0]
        try:
            for name in os.listdir(f"/proc/{self.process.pid}/fdinfo"):
                with open(f"/proc/{self.process.pid}/fdinfo/{name}", encoding="ascii") as info:
                    counts.append(info.read().count("inotify wd:"))
        except (FileNotFoundError, PermissionError):
            pass  # it has been closed, or the tool has ended
        return max(counts)
