#!/usr/bin/env python3
"""The real tool on trees at the limits of the system; the picture kept from its records must come to equal the disk.

usage: extremes_test.py TOOL CASE

Exit status 77: the case needs what this machine does not permit.
"""

import os
import random
import resource
import shutil
import subprocess
import sys
import tempfile
import time

from picture import ANY, FOLDER, disk
from tool import PATIENCE, Tool, comes_true

SKIPPED = 77
NOBODY = 65534
PATH_MAX = 4096


def write(path, text="x"):
    with open(path, "a", encoding="ascii") as file:
        file.write(text)


def expect(what, left):
    if left:
        shown = [(len(path), path[-40:], *kinds) for path, *kinds in left[:5]]
        sys.exit(f"{what}: {len(left)} differences, the first, with the lengths of their paths: {shown}")


def deep(tool, base, root):
    """500 folders, one in the other: changes at the bottom, and the whole moved."""
    at = root
    for i in range(500):
        at = os.path.join(at, b"d%d" % (i % 10))
        os.mkdir(at)
        write(os.path.join(at, b"f"))
    watching = Tool(tool, root)
    expect("at the start", watching.wait_for(disk(root)))
    write(os.path.join(at, b"new"))
    os.unlink(os.path.join(at, b"f"))
    expect("at the bottom", watching.wait_for(disk(root)))
    os.rename(os.path.join(root, b"d0"), os.path.join(root, b"moved"))
    write(os.path.join(root, b"moved" + at[len(root) + 3:], b"newer"))
    expect("moved", watching.wait_for(disk(root)))
    os.rename(os.path.join(root, b"moved/d1/d2"), os.path.join(base, b"d2"))
    expect("cut off", watching.wait_for(disk(root)))
    os.rename(os.path.join(base, b"d2"), os.path.join(root, b"back"))
    expect("back", watching.wait_for(disk(root)))


def long_paths(tool, _base, root):
    """Folders down to beyond the longest path: what has no path is left out, everything else goes on."""
    def nameable():
        return {path: kind for path, kind in disk(root).items() if len(path) < PATH_MAX}

    watching = Tool(tool, root)
    at = os.open(root, os.O_RDONLY)
    last = root
    for i in range(24):
        name = b"%d" % (i % 10) + b"n" * 199
        os.mkdir(name, dir_fd=at)
        below = os.open(name, os.O_RDONLY, dir_fd=at)
        os.close(os.open(b"file", os.O_CREAT | os.O_WRONLY, dir_fd=below))
        os.close(at)
        at = below
        last = last + b"/" + name if len(last) + len(name) + 2 < PATH_MAX else last
    expect("made", watching.wait_for(nameable))
    for length in range(PATH_MAX - 4, PATH_MAX + 2):  # about the last path that can be named
        try:
            os.mkdir(last + b"/" + b"x" * (length - len(last) - 1))
        except OSError:
            pass
    write(os.path.join(root, b"short"))
    expect("at the limit", watching.wait_for(nameable))
    os.rename(os.path.join(root, b"0" + b"n" * 199), os.path.join(root, b"s"))  # now more has a path
    expect("shortened", watching.wait_for(nameable))
    shutil.rmtree(os.path.join(root, b"s"))
    expect("removed", watching.wait_for(nameable))


def unreadable(tool, base, root):
    """Folders that the tool, as another user, can and cannot read in turn."""
    os.chmod(base, 0o755)
    for name in (b"before", b"later", b"later/below", b"apart"):
        os.mkdir(os.path.join(root, name))
        write(os.path.join(root, name, b"file"))
    os.chmod(os.path.join(root, b"before"), 0)
    other = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    watching = Tool([*(other if os.getuid() == 0 else []), tool], root)
    os.chmod(os.path.join(root, b"before"), 0o755)
    expect("readable at last", watching.wait_for(disk(root)))
    later = os.path.join(root, b"later")
    os.chmod(later, 0)
    write(os.path.join(root, b"apart/other"))
    if os.getuid() == 0:
        os.unlink(os.path.join(later, b"below/file"))
        write(os.path.join(later, b"below/new"))
        write(os.path.join(later, b"new"))
        expect("elsewhere", watching.wait_for(
            lambda: {**watching.entries(), os.path.join(root, b"apart/other"): (ANY, ANY)}))
    os.chmod(later, 0o755)
    expect("readable again", watching.wait_for(disk(root)))
    os.chmod(os.path.join(root, b"before"), 0)
    os.rename(os.path.join(root, b"before"), os.path.join(root, b"moved"))
    os.chmod(os.path.join(root, b"moved"), 0o755)
    write(os.path.join(root, b"moved/new"))
    expect("moved meanwhile", watching.wait_for(disk(root)))


