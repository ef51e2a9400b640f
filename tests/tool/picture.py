"""A reader's picture of a watched tree, kept from record lines alone, and the comparison of it with the disk.

Knows nothing of the tool but its output format. Paths are bytes throughout: names need not be valid UTF-8.
"""

import os
import re
import stat
import urllib.parse

RECORD = re.compile(
    rb'<(file|folder) action="(\w+)" inode="\d+"(?: oldValue="([^"]*)")?(?: modified="(\d+)")?[^>]*>(.*)</\1>\n?$')
FOLDER = "folder"
IGNORED = tuple(
    (".tmp .temp .log .sys .--- .### .$$$ .cache .cache-2 .cache-3 .db .sqlite .sqlite3 .db3 .db-shm .db-wal "
     ".db$ .db3-journal .download .downloaddownload .indexArrays .indexCompactDirectory .indexDirectory "
     ".indexPositions .indexPositionTable .sqlite3-journal .TemporaryItems .tmt").encode().split())


class Picture:
    """By path FOLDER or, of a file, the second of its modification; the watched folder itself left out."""

    def __init__(self):
        self.entries = {}
        self.oddities = []  # records that speak of something the picture does not hold

    def _below(self, path):
        prefix = path + b"/"
        return [name for name in self.entries if name.startswith(prefix)]

    def _drop(self, path):
        if self.entries.pop(path, None) == FOLDER:
            for name in self._below(path):
                del self.entries[name]

    def _expect(self, path, is_folder, line):
        if path not in self.entries or (self.entries[path] == FOLDER) != is_folder:
            self.oddities.append(line)

    def apply(self, line):
        match = RECORD.match(line)
        if match is None:
            return
        kind, action, old, modified, path = match.groups()
        action, path = action.decode(), urllib.parse.unquote_to_bytes(path)
        is_folder = kind == b"folder"
        entry = FOLDER if is_folder else int(modified or 0)
        if action in ("sync", "create"):
            if not is_folder or self.entries.get(path) != FOLDER:
                self._drop(path)
            self.entries[path] = entry
        elif action == "delete":
            self._expect(path, is_folder, line)
            self._drop(path)
        elif action == "rename":
            old = urllib.parse.unquote_to_bytes(old)
            self._expect(old, is_folder, line)
            moved = {path: entry}
            for name in self._below(old) if self.entries.get(old) == FOLDER else []:
                moved[path + name[len(old):]] = self.entries[name]
            self._drop(old)
            self._drop(path)
            self.entries.update(moved)
        elif action == "change":
            self._expect(path, is_folder, line)
            self.entries[path] = entry
        elif action in ("rootcreate", "rootdelete"):
            self.entries.clear()


ANY_SECOND = -1


def disk(root, linked=()):
    """What the tree holds now, as a picture would: names of ignored files left out, links as files. Of files with
    several names, and of those whose (device, inode) is among `linked`, the second is ANY_SECOND: a write through
    another name is not told."""
    entries = {}
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            try:
                status = os.lstat(path)
            except OSError:  # gone meanwhile, or too far down to have a path
                continue
            is_folder = stat.S_ISDIR(status.st_mode)
            if name == b".DS_Store" or (not is_folder and name[max(name.rfind(b"."), 0):] in IGNORED):
                continue
            is_linked = status.st_nlink > 1 or (status.st_dev, status.st_ino) in linked
            second = ANY_SECOND if is_linked else status.st_mtime_ns // 10**9 % 2**64
            entries[path] = FOLDER if is_folder else second
    return entries


def kinds(entries):
    """The entries with "file" instead of the seconds."""
    return {path: FOLDER if entry == FOLDER else "file" for path, entry in entries.items()}


def difference(picture, now):
    """The paths on which the two disagree, sorted, each with what the picture and what the disk holds."""
    def is_equal(one, other):
        return one == other or (isinstance(one, int) and other == ANY_SECOND)

    return [(path, picture.get(path), now.get(path))
            for path in sorted(picture.keys() | now.keys()) if not is_equal(picture.get(path), now.get(path))]
