#!/usr/bin/env python3
"""The tool measured as a whole process beside a bare walk of the same tree, and the table of all the benchmarks.

usage: whole.py BUILD [NAME ...]

Everything is made in a temporary folder: below $TMPDIR, or in memory where that is not set, since making the trees
on a disk would take longer than all the rest. A measurement and its unit alternate, and the best of several runs
counts.
"""

import contextlib
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time

PATH_LENGTH = 60  # of every file, if the temporary folder's own path is short enough
FILES_PER_FOLDER = 10
FOLDERS_PER_FOLDER = 10


class Table:
    """The rows, printed one by one: name, measured, bare unit, ratio, bar, and whether the ratio is within the bar."""

    LAYOUT = "{:<54} {:>13} {:>13} {:>7} {:>6}  {}"

    def __init__(self):
        print(self.LAYOUT.format("what", "measured", "unit", "ratio", "bar", ""))
        print("-" * 104, flush=True)

    def row(self, name, measured, unit=None, bar=None, kind="ms"):
        """Seconds are shown in the kind's unit. The bar is for the ratio or, without a unit, for what is measured."""
        ratio = measured / unit if unit else None
        value = ratio if unit else measured
        verdict = "" if bar is None else "within" if value <= bar else "MISS"
        print(self.LAYOUT.format(
            name, self.shown(measured, kind), "" if unit is None else self.shown(unit, kind),
            "" if ratio is None else f"{ratio:.2f}", "" if bar is None else f"{bar:g}", verdict), flush=True)

    @staticmethod
    def shown(value, kind):
        scale, name = {"s": (1, "s"), "ms": (1e3, "ms"), "us": (1e6, "us"), "ns": (1e9, "ns")}.get(kind, (1, kind))
        return f"{value * scale:,.{2 if name else 0}f} {name}".rstrip()


def folder_path(root, number):
    names = []
    while number > 0:
        number, digit = divmod(number - 1, FOLDERS_PER_FOLDER)
        names.append(f"d{digit}")
    return "/".join([root] + names[::-1])


def make_tree(root, folders):
    """A nest of folders, each with ten files and up to ten folders."""
    for i in range(folders):
        folder = folder_path(root, i)
        os.mkdir(folder)
        width = max(PATH_LENGTH - len(folder) - 1 - len("e0"), 1)
        for j in range(FILES_PER_FOLDER):
            os.mknod(f"{folder}/e{j}{'x' * width}", 0o644)


class Process:
    """A process whose CPU time is read from outside to the nanosecond."""

    def __init__(self, arguments, output=subprocess.PIPE, **options):
        self.started = time.monotonic()
        self.process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=output, **options)
        self.pid = self.process.pid

    def cpu(self):
        return time.clock_gettime((~self.pid << 3) | 2)  # what clock_getcpuclockid() makes of a process ID

    def main_thread_done(self):
        """The wall and CPU time when the main thread went to sleep for good."""
        path = f"/proc/{self.process.pid}/task/{self.process.pid}/schedstat"
        ran, last = "", (0, 0)
        while time.monotonic() - self.started - last[0] < 0.1:
            with open(path, encoding="ascii") as file:
                now = file.read().split()[0]
            if now != ran:
                ran, last = now, (time.monotonic() - self.started, self.cpu())
            time.sleep(0.0005)
        return last

    def watches(self):
        """The watches of the instance that has most of them."""
        counts = [0]
        for name in os.listdir(f"/proc/{self.pid}/fdinfo"):
            with contextlib.suppress(FileNotFoundError), \
                    open(f"/proc/{self.pid}/fdinfo/{name}", encoding="ascii") as info:
                counts.append(info.read().count("inotify wd:"))
        return max(counts)

    def memory(self, key):
        with open(f"/proc/{self.pid}/smaps_rollup", encoding="ascii") as rollup:
            return next(int(line.split()[1]) for line in rollup if line.startswith(key + ":")) * 1024

    def wait_for_rest(self, quiet=0.25, noise=0.002):
        """Until it has used less than `noise` seconds for `quiet` seconds. The wall and CPU time up to then."""
        at, used = time.monotonic(), self.cpu()
        while time.monotonic() < at + quiet:
            time.sleep(0.002)
            if (now := self.cpu()) > used + noise:
                at, used = time.monotonic(), now
        return at - self.started, used

    def close(self):
        self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            if pipe is not None:
                pipe.close()


