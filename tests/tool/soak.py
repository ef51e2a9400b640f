#!/usr/bin/env python3
"""Random changes to a tree that the real tool watches; the picture kept from its records must come to equal the
disk whenever the tree has been quiet for a few seconds.

usage: soak.py [--on PLACE] [--rounds ROUNDS] TOOL SECONDS [SEED] [MODE ...]

PLACE is a folder, or the name of a file system that is made for it (places.py): tmpfs, ext4-128, xfs, btrfs (with
subvolumes and snapshots), overlay, bindfs, binds (parts of the tree are mounted at other places of it too) and mounts
(file systems come, go and move in it). Exit status 77: it cannot be had here.

Modes (the first five in turn when none is named): mixed, burst (more lines than the emitter's pace), stopped (the tool
is stopped while the kernel's queue overflows), stalled (nobody reads for a while), root (the watched folder itself
goes, comes and is replaced), crowded (one folder of 50,000 files, which is read by names). A failure prints the seed,
the first differences and the operations that touched them, and the exit status is 1.
"""

import argparse
import contextlib
import mmap
import os
import random
import shutil
import signal
import sys
import tempfile
import time

import places
from picture import FOLDER, difference, disk
from tool import Tool, watches

MODES = ["mixed", "burst", "stopped", "stalled", "root"]
CROWD = 50000  # files
LINES_PER_SECOND = 3000
PATIENCE = 12  # seconds from the last change to the equal picture, without the emitter's backlog
NAMES = [b"a", b"b", b"c", b"d", b"e", b"f g", b"h.txt", b"i.tmp", b"\xff\xfe", b"k<&\">", b"l%41", b"m"]


def is_folder(entry):
    return entry.is_dir(follow_symlinks=False)


def is_file(entry):
    return entry.is_file(follow_symlinks=False)


def entries(folder, wanted=is_folder):
    """The paths of such entries; none when the folder cannot be read."""
    with contextlib.suppress(OSError):
        return [entry.path for entry in os.scandir(folder) if wanted(entry)]
    return []


