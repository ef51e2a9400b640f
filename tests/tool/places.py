"""Where the soak can make its changes: folders of the machine, and file systems made for it alone.

A file system is mounted in a mount namespace of the process's own, below its temporary folder, and goes with it. That
needs root, and for some of them a program that may not be installed; where it cannot be had, the process ends with the
status SKIPPED and says so.
"""

import os
import shutil
import subprocess
import sys

SKIPPED = 77


def run(*command):
    """Runs the command; OSError when it fails, as an operation that is not possible now."""
    done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    if done.returncode != 0:
        raise OSError(b" ".join(os.fsencode(word) for word in command) + b": " + done.stderr)


def enter_namespace(variable="OWN_MOUNTS"):
    """Starts this program once more in a mount namespace of its own."""
    if variable in os.environ:
        return
    probe = subprocess.run(["unshare", "-m", "true"], stderr=subprocess.DEVNULL, check=False)
    if os.getuid() != 0 or probe.returncode != 0:
        skip("no mount namespace can be had")
    os.execvpe("unshare", ["unshare", "-m", sys.executable, *sys.argv], {**os.environ, variable: "1"})


def skip(reason):
    print("skipped:", reason)
    sys.exit(SKIPPED)


def loop(base, folder, make, size="2G", **options):
    image = os.path.join(base, b"image")
    run("truncate", "-s", size, image)
    run(*make, image)
    run("mount", "-o", options.get("mount", "loop"), image, folder)


def on_tmpfs(_base, folder):
    run("mount", "-t", "tmpfs", "none", folder)


def on_ext4_128(base, folder):
    """Inodes without room for a time of birth."""
    loop(base, folder, ["mkfs.ext4", "-q", "-I", "128"])


def on_xfs(base, folder):
    loop(base, folder, ["mkfs.xfs", "-q"])


def on_btrfs(base, folder):
    loop(base, folder, ["mkfs.btrfs", "-q"])


def on_overlay(base, folder):
    """A tree in the lower layer, from which files are copied up when they change."""
    layers = os.path.join(base, b"layers")
    os.mkdir(layers)
    run("mount", "-t", "tmpfs", "none", layers)
    lower, upper, work = [os.path.join(layers, name) for name in (b"lower", b"upper", b"work")]
    for layer in (lower, upper, work):
        os.mkdir(layer)
    for i in range(40):
        below = os.path.join(lower, b"watched/%d/%d" % (i % 3, i % 7))
        os.makedirs(below, exist_ok=True)
        with open(os.path.join(below, b"f%d" % i), "wb") as file:
            file.write(b"x" * i)
    run("mount", "-t", "overlay", "none", "-o",
        b"redirect_dir=on,lowerdir=%s,upperdir=%s,workdir=%s" % (lower, upper, work), folder)


def on_bindfs(base, folder):
    """Passes everything through to another folder, with neither times of birth nor lasting handles."""
    if not os.path.exists("/dev/fuse"):
        skip("no FUSE")
    source = os.path.join(base, b"source")
    os.mkdir(source)
    run("bindfs", source, folder)


FILE_SYSTEMS = {"tmpfs": on_tmpfs, "ext4-128": on_ext4_128, "xfs": on_xfs, "btrfs": on_btrfs,
                "overlay": on_overlay, "bindfs": on_bindfs, "binds": on_tmpfs, "mounts": on_tmpfs}


def prepare(place, base):
    """A folder in the place, which is a folder already or the name of one of the file systems."""
    if place not in FILE_SYSTEMS:
        if not os.path.isdir(place):
            sys.exit(f"no folder {place}, and no file system of that name; there are: {' '.join(FILE_SYSTEMS)}")
        return base
    folder = os.path.join(base, b"place")
    os.mkdir(folder)
    try:
        FILE_SYSTEMS[place](base, folder)
    except FileNotFoundError as missing:
        skip(f"there is no {missing.filename}")
    except OSError as error:
        skip(f"no {place}: {error}")
    return folder


def mounts_below(folder):
    """The mount points below the folder, those mounted last first."""
    with open("/proc/self/mountinfo", "rb") as table:
        paths = [line.split()[4] for line in table]
    for code, byte in ((rb"\040", b" "), (rb"\011", b"\t"), (rb"\012", b"\n"), (rb"\134", b"\\")):
        paths = [path.replace(code, byte) for path in paths]
    return [path for path in reversed(paths) if path.startswith(folder + b"/")]


def unmount_below(folder):
    """Unmounts what can be reached; one mount may cover another."""
    before = None
    while (paths := mounts_below(folder)) != before:
        for path in paths:
            subprocess.run(["umount", "-l", path], stderr=subprocess.DEVNULL, check=False)
        before = paths


def clear(base):
    """Takes away what prepare has made, and all that has been mounted below it."""
    unmount_below(base)
    shutil.rmtree(base, ignore_errors=True)
