#!/usr/bin/env python3
"""The real tool on trees at the limits of the system; the picture kept from its records must come to equal the disk.

usage: extremes_test.py TOOL CASE

Exit status 77: the case needs what this machine does not permit.
"""

import os
import resource
import sys
import time

import places
from picture import FOLDER, disk
from tool import PATIENCE, Place, Tool, comes_true, run_case, watches

NOBODY = 65534


class Tree(Place):
    """The watched folder. Commands run in it; ".." is a folder that nobody watches."""

    def __init__(self, tool, base):
        super().__init__(tool, os.path.join(base, b"watched"))
        os.mkdir(self.base)


def expect(what, left):
    if left:
        shown = [(len(path), path[-40:], *kinds) for path, *kinds in left[:5]]
        sys.exit(f"{what}: {len(left)} differences, the first, with the lengths of their paths: {shown}")


def story(tree, before, *steps, prefix=(), root=None):
    """Runs the commands `before`, starts the tool, and runs the steps. After each the picture has to come to equal the
    disk or, where the step is a pair of commands and a path, to hold that path."""
    tree.run(before)
    watching = Tool([*prefix, tree.tool], root or tree.base)
    for step in steps:
        commands, seen = step if isinstance(step, tuple) else (step, None)
        tree.run(commands)
        if seen is None:
            expect(commands, watching.wait_for(disk(root or tree.base)))
        else:
            assert comes_true(lambda p=tree.path(seen): p in watching.entries()), commands
    return watching


def deep(tree):
    """500 folders, one in the other: changes at the bottom, and the whole moved."""
    to_bottom = "cd $(find . -depth -type d | head -n 1)"
    story(tree, "for i in {0..499}; do mkdir d$((i % 10)); cd d$((i % 10)); echo >f; done",
          "",
          f"{to_bottom}; echo >new; rm f",
          f"mv d0 moved; {to_bottom}; echo >newer",
          "mv moved/d1/d2 ..",
          "mv ../d2 back")


def long_paths(tree):
    """Folders down to beyond the longest path: what has no path is left out, everything else goes on."""
    story(tree, "",
          "for i in {0..23}; do name=$(printf %0200d $i); mkdir $name; cd -P $name; echo >file; done",
          # About the last path that can be named.
          """echo >short
             while [ ${#PWD} -lt 3890 ]; do cd 0*; done
             for length in {4092..4097}; do mkdir $(printf %0$((length - ${#PWD} - 1))d); done""",
          "mv 0* s",  # now more has a path
          "rm -r s")


def unreadable(tree):
    """Folders that the tool, as another user, can and cannot read in turn."""
    other = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    inside = "rm later/below/file; echo >later/below/new; echo >later/new" if os.getuid() == 0 else ""
    story(tree,
          "chmod 755 ..; mkdir -p before later/below apart; touch {before,later{,/below},apart}/file; chmod 0 before",
          "chmod 755 before",
          (f"chmod 0 later; echo >apart/other; {inside}", "apart/other"),
          "chmod 755 later",
          "chmod 0 before; mv before moved; chmod 755 moved; echo >moved/new",
          prefix=other if os.getuid() == 0 else ())


def few_watches(tree):
    """A limit of 40 watches on 1,000 folders, raised in the end."""
    limit = "/proc/sys/user/max_inotify_watches"
    watching = story(tree, f"echo 40 >{limit}; for i in {{0..999}}; do mkdir -p d$((i % 30))/s$i; done",
                     """for folder in $(find . -mindepth 1 -type d | sort | sed -n '0~26p'); do echo >$folder/new; done
                        mv d7 d8
                        mv d9 renamed
                        rm -r d10
                        echo >d8/d7/s7/deep""")
    tree.run(f"echo 5000 >{limit}")
    wanted = 1 + list(disk(tree.base).values()).count(FOLDER)
    assert comes_true(lambda: watches(watching.pid) == wanted, 60), (watches(watching.pid), wanted)