class Mutator:
    """Random operations below one folder, and a spare folder beside it that entries move out to and back from."""

    def __init__(self, chance, base, place):
        self.chance = chance
        self.root = os.path.join(base, b"watched")
        self.spare = os.path.join(base, b"spare")
        os.makedirs(self.root, exist_ok=True)
        os.makedirs(self.spare, exist_ok=True)
        self.done = []  # the operations, each with the paths that were chosen for it
        self.chosen = []
        self.linked = set()  # (device, inode) of the files that have or had several names
        self.clock = 1_000_000_000
        self.operations = {**OPERATIONS, **OPERATIONS_ON.get(place, {})}
        self.crowd = None  # the very large folder, while it alone is changed
        self.crowd_places = [os.path.join(self.root, name) for name in (b"crowd", b"place/crowd")]

    def folders(self, top=None):
        found = [top or self.root]
        for folder in found:
            found += entries(folder)
            if len(found) > 300:
                break
        return found

    def folder(self):
        """A folder somewhere in the tree, found by a random walk."""
        if self.crowd:
            return self.crowd
        at = self.root
        while self.chance.random() < 0.75 and at.count(b"/") <= 12 and (below := entries(at)):
            at = self.chance.choice(below)
        return at

    def name(self):
        if self.crowd:
            return b"n%05d" % self.chance.randrange(CROWD + 50)
        return self.chance.choice(NAMES) + (b"%d" % self.chance.randrange(4))

    def choose(self, paths):
        if not paths:
            raise FileNotFoundError
        self.chosen.append(self.chance.choice(paths))
        return self.chosen[-1]

    def fresh(self):
        return self.choose([os.path.join(self.folder(), self.name())])

    def entry(self, wanted=lambda e: True, top=None):
        if self.crowd:
            return self.fresh()  # most names are there, and a listing would take long
        return self.choose(sorted(entries(top or self.folder(), wanted)))

    def stamp(self, path):
        """Another second each time, so that a rewritten file is a changed one."""
        self.clock += 1
        os.utime(path, (self.clock, self.clock))

    def fill(self, path):
        with open(path, "wb") as file:
            file.write(b"x" * self.chance.randrange(100))
        self.stamp(path)

    def write(self):
        self.fill(self.fresh())

    def make_folder(self):
        os.mkdir(self.fresh())

    def make_nested(self):
        path = self.fresh()
        os.makedirs(os.path.join(path, *[self.name() for _ in range(self.chance.randrange(1, 6))]))
        for folder in self.folders(path):
            self.fill(os.path.join(folder, self.name()))

    def rename(self):
        os.rename(self.entry(), self.fresh())

    def rename_folder(self):
        os.rename(self.entry(is_folder), self.fresh())

    def remove(self):
        os.unlink(self.entry(lambda e: not is_folder(e)))

    def remove_tree(self):
        shutil.rmtree(self.entry(is_folder))

    def link(self):
        old, new = self.entry(is_file), self.fresh()
        os.link(old, new)
        status = os.lstat(new)
        self.linked.add((status.st_dev, status.st_ino))

    def write_mapped(self):
        path = self.fresh()
        with open(path, "wb") as file:
            file.write(b"some")
        self.stamp(path)  # the mapping's second is another one
        with open(path, "r+b") as file, mmap.mmap(file.fileno(), 0) as mapping:
            mapping[0:1] = b"y"

    def enter_crowd(self):
        top = next(filter(os.path.isdir, self.crowd_places), None)
        if top is None:
            top = self.crowd_places[0]
            os.mkdir(top)
            for i in range(CROWD):
                os.mknod(b"%s/n%05d" % (top, i), 0o644)
                os.utime(b"%s/n%05d" % (top, i), (i, i))
        self.crowd = top

    def move_crowd(self):
        other = self.crowd_places[self.crowd == self.crowd_places[0]]
        os.makedirs(os.path.dirname(other), exist_ok=True)
        os.rename(self.crowd, other)
        self.crowd = other

    def symlink(self):
        os.symlink(self.chance.choice([self.folder(), b"nowhere"]), self.fresh())

    def swap_kind(self):
        path = self.entry()
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
            self.chance.choice([self.fill, lambda p: os.symlink(b".", p)])(path)
        else:
            os.unlink(path)
            os.mkdir(path)
            self.fill(os.path.join(path, self.name()))

    def move_out(self):
        os.rename(self.entry(), self.choose([os.path.join(self.spare, self.name())]))

    def move_in(self):
        old = self.entry(top=self.spare)
        if os.path.isdir(old) and not os.path.islink(old) and self.chance.random() < 0.5:
            for folder in self.folders(old)[:5]:
                self.fill(os.path.join(folder, self.name()))
        os.rename(old, self.fresh())

    def unpack(self):
        """What unpackers do: a temporary name in a new folder, renamed, and then the folder is moved."""
        top, final = self.fresh(), self.fresh()
        os.mkdir(top)
        for _ in range(self.chance.randrange(1, 8)):
            name = self.name()
            temporary = os.path.join(top, b"part" + name)
            self.fill(temporary)
            os.rename(temporary, os.path.join(top, name))
            if self.chance.random() < 0.3:
                os.mkdir(os.path.join(top, b"sub" + name))
        os.rename(top, final)

    def exchange(self):
        a, b = self.entry(), self.entry()
        spare = a + b".swap"
        os.rename(a, spare)
        try:
            os.rename(b, a)
        except OSError:
            os.rename(spare, a)
            raise
        os.rename(spare, b)

    def save_atomically(self):
        path = self.entry(is_file)
        self.fill(path + b".new")
        os.rename(path + b".new", path)

    def replace_at_once(self):
        path, new = self.entry(lambda e: not is_folder(e)), self.fresh()
        os.unlink(path)
        self.fill(new)

    def subvolume(self):
        places.run("btrfs", "subvolume", "create", self.fresh())

    def snapshot(self):
        """Of a subvolume, with the inode numbers and times of the one it is taken of."""
        places.run("btrfs", "subvolume", "snapshot", self.choose(self.folders()), self.fresh())

    def mount(self):
        path = self.choose(self.folders()[1:])
        places.run("mount", "-t", "tmpfs", "none", path)
        self.fill(os.path.join(path, self.name()))

    def bind_within(self):
        """Some folder, of the tree or beside it, at some place of the tree."""
        if len(places.mounts_below(self.root)) > 5:
            raise OSError
        what, path = [self.choose(self.folders()[1:]) for _ in range(2)]
        if self.chance.random() < 0.2:
            what = self.spare
        if (path + b"/").startswith(what + b"/"):
            raise OSError
        places.run("mount", "--bind", what, path)

    def mounted(self):
        return self.choose(places.mounts_below(self.root))

    def unmount(self):
        places.run("umount", *self.chance.choice([[], ["-l"]]), self.mounted())

    def move_mount(self):
        places.run("mount", "--move", self.mounted(), self.choose(self.folders()))

    def mount_instead(self):
        """What is mounted gives way to something else at once: the kernel uses the free number again."""
        path, what = self.mounted(), self.choose(self.folders(self.spare))
        places.run("umount", path)
        places.run("mount", "--bind", what, path)

    def replace_root(self):
        away = self.root + b".away"
        os.rename(self.root, away)
        if self.chance.random() < 0.5:
            time.sleep(self.chance.random())
        if self.chance.random() < 0.5:
            os.mkdir(self.root)
            self.fill(os.path.join(self.root, b"new"))
            shutil.rmtree(away)
        else:
            os.rename(away, self.root)

    def steps(self, least, most, pauses=0.0):
        """So many random operations, with a pause after some of them."""
        for _ in range(self.chance.randrange(least, most)):
            table = IN_CROWD if self.crowd else self.operations
            self.do(self.chance.choices([*table], table.values())[0])
            if self.chance.random() < pauses:
                time.sleep(self.chance.random() * self.chance.choice([0.01, 0.1, 0.6]))

    def do(self, operation):
        self.chosen = []
        with contextlib.suppress(OSError):
            operation(self)
            self.done.append((operation.__name__, *self.chosen))