def few_watches(tool, _base, root):
    """A limit of 40 watches on 1,000 folders, raised in the end."""
    limit = "/proc/sys/user/max_inotify_watches"
    with open(limit, "w", encoding="ascii") as file:
        file.write("40")
    for i in range(1000):
        os.makedirs(os.path.join(root, b"d%d/s%d" % (i % 30, i)))
    watching = Tool(tool, root)
    chance = random.Random(7)
    folders = [path for path, kind in disk(root).items() if kind == FOLDER]
    for folder in chance.sample(folders, 40):
        write(os.path.join(folder, b"new"))
    os.rename(os.path.join(root, b"d7"), os.path.join(root, b"d8/d7"))
    os.rename(os.path.join(root, b"d9"), os.path.join(root, b"renamed"))
    shutil.rmtree(os.path.join(root, b"d10"))
    write(os.path.join(root, b"d8/d7/s7/deep"))
    expect("without watches", watching.wait_for(disk(root)))
    with open(limit, "w", encoding="ascii") as file:
        file.write("5000")
    wanted = 1 + list(disk(root).values()).count(FOLDER)
    expect("watches", [] if comes_true(lambda: watching.watches() == wanted, 60) else [(b"watches", wanted)])


def few_descriptors(tool, _base, root):
    """The limit of open files is lowered for some seconds, below what is open already, while the tree changes."""
    for name in (b"a", b"b", b"c"):
        os.mkdir(os.path.join(root, name))
        write(os.path.join(root, name, b"before"))
    watching = Tool(tool, root)
    pid = watching.pid
    most = len(os.listdir(f"/proc/{pid}/fd"))
    limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    for limit in (most, 4, 3):
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, limits[1]))
        before = len(watching.changes)
        for i in range(6):
            write(os.path.join(root, b"abc"[i % 3:i % 3 + 1], b"during%d-%d" % (limit, i)))
        os.mkdir(os.path.join(root, b"new%d" % limit))
        write(os.path.join(root, b"new%d" % limit, b"file"))
        if limit > 3:  # the one in reserve is enough, though two threads want it
            expect(f"with {limit} descriptors", watching.wait_for(disk(root), 2 * PATIENCE))
        time.sleep(2)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)
        expect(f"after {limit} descriptors", watching.wait_for(disk(root)))
        expect("deleted", [(change.path,) for change in watching.changes[before:] if change.action == "delete"])


def no_proc(tool, _base, root):
    """Nothing is mounted on /proc: folders are watched all the same, and moves are followed."""
    for i in range(20):
        os.makedirs(os.path.join(root, b"d%d/s" % i))
    os.chdir(os.path.dirname(root))
    hidden = ["unshare", "-m", "sh", "-c", 'mount -t tmpfs none /proc; exec "$0" "$@"', tool]
    watching = Tool(hidden, b"watched")
    relative = lambda: disk(b"watched")
    expect("at the start", watching.wait_for(relative))
    expect("watches", [] if watching.watches() == 41 else [(b"watches", watching.watches())])
    os.rename(os.path.join(root, b"d3"), os.path.join(root, b"d4/s/moved"))
    write(os.path.join(root, b"d4/s/moved/s/new"))
    expect("moved", watching.wait_for(relative))
    expect("created", [(change.path,) for change in watching.changes if (change.action, change.kind) == ("create", FOLDER)])


def came_back(tool, base, root):
    """A folder that leaves another one, which moves at the same time, and comes back with nothing in it."""
    os.makedirs(os.path.join(root, b"d/a"))
    write(os.path.join(root, b"d/a/x"))
    watching = Tool(tool, root)
    os.rename(os.path.join(root, b"d"), os.path.join(root, b"e"))
    os.rename(os.path.join(root, b"e/a"), os.path.join(base, b"o"))
    expect("told", watching.wait_for(lambda: {**watching.entries(), os.path.join(root, b"e"): FOLDER}))
    os.unlink(os.path.join(base, b"o/x"))
    os.rename(os.path.join(base, b"o"), os.path.join(root, b"b"))
    expect("back", watching.wait_for(disk(root)))


