"""Where the tests run: folders of the machine, and file systems that are made for the soak alone.

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


def enter_namespace(*options):
    """Starts this program once more in namespaces of its own, which the options of unshare(1) name."""
    if "OWN_NAMESPACE" in os.environ:
        return
    if subprocess.run(["unshare", *options, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        skip("no namespace of its own can be had")
    os.execvpe("unshare", ["unshare", *options, sys.executable, *sys.argv], {**os.environ, "OWN_NAMESPACE": "1"})


def skip(reason):
    print("skipped:", reason)
    sys.exit(SKIPPED)


def need(program):
    if shutil.which(program) is None:
        skip(f"there is no {program}")


LOOP = "truncate -s 2G image; %s image; mount -o loop image place"
# How each is mounted on the folder "place", in the shell.
FILE_SYSTEMS = {
    "tmpfs": "mount -t tmpfs none place",
    "ext4-128": LOOP % "mkfs.ext4 -q -I 128",  # inodes without room for a time of birth
    "xfs": LOOP % "mkfs.xfs -q",
    "btrfs": LOOP % "mkfs.btrfs -q",
    # A tree in the lower layer, from which files are copied up when they change.
    "overlay": """
        mkdir layers
        mount -t tmpfs none layers
        mkdir layers/{lower,upper,work}
        for i in {0..39}; do
          mkdir -p layers/lower/watched/$((i % 3))/$((i % 7))
          head -c $i /dev/zero >layers/lower/watched/$((i % 3))/$((i % 7))/f$i
          touch -d @$i layers/lower/watched/$((i % 3))/$((i % 7))/f$i
        done
        cd layers
        mount -t overlay none -o redirect_dir=on,lowerdir=lower,upperdir=upper,workdir=work ../place""",
    # Passes everything through to another folder, with neither times of birth nor lasting handles.
    "bindfs": "mkdir source; bindfs source place",
    "binds": "mount -t tmpfs none place",
    "mounts": "mount -t tmpfs none place",
}


def prepare(place, base):
    """A folder in the place, which is a folder already or the name of one of the file systems."""
    if place not in FILE_SYSTEMS:
        if not os.path.isdir(place):
            sys.exit(f"no folder {place}, and no file system of that name; there are: {' '.join(FILE_SYSTEMS)}")
        return base
    try:
        run("bash", "-ec", 'cd "$0"; mkdir place; ' + FILE_SYSTEMS[place], base)
    except OSError as error:
        skip(f"no {place}: {error}")
    return os.path.join(base, b"place")


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