# How often each is chosen.
OPERATIONS = {
    Mutator.write: 8, Mutator.make_folder: 6, Mutator.make_nested: 3, Mutator.rename: 8, Mutator.rename_folder: 6,
    Mutator.remove: 4, Mutator.remove_tree: 2, Mutator.link: 3, Mutator.symlink: 2, Mutator.swap_kind: 3,
    Mutator.move_out: 2, Mutator.move_in: 3, Mutator.unpack: 3, Mutator.exchange: 2, Mutator.save_atomically: 2,
    Mutator.replace_at_once: 2}
OPERATIONS_ON = {
    "btrfs": {Mutator.subvolume: 3, Mutator.snapshot: 2},
    "binds": {Mutator.bind_within: 2, Mutator.unmount: 1},
    "mounts": {Mutator.mount: 3, Mutator.bind_within: 2, Mutator.move_mount: 2, Mutator.unmount: 3,
               Mutator.mount_instead: 2}}
IN_CROWD = {
    Mutator.write: 24, Mutator.rename: 20, Mutator.exchange: 10, Mutator.link: 10, Mutator.remove: 10,
    Mutator.swap_kind: 10, Mutator.remove_tree: 5, Mutator.write_mapped: 10, Mutator.move_crowd: 1}


def settle(tool, mutator):
    """Waits until the picture equals the disk; the differences that are left when it does not come to that."""
    now = disk(mutator.root, mutator.linked)
    count = tool.watcher.records
    deadline = time.monotonic() + PATIENCE + 3 * len(difference(tool.entries(), now)) / LINES_PER_SECOND
    while (left := difference(tool.entries(), now)) and time.monotonic() < deadline:
        if tool.watcher.records != count:
            count, deadline = tool.watcher.records, max(deadline, time.monotonic() + 3)
        time.sleep(0.1)
    return left