def two_paths(tool, _base, root):
    """One folder under two paths of the tree."""
    os.makedirs(os.path.join(root, b"a/x"))
    os.mkdir(os.path.join(root, b"b"))
    write(os.path.join(root, b"a/x/f"))
    subprocess.run(["mount", "--bind", os.path.join(root, b"a"), os.path.join(root, b"b")], check=True)
    watching = Tool(tool, root)
    os.unlink(os.path.join(root, b"a/x/f"))
    os.rename(os.path.join(root, b"a/x"), os.path.join(root, b"a/y"))
    expect("renamed", watching.wait_for(disk(root)))
    os.mkdir(os.path.join(root, b"b/y/z"))
    write(os.path.join(root, b"b/y/z/f"))
    os.rename(os.path.join(root, b"b/y/z"), os.path.join(root, b"b/w"))
    expect("from the other side", watching.wait_for(disk(root)))


def unmounted(tool, _base, root):
    """File systems that are mounted on folders of the tree, and taken away."""
    one, two = os.path.join(root, b"one"), os.path.join(root, b"two")
    os.mkdir(one)
    os.mkdir(two)
    write(os.path.join(one, b"covered"))

    def mount(path):
        subprocess.run(["mount", "-t", "tmpfs", "none", path], check=True)
        os.mkdir(os.path.join(path, b"inside"))
        write(os.path.join(path, b"inside/file"))

    mount(one)
    watching = Tool(tool, root)
    write(os.path.join(one, b"inside/new"))
    expect("mounted", watching.wait_for(disk(root)))
    subprocess.run(["umount", one], check=True)
    expect("unmounted", watching.wait_for(disk(root)))
    mount(two)
    mount(one)
    expect("mounted meanwhile", watching.wait_for(disk(root)))
    write(os.path.join(two, b"inside/newer"))
    expect("watched", watching.wait_for(disk(root)))
    subprocess.run(["umount", "-l", two], check=True)
    write(os.path.join(two, b"bare"))
    expect("unmounted lazily", watching.wait_for(disk(root)))
    bound = [os.path.join(root, b"bound%d" % i) for i in range(2)]
    for path in bound:
        os.mkdir(path)
        write(path + b"/in-" + path[-1:])
    subprocess.run(["mount", "--bind", bound[0], one], check=True)
    expect("bound", watching.wait_for(disk(root)))
    subprocess.run(["sh", "-c", 'umount "$0"; mount --bind "$1" "$0"', one, bound[1]], check=True)
    expect("bound to another at once", watching.wait_for(disk(root)))
    write(os.path.join(one, b"newest"))
    expect("watched", watching.wait_for(disk(root)))


CASES = {case.__name__: case for case in (deep, long_paths, unreadable, few_watches, few_descriptors, no_proc,
                                          came_back, two_paths, unmounted)}
MOUNTS = ["unshare", "-U", "-r", "-m"]
NAMESPACES = {"few_watches": ["unshare", "-U", "-r"], "no_proc": ["unshare", "-m"], "two_paths": MOUNTS,
              "unmounted": MOUNTS}


def main():
    tool, name = os.path.abspath(sys.argv[1]), sys.argv[2]
    own = NAMESPACES.get(name)
    if own is not None and "OWN_NAMESPACE" not in os.environ:
        if subprocess.run([*own, "true"], check=False).returncode != 0:
            sys.exit(SKIPPED)
        os.execvpe(own[0], [*own, sys.executable, *sys.argv], {**os.environ, "OWN_NAMESPACE": "1"})
    base = tempfile.mkdtemp(prefix="extremes").encode()
    root = os.path.join(base, b"watched")
    os.mkdir(root)
    try:
        CASES[name](tool, base, root)
    finally:
        for watching in Tool.all:
            watching.close()
        shutil.rmtree(base, ignore_errors=True)


if __name__ == "__main__":
    main()
