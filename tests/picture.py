"""A reader's picture of a watched tree, kept from record lines alone, and the comparison of it with the disk.

Knows nothing of the tool but its output format. Paths are bytes throughout: names need not be valid UTF-8.
"""

import os
import re
import urllib.parse

RECORD = re.compile(
    rb'<(file|folder) action="(\w+)" inode="\d+"(?: oldValue="([^"]*)")?[^>]*>(.*)</\1>\n?$')
IGNORED = tuple(
    (".tmp .temp .log .sys .--- .### .$$$ .cache .cache-2 .cache-3 .db .sqlite .sqlite3 .db3 .db-shm .db-wal "
     ".db$ .db3-journal .download .downloaddownload .indexArrays .indexCompactDirectory .indexDirectory "
     ".indexPositions .indexPositionTable .sqlite3-journal .TemporaryItems .tmt").encode().split())


class Picture:
    """Names and kinds ("file" or "folder") by path, the watched folder itself left out."""

    def __init__(self):
        self.entries = {}
        self.oddities = []  # records that speak of something the picture does not hold

    def _below(self, path):
        prefix = path + b"/"
        return [name for name in self.entries if name.startswith(prefix)]

    def _drop(self, path):
        if self.entries.pop(path, None) == "folder":
            for name in self._below(path):
                del self.entries[name]

    def apply(self, line):
        match = RECORD.match(line)
        if match is None:
            return
        kind, action, old, path = match.groups()
        kind, action, path = kind.decode(), action.decode(), urllib.parse.unquote_to_bytes(path)
        if action in ("sync", "create"):
            if self.entries.get(path) != kind:
                self._drop(path)
            self.entries[path] = kind
        elif action == "delete":
            if self.entries.get(path) != kind:
                self.oddities.append(line)
            self._drop(path)
        elif action == "rename":
            old = urllib.parse.unquote_to_bytes(old)
            if self.entries.get(old) != kind:
                self.oddities.append(line)
            moved = {path: kind}
            for name in self._below(old) if self.entries.get(old) == "folder" else []:
                moved[path + name[len(old):]] = self.entries[name]
            self._drop(old)
            self._drop(path)
            self.entries.update(moved)
        elif action == "change":
            if self.entries.get(path) != kind:
                self.oddities.append(line)
        elif action in ("rootcreate", "rootdelete"):
            self.entries.clear()


def disk(root):
    """What the tree holds now, as a picture would: names of ignored files left out, links as files."""
    entries = {}
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            kind = "folder" if os.path.isdir(path) and not os.path.islink(path) else "file"
            if name == b".DS_Store" or (kind == "file" and name[max(name.rfind(b"."), 0):] in IGNORED):
                continue
            entries[path] = kind
    return entries


def difference(picture, now):
    """The paths on which the two disagree, sorted, each with what the picture and what the disk holds."""
    return [(path, picture.get(path), now.get(path))
            for path in sorted(picture.keys() | now.keys()) if picture.get(path) != now.get(path)]