def disturb(mode, tool, mutator):
    """One round of changes in the mode's manner."""
    if mode == "mixed":
        mutator.steps(10, 200, 0.2)
    elif mode == "burst":
        mutator.steps(1000, 3000)
    elif mode == "stopped":
        os.kill(tool.pid, signal.SIGSTOP)
        paths = [os.path.join(mutator.root, b"load%d" % mutator.chance.getrandbits(60)) for _ in range(2)]
        with open(paths[0], "ab", buffering=0) as one, open(paths[1], "ab", buffering=0) as other:
            for _ in range(400):
                for _ in range(25):  # the kernel's queue holds 16,384 events
                    one.write(b"x")
                    other.write(b"x")
                mutator.steps(1, 2)
        mutator.done += [("load", path) for path in paths]
        mutator.steps(200, 201)
        os.kill(tool.pid, signal.SIGCONT)
    elif mode == "stalled":
        tool.may_read.clear()
        mutator.steps(500, 2000)
        time.sleep(2)
        tool.may_read.set()
    elif mode == "root":
        mutator.steps(5, 40)
        mutator.do(Mutator.replace_root)
        mutator.steps(0, 20)
    elif mode == "crowded":
        mutator.enter_crowd()
        mutator.steps(10, 500, 0.1)
        mutator.crowd = None


def remove(found):
    for entry in found:
        if is_folder(entry):
            shutil.rmtree(entry.path, ignore_errors=True)  # mounts in it stay
        else:
            os.unlink(entry.path)


def shrink(mutator):
    """Keeps the tree small enough for many rounds."""
    if len(mutator.folders()) > 250:
        places.unmount_below(mutator.root)
        remove(list(os.scandir(mutator.root)))
    remove(list(os.scandir(mutator.spare))[20:])


def report(seed, rounds, mode, left, tool, mutator):
    print(f"FAILED with seed {seed} in round {rounds} ({mode}): {len(left)} differences, {tool.error}")
    for path, pictured, real in left[:5]:
        print(f"  {path!r}: picture {pictured}, disk {real}")
    names = left[0][0].split(b"/")[-2:] if left else []
    print("operations that touched the first:")
    for operation in [done for done in mutator.done if any(n in p for n in names for p in done[1:])][-15:]:
        print("  ", *[str(part) for part in operation])
    print("last changes:")
    for change in [change for change in tool.changes if any(n in change.path for n in names[-1:])][-15:]:
        print("  ", change)
    print(f"{1 + list(disk(mutator.root).values()).count(FOLDER)} folders, {watches(tool.pid)} watches")


def arguments():
    parser = argparse.ArgumentParser(usage="soak.py [--on PLACE] [--rounds ROUNDS] TOOL SECONDS [SEED] [MODE ...]")
    parser.add_argument("--on", default=tempfile.gettempdir())
    parser.add_argument("--rounds", type=int, default=sys.maxsize)
    parser.add_argument("tool")
    parser.add_argument("seconds", type=float)
    parser.add_argument("seed", type=int, nargs="?", default=random.randrange(1 << 32))
    parser.add_argument("modes", nargs="*", metavar="MODE")
    return parser.parse_args()


def main():
    given = arguments()
    is_own = given.on in places.FILE_SYSTEMS
    if is_own:
        places.enter_namespace("-m")
    base = tempfile.mkdtemp(prefix="soak", dir=None if is_own else given.on).encode()
    try:
        return soak(given, places.prepare(given.on, base))
    finally:
        places.clear(base)


def soak(given, base):
    seed, modes = given.seed, given.modes or MODES
    mutator = Mutator(random.Random(seed), base, given.on)
    mutator.steps(50, 51)
    tool = Tool(given.tool, mutator.root)
    end = time.monotonic() + given.seconds
    rounds, left, memory = 0, [], []
    while time.monotonic() < end and rounds < given.rounds and not left and tool.error is None:
        mode = modes[rounds % len(modes)]
        rounds += 1
        disturb(mode, tool, mutator)
        left = settle(tool, mutator)
        if left or tool.error is not None:
            report(seed, rounds, mode, left, tool, mutator)
        memory.append(0 if tool.error else tool.memory())
        shrink(mutator)
    print(f"seed {seed}: {rounds} rounds, {len(mutator.done)} operations, {tool.watcher.records} records, "
          f"memory {memory[0]} to {memory[-1]} KiB")
    return 0 if not left and tool.error is None else 1


if __name__ == "__main__":
    sys.exit(main())
