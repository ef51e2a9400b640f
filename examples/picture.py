#!/usr/bin/env python3
"""Keeps a picture of a folder from Dirwarden's records and prints each change in words.

usage: picture.py FOLDER [TOOL]

TOOL is Dirwarden's path; else the environment variable DIRWARDEN names it, else it is looked for in the search path.
The Return key shows the picture, what FOLDER holds as far as the records told. The end of the input shows it once more
and ends both programs. Names are shown as in a URL.
"""

import os
import re
import select
import sys
from subprocess import DEVNULL, PIPE, Popen
from urllib.parse import quote, unquote_to_bytes

RECORD = re.compile(rb'<(file|folder) action="(\w+)" inode="\d+"(?: oldValue="([^"]*)")?[^>]*>([^<]*)</')


class Picture(dict):
    """Kind ("file" or "folder") by path. Paths are bytes, since names need not be valid in any encoding."""
    in_error = False  # the path in an error line is not encoded: it may break the line

    def take(self, path):
        """Takes the entry out, and all below it if it is a folder. Gives the kinds by what follows the path."""
        below = [name for name in self if name.startswith(path + b"/")] if self.get(path) == "folder" else []
        return {name[len(path):]: self.pop(name) for name in [path] * (path in self) + below}

    def apply(self, line):  # without its end; returns what it says, in words
        if self.in_error or line.startswith(b"<error>"):
            self.in_error = not line.endswith(b"</error>")
            return line.decode(errors="replace")
        record = RECORD.match(line)
        if record is None:  # the version, a setting or the mark of a scan
            if not line:  # or a root record, where the watched path is a link
                self.clear()
            return line.decode()
        kind, action = record[1].decode(), record[2].decode()
        old, path = unquote_to_bytes(record[3] or b""), unquote_to_bytes(record[4])
        if action in ("sync", "create"):
            if self.get(path, kind) != kind:
                self.take(path)
            self[path] = kind
        elif action == "delete":
            self.take(path)
        elif action == "rename":
            moved = self.take(old) or {b"": kind}
            self.take(path)
            self.update((path + rest, what) for rest, what in moved.items())
        elif action in ("rootdelete", "rootcreate"):
            self.clear()
        return f"{action} {kind} {quote(path)}" + (f" (it was {quote(old)})" if old else "")

    def show(self):
        entries = [f"  {kind} {quote(path)}" for path, kind in sorted(self.items())]
        print(*entries, f"{len(entries)} entries", sep="\n", flush=True)


def main(folder, tool=os.environ.get("DIRWARDEN", "Dirwarden")):
    picture, rest, data = Picture(), b"", True
    with Popen([tool, folder, "true"], stdin=DEVNULL, stdout=PIPE, bufsize=0) as process:  # true: list what is there
        try:
            while data:
                source = select.select([sys.stdin, process.stdout], [], [])[0][0]
                data = os.read(source.fileno(), 65536)
                if source is sys.stdin:
                    picture.show()
                    continue
                *lines, rest = (rest + data).split(b"\n")
                for line in lines:
                    print(picture.apply(line), flush=True)
        finally:
            process.kill()


if __name__ == "__main__":
    main(*sys.argv[1:]) if len(sys.argv) > 1 else sys.exit(__doc__.split("\n")[2])