class Bench:
    def __init__(self, build, base):
        self.tool = os.path.join(build, "Dirwarden")
        self.micro = os.path.join(build, "bench", "micro")
        self.bare_walk = os.path.join(build, "bench", "bare_walk")
        self.base = base
        self.table = Table()
        self.trees = {}

    def tree(self, folders):
        if folders not in self.trees:
            self.trees[folders] = os.path.join(self.base, f"t{len(self.trees)}")
            make_tree(self.trees[folders], folders)
        return self.trees[folders]

    def bare(self, mode, folder):
        """The wall and CPU time of a bare walk, and the folders and entries it met."""
        walk = Process([self.bare_walk, mode, folder])
        folders, entries, cpu = walk.process.stdout.readline().split()
        wall = time.monotonic() - walk.started
        walk.close()
        return wall, float(cpu), int(folders), int(entries)

    @contextlib.contextmanager
    def watching(self, folder, *arguments, output=subprocess.DEVNULL, **options):
        tool = Process([self.tool, folder, *(arguments or ["false"])], output, **options)
        try:
            yield tool
        finally:
            tool.close()

    def start(self, folder, folders):
        """The wall and CPU time until the scan is done and all watches are set, and until the tool rests.

        The main thread sleeps when the scan is done. The watches are counted only then: counting them all the time
        would slow down the thread that sets them.
        """
        with self.watching(folder) as tool:
            ready = tool.main_thread_done()
            is_ready = tool.watches() == folders
            rest = tool.wait_for_rest()
            while tool.watches() != folders:
                rest = tool.wait_for_rest()
                if rest[0] > 60:
                    raise RuntimeError("watches are missing")
        return *(ready if is_ready else rest), *rest

    def start_inotifywait(self, folder):
        """The CPU time until a program that sets the same watches, but keeps no files, is ready."""
        other = Process(["inotifywait", "-q", "-m", "-r", folder])
        cpu = other.wait_for_rest()[1]
        other.close()
        return (cpu,)

    def start_ups(self, sizes):
        growth = []
        for folders, runs in sizes:
            tree = self.tree(folders)
            bare, tool, other = [], [], []
            for _ in range(runs):
                bare.append(self.bare("watch", tree)[:2])
                tool.append(self.start(tree, folders))
                other.append(self.start_inotifywait(tree))
            bare, tool, other = [[min(column) for column in zip(*runs)] for runs in (bare, tool, other)]
            name = f"start-up, {folders * FILES_PER_FOLDER:,} files: "
            self.table.row(name + "until ready, wall", tool[0], bare[0], 1.3 if folders == 10000 else None)
            self.table.row(name + "until ready, CPU", tool[1], bare[1])
            self.table.row(name + "until at rest, CPU", tool[3], bare[1], 1.4)
            self.table.row(name + "the same, against inotifywait -r", tool[3], other[0], 1)
            growth.append((folders * FILES_PER_FOLDER, tool[1], bare[1]))
        (few, *first), (many, *last) = growth[0], growth[-1]
        if many > few:
            # Ten per cent more than the bare walk's own growth are noise.
            self.table.row(f"start-up, growth from {few:,} to {many:,} files", last[0] / first[0],
                           last[1] / first[1], 1.1, kind="times")

    def memory(self, folders=10000):
        tree = self.tree(folders)
        entries = folders * (1 + FILES_PER_FOLDER) - 1
        empty = os.path.join(self.base, "empty")
        os.makedirs(empty, exist_ok=True)
        for folder in [empty, tree]:
            with self.watching(folder) as tool:
                tool.wait_for_rest(1)
                rss, private = tool.memory("Rss"), tool.memory("Anonymous")
            if folder == empty:
                self.table.row("memory of an empty tree, resident", rss / 1024, kind="KiB")
                self.table.row("memory of an empty tree, anonymous", private / 1024, kind="KiB")
        self.table.row(f"memory, {entries:,} entries, resident, each", rss / entries,
                       bar=165 if folders == 10000 else 130, kind="B")
        self.table.row(f"memory, {entries:,} entries, anonymous, each", private / entries, kind="B")
        if folders > 10000:
            return
        with open(os.path.join(self.base, "listing"), "wb") as output:
            with self.watching(tree, "true", output=output) as tool:
                tool.wait_for_rest(1, 0.01)
                most = tool.memory("Rss")
                drain(output.name)
                tool.wait_for_rest(1)
                rss = tool.memory("Rss")
        self.table.row("memory with the whole listing queued, each", most / entries, kind="B")
        self.table.row("memory after the whole listing, each", rss / entries, kind="B")

    def idle(self, folders=10000, seconds=12):
        with self.watching(self.tree(folders)) as tool:
            tool.wait_for_rest(2)
            used, at = tool.cpu(), time.monotonic()
            time.sleep(seconds)
            share = 100 * (tool.cpu() - used) / (time.monotonic() - at)
        self.table.row(f"idle, {folders * FILES_PER_FOLDER:,} files: share of a core", share, bar=0.1, kind="%")

    @contextlib.contextmanager
    def watching_crowd(self, entries):
        """One folder of so many files, and the tool at rest."""
        top = os.path.join(self.base, "crowded")
        os.mkdir(top)
        for i in range(entries):
            os.mknod(f"{top}/entry-{i:06}", 0o644)
        with self.watching(top) as tool:
            tool.wait_for_rest(2)
            yield top, tool
        shutil.rmtree(top)

    def crowded(self, entries=100000):
        """One large folder: what single changes cost in it, and very many new files."""
        with self.watching_crowd(entries) as (top, tool):
            def cost(change, wait=0.0):
                used, at = tool.cpu(), time.monotonic()
                change()
                time.sleep(wait)
                return tool.cpu() - used, time.monotonic() - at

            def append(seconds=15):
                with open(f"{top}/entry-000007", "ab", buffering=0) as file:
                    for _ in range(seconds * 100):
                        file.write(b"x")
                        time.sleep(0.01)

            touched = max(cost(lambda i=i: os.utime(f"{top}/entry-{i:06}", (i, i)), 1.5)[0] for i in range(3))
            used, wall = cost(append)
            # Including the full reading that follows when the folder has come to rest.
            full = cost(lambda: None, 45)[0]
        self.table.row(f"one file touched among {entries:,}", touched, bar=0.01)
        self.table.row("the full reading when it has come to rest", full)
        self.table.row(f"one file appended 100 times a second among {entries:,}", 100 * used / wall, bar=1.5, kind="%")
        self.creations()

    def creations(self, before=50000, new=50000, seconds=16):
        with self.watching_crowd(before) as (top, tool):
            used, at = tool.cpu(), time.monotonic()
            for i in range(new):
                os.mknod(f"{top}/new-{i:06}", 0o644)
                if i % 100 == 0:
                    time.sleep(max(0, at + seconds * i / new - time.monotonic()))
            time.sleep(3)
            used = tool.cpu() - used
        self.table.row(f"{new:,} files made in {seconds} s in a folder of {before:,}", used, bar=2, kind="s")

    def unreadable(self, folders=20000, seconds=20):
        """A file is written ten times a second beside folders that the tool, as another user, cannot read."""
        top = os.path.join(self.base, "unreadable")
        os.mkdir(top)
        for i in range(folders):
            os.mkdir(f"{top}/d{i}", 0)
        os.mkdir(f"{top}/file")
        os.chmod(self.base, 0o755)
        user = {"user": 65534} if os.getuid() == 0 else {}
        with self.watching(top, output=subprocess.DEVNULL, **user) as tool:
            tool.wait_for_rest(2, 0.01)
            time.sleep(60)  # the pause between tries has grown to a minute by then
            used, at = tool.cpu(), time.monotonic()
            for _ in range(seconds * 10):
                with open(f"{top}/file/f", "a", encoding="ascii") as file:
                    file.write("x")
                time.sleep(0.1)
            share = 100 * (tool.cpu() - used) / (time.monotonic() - at)
        for i in range(folders):
            os.rmdir(f"{top}/d{i}")
        self.table.row(f"{folders:,} unreadable folders, one file written: share of a core", share, bar=1, kind="%")

    def storm(self, folders=2000):
        cpu, lines = min(self.run_storm(folders, "false") for _ in range(3))
        log = os.path.join(self.base, "log")
        self.run_storm(folders, "true", log)
        with open(log, "rb") as file:
            compared = sum(b"] CHANGED " in line for line in file)
        tree = os.path.join(self.base, "storm")
        make_tree(tree, folders)
        listing, scan = (min(self.bare(mode, tree)[1] for _ in range(5)) / folders for mode in ("list", "watch"))
        shutil.rmtree(tree)
        walk = min(self.bare("watch", self.tree(10000))[1] for _ in range(3))
        self.table.row("storm, lines reported", lines, kind="")
        self.table.row("storm, comparisons of a folder asked for", compared, kind="")
        # Each new folder is also scanned once, and watched.
        self.table.row("storm, CPU, against the listings and scans asked for", cpu,
                       compared * listing + folders * scan, 2)
        self.table.row("storm, CPU, against the bare walk of 100,000 files", cpu, walk, 3.75)

    def run_storm(self, folders, debug, log=""):
        """The CPU time of the tool until the last line is out, without its start, and the lines."""
        watched = os.path.join(self.base, f"watched-{debug}")
        os.mkdir(watched)
        tree = os.path.join(watched, "s")
        files = [f"{folder_path(tree, i)}/new{j}" for i in range(folders) for j in range(FILES_PER_FOLDER)]
        leaves = [folder_path(tree, i) for i in range(folders // 10 + 1, folders)]

        def rename():
            for i in range(folders):
                folder = folder_path(tree, i)
                for j, entry in enumerate(e.path for e in list(os.scandir(folder)) if not e.is_dir()):
                    os.rename(entry, f"{folder}/new{j}")

        def move():
            for i, leaf in enumerate(leaves):
                os.rename(leaf, f"{leaf.rsplit('/', 2)[0]}/m{i}")

        output_path = os.path.join(self.base, "lines")
        with open(output_path, "wb") as output, \
                self.watching(watched, "false", debug, log, output=output) as tool:
            before = tool.wait_for_rest(2)[1]
            for step in [lambda: make_tree(tree, folders), rename, move, lambda: shutil.rmtree(tree)]:
                step()
                tool.wait_for_rest(0.9, 0.01)
            if debug == "false":
                drain(output_path)
            used = tool.cpu() - before
        shutil.rmtree(watched)
        with open(output_path, "rb") as lines:
            return used, sum(1 for _ in lines)

    def micros(self):
        out = os.path.join(self.base, "micro.json")
        subprocess.run([self.micro, f"--benchmark_out={out}", "--benchmark_out_format=json"], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        with open(out, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        times = {}
        for run in runs:
            if run["run_type"] == "aggregate":
                continue
            is_manual = "manual_time" in run["name"]
            name = "/".join(part for part in run["name"].split("/") if ":" not in part and part != "manual_time")
            spent = run["real_time" if is_manual else "cpu_time"] / 1e9
            times[name] = min(spent, times.get(name, spent))
        self.print_micros(times)

    def print_micros(self, times):
        for name, spent in times.items():
            if name.startswith(("compare", "one file's names")):
                bar = 2 if name.endswith("/100000") or name.startswith("one") else None
                subject, count = name.rsplit("/", 1)
                self.table.row(f"{subject}, {int(count):,} entries", spent, times["unit/" + name], bar)
        for name, unit in [("message, plain", "unit/message"), ("message, encoded", "unit/message"),
                           ("encode 60 bytes", "unit/encode"), ("queue, append", "message, plain")]:
            self.table.row(name, times[name], times[unit], kind="ns")
        # The processor's caches can double the time in a tree a thousand times as large.
        self.table.row("emitter cycle, 1,000,000 lines against 3,000 waiting", times["emitter cycle/1000000"],
                       times["emitter cycle/3000"], 2, kind="us")
        self.table.row("event in a tree of 100,000, against a bare listing", times["event, 20 entries/100000"],
                       times["unit/event"], kind="us")
        for name in ["event, 20 entries", "add and delete", "rename of 1,000 folders"]:
            self.table.row(f"{name}: in 100,000 against 100 folders", times[name + "/100000"], times[name + "/100"],
                           2, kind="us")
        self.table.row("rename of 1,000 folders against their silent scan", times["rename of 1,000 folders/100000"],
                       times["unit/silent scan"], 1)


def drain(path):
    """Waits until nothing more is written to the file; the lines come once a second."""
    size, at = -1, time.monotonic()
    while time.monotonic() < at + 2.5:
        if (now := os.path.getsize(path)) != size:
            size, at = now, time.monotonic()
        time.sleep(0.1)


def main():
    names = sys.argv[2:] or ["micro", "start-up", "large", "memory", "idle", "crowded", "unreadable", "storm"]
    os.environ.setdefault("TMPDIR", "/dev/shm" if os.access("/dev/shm", os.W_OK) else "/tmp")
    base = tempfile.mkdtemp(prefix="dw")
    try:
        bench = Bench(sys.argv[1], base)
        sizes = [(1000, 7), (10000, 5)] if "start-up" in names else []
        sizes += [(50000, 3)] if "large" in names else []
        steps = {"micro": bench.micros, "start-up": lambda: bench.start_ups(sizes), "memory": bench.memory,
                 "idle": bench.idle, "crowded": bench.crowded, "unreadable": bench.unreadable, "storm": bench.storm}
        if "large" in names:
            steps["large"] = lambda: bench.memory(50000)
            if "start-up" not in names:
                bench.start_ups(sizes)
        if unknown := set(names) - set(steps):
            sys.exit("no such benchmark: " + ", ".join(unknown))
        for name, step in steps.items():
            if name in names:
                step()
    finally:
        shutil.rmtree(base)


if __name__ == "__main__":
    main()
