#!/usr/bin/env python3
"""Keeps a copy of a folder up to date while the folder changes.

usage: copy_tree.py FOLDER COPY [TOOL]

Needs the client (clients/python). Works after each burst of changes, when what was written is at rest. At the start, and when
the folder came back, the two are compared as wholes: a file is copied when its time of modification or its size is another,
and what only COPY holds is removed. Nothing is taken out of the copy while FOLDER, or the folder concerned, is away or cannot
be read or entered. Owners, modes of folders, hard links and special files are not copied. A file that another one of the same
second replaces has no record, so the copy keeps the old one until the next comparison. Files whose endings the tool ignores are
not copied; those in COPY stay only where FOLDER has them too.
"""

import os
import shutil
import sys

import dirwarden


def is_folder(path):
    return os.path.isdir(path) and not os.path.islink(path)


def remove(path):
    if is_folder(path):
        shutil.rmtree(path)
    elif os.path.lexists(path):
        os.unlink(path)


def is_hidden(path):
    """Who may not enter a folder cannot say what is gone from it; the tool reports all that was in it as deleted."""
    try:
        os.lstat(path)
    except OSError as error:
        return not isinstance(error, (FileNotFoundError, NotADirectoryError))
    return False


def below(paths, kind, top):
    """The path and those below it. For a file none of the others is looked at: a burst can hold very many."""
    if kind == "file":
        return [top] if top in paths else []
    return [path for path in paths if (path + b"/").startswith(top + b"/")]


def is_same(source, copy):
    if is_folder(copy) or not os.path.lexists(copy):
        return False
    one, other = os.lstat(source), os.lstat(copy)
    return (one.st_mtime_ns, one.st_size) == (other.st_mtime_ns, other.st_size)


class Copy:
    def __init__(self, watcher, copy):
        self.watcher, self.source, self.copy = watcher, watcher.folder.rstrip(b"/"), copy

    def target(self, path):
        return self.copy + path[len(self.source):]

    def make_folder(self, path):
        if not is_folder(path):
            remove(path)
            os.makedirs(path)

    def put(self, path, kind):
        """What has gone since is in the next burst."""
        target = self.target(path)
        try:
            if kind == "folder":
                self.make_folder(target)
            elif (os.path.islink(path) or os.path.isfile(path)) and not is_same(path, target):
                part = self.copy + b"/.part.tmp"  # the tool would ignore such a name, so it cannot be taken
                remove(part)
                shutil.copy2(path, part, follow_symlinks=False)
                self.make_folder(os.path.dirname(target))
                if is_folder(target):
                    remove(target)
                os.replace(part, target)
        except OSError as error:
            if not isinstance(error, FileNotFoundError) or os.path.lexists(path):
                print(error, file=sys.stderr)

    def apply(self, changes):
        """Moves and deletions in their order; contents at the end, from where they are then."""
        waiting = {}  # kinds by path
        is_lost = False
        for change in changes:
            if change.action == "rename":
                old, new = change.old_path, change.path
                for path in below(waiting, change.kind, old):
                    waiting[new + path[len(old):]] = waiting.pop(path)
                remove(self.target(new))
                if os.path.lexists(self.target(old)):
                    self.make_folder(os.path.dirname(self.target(new)))
                    os.rename(self.target(old), self.target(new))
                else:
                    is_lost = is_lost or change.kind == "folder"
            elif change.action == "delete":
                if not is_hidden(change.path):
                    remove(self.target(change.path))
                for path in below(waiting, change.kind, change.path):
                    del waiting[path]
            elif change.kind == "folder":
                self.put(change.path, "folder")
            if change.action != "delete":
                waiting[change.path] = change.kind
        for path, kind in self.watcher.picture.items() if is_lost else waiting.items():
            self.put(path, kind)

    def compare(self, problems):
        """What is missing or another is copied, and what is there no more goes."""
        picture = {path: entry.kind for path, entry in self.watcher.picture.items()}
        for path, kind in picture.items():
            self.put(path, kind)
        unknown = {self.target(problem.path) for problem in problems}
        if self.copy in unknown or not os.path.isdir(self.source):
            return
        for folder, folders, files in os.walk(self.copy):
            folders[:] = [name for name in folders if os.path.join(folder, name) not in unknown]
            for path in [os.path.join(folder, name) for name in folders + files]:
                source = self.source + path[len(self.copy):]
                if source not in picture and not os.path.lexists(source) and not is_hidden(source):
                    remove(path)


def main(folder, copy, tool="Dirwarden"):
    ends = [os.path.realpath(path) for path in (folder, copy)]
    if os.path.commonpath(ends) in ends:
        sys.exit("copy_tree.py: one of the two folders is in the other")
    os.makedirs(copy, exist_ok=True)
    with dirwarden.watch(os.fsencode(folder), tool=tool) as watcher:
        mirror = Copy(watcher, os.fsencode(copy).rstrip(b"/"))
        for burst in watcher.bursts():
            if burst.fresh:
                mirror.compare(burst.problems)
            mirror.apply(burst.changes)
            print("compared" if burst.fresh else f"{len(burst.changes)} changes", flush=True)


if __name__ == "__main__":
    try:
        main(*sys.argv[1:]) if len(sys.argv) in (3, 4) else sys.exit(__doc__.split("\n")[2])
    except dirwarden.DirwardenError as error:
        sys.exit(f"copy_tree.py: {error}")
    except KeyboardInterrupt:
        pass