def few_descriptors(tree):
    """The limit of open files is lowered for some seconds, below what is open already, while the tree changes."""
    watching = story(tree, "mkdir a b c; touch {a,b,c}/before")
    pid = watching.pid
    most = len(os.listdir(f"/proc/{pid}/fd"))
    limits = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    for limit in (most, 4, 3):
        resource.prlimit(pid, resource.RLIMIT_NOFILE, (limit, limits[1]))
        before = len(watching.changes)
        tree.run(f"touch {{a,b,c}}/{limit}-{{1,2}}; mkdir new{limit}; touch new{limit}/file")
        if limit > 3:  # the one in reserve is enough, though two threads want it
            expect(f"with {limit} descriptors", watching.wait_for(disk(tree.base), 2 * PATIENCE))
        time.sleep(2)
        resource.prlimit(pid, resource.RLIMIT_NOFILE, limits)
        expect(f"after {limit} descriptors", watching.wait_for(disk(tree.base)))
        expect("deleted", [(change.path,) for change in watching.changes[before:] if change.action == "delete"])


def no_proc(tree):
    """Nothing is mounted on /proc: folders are watched all the same, and moves are followed."""
    os.chdir(os.path.dirname(tree.base))
    watching = story(tree, "mkdir -p d{0..19}/s", "",
                     prefix=["unshare", "-m", "sh", "-c", 'mount -t tmpfs none /proc; exec "$0" "$@"'], root=b"watched")
    assert watches(watching.pid) == 41, watches(watching.pid)
    tree.run("mv d3 d4/s/moved; echo >d4/s/moved/s/new")
    expect("moved", watching.wait_for(disk(b"watched")))
    expect("created", [(change.path,) for change in watching.changes
                       if (change.action, change.kind) == ("create", FOLDER)])


def came_back(tree):
    """A folder that leaves another one, which moves at the same time, and comes back with nothing in it."""
    story(tree, "mkdir -p d/a; echo >d/a/x",
          ("mv d e; mv e/a ../o", "e"),
          "rm ../o/x; mv ../o b")


def two_paths(tree):
    """One folder under two paths of the tree."""
    story(tree, "mkdir -p a/x b; echo >a/x/f; mount --bind a b",
          "rm a/x/f; mv a/x a/y",
          "mkdir b/y/z; echo >b/y/z/f; mv b/y/z b/w")


def unmounted(tree):
    """File systems that are mounted on folders of the tree, and taken away."""
    mount = "mount -t tmpfs none {0}; mkdir {0}/inside; echo >{0}/inside/file; ".format
    story(tree, "mkdir one two; echo >one/covered; " + mount("one"),
          "echo >one/inside/new",
          "umount one",
          mount("two") + mount("one"),
          "echo >two/inside/newer",
          "umount -l two; echo >two/bare",
          "mkdir bound0 bound1; touch bound0/in-0 bound1/in-1; mount --bind bound0 one",
          "umount one; mount --bind bound1 one",  # at once
          "echo >one/newest",
          "mkdir -p three plain four/inside",
          *(f"cd {folder}; mount -t tmpfs none $PWD; mkdir hidden; sleep 0.1; umount $PWD" for folder in (".", "three")),
          "echo >hidden/file; echo >three/hidden/file",
          "mount --bind plain four/inside; mkdir four/new; mv four five; umount five/inside",
          "echo >five/inside/file")


MOUNTS = ["-U", "-r", "-m"]
NAMESPACES = {"few_watches": ["-U", "-r"], "no_proc": ["-m"], "two_paths": MOUNTS, "unmounted": MOUNTS}

if __name__ == "__main__":
    if sys.argv[2] in NAMESPACES:
        places.enter_namespace(*NAMESPACES[sys.argv[2]])
    run_case([deep, long_paths, unreadable, few_watches, few_descriptors, no_proc, came_back, two_paths, unmounted],
             Tree)
