#!/usr/bin/env python3
"""The tool as a reader meets it: the binary on a pipe, a real folder, real events. Lines are waited for with a
deadline, never for a fixed time, and compared as they came.

usage: tool_test.py TOOL CASE

Exit status 77: the case needs what this machine does not permit.
"""

import fcntl
import os
import pprint
import re
import select
import signal
import subprocess
import sys
import tempfile
import termios

import places
from tool import PATIENCE, Piped, Place, comes_true, run_case, watches

VERSION = "<version>3.0.7.160915</version>"
ODD = os.fsdecode(b'w/B/%41"<&>\xc3\xa9\xff')  # $odd for commands
INSTANCES = "/proc/sys/user/max_inotify_instances"


def expect(what, came, wanted):
    assert came == wanted, "\n".join([f"{what}: came", pprint.pformat(came, width=200),
                                      "wanted", pprint.pformat(wanted, width=200)])


class PipedTool(Piped):
    """A running tool, in the folder that it is to watch. Its standard error has to stay empty."""

    def __init__(self, case, arguments, before=(), **options):
        self.errors = tempfile.TemporaryFile()
        super().__init__([*before, case.tool, *arguments],
                         **{"cwd": case.path("w"), "stderr": self.errors, **options})

    def __exit__(self, *_):
        super().__exit__()
        self.errors.seek(0)
        expect("standard error", self.errors.read(), b"")

    def must_watch(self):
        """Waits until the tool watches something. What changes before the stream exists is not reported."""
        expect("watches", comes_true(lambda: watches(self.process.pid)), True)

    def unread(self):
        """How many bytes wait in the pipe."""
        return int.from_bytes(fcntl.ioctl(self.process.stdout, termios.FIONREAD, bytes(4)), sys.byteorder)

    def status(self):
        """Waits for the tool's end; its exit status or the signal as a negative number, None when it does not end."""
        comes_true(lambda: self.process.poll() is not None)
        return self.process.returncode


class Case(Place):
    """A folder with the folder to watch, "w", in it. Names are relative to it. A time is set with `touch -c`: without
    it, the file would be opened for writing too."""

    def __init__(self, tool, base):
        super().__init__(tool, base)
        self.root = os.fsdecode(self.path("w"))  # as the tool was given it, without a final "/"
        self.encoded = True
        self.values = {}  # by name: inode, the others
        self.run("mkdir w")

    def coded(self, path):
        if not self.encoded:
            return path
        return re.sub(rb"[^A-Za-z0-9_~-]", lambda byte: b"%%%02x" % ord(byte[0]), os.fsencode(path)).decode()

    def shown(self, name):
        """A name as records show it."""
        return self.coded(self.root + name[1:])

    def line(self, record):
        """The line of a record, as "create file w/a", "rename folder w/a -> w/b" or "scan begin". A record of
        something gone has the values that the last line about the name had."""
        action, kind, *names = record.split(" ")
        if action == "scan":
            return f'<scan action="{kind}"></scan>'
        is_root = action.startswith("root")
        if action != "delete" and not is_root and os.path.lexists(self.path(names[-1])):
            now = os.lstat(self.path(names[-1]))
            self.values[names[-1]] = now.st_ino, (f' modified="{now.st_mtime_ns // 10**9 % 2**64}"'
                                                  f' created="{now.st_ctime_ns // 10**9}" size="{now.st_size}"')
        inode, others = self.values[names[-1]]
        old = f' oldValue="{self.shown(names[0])}"' if len(names) > 1 else ""
        return (f'<{kind} action="{action}" inode="{inode}"{old}{"" if is_root else others}>'
                f'{self.shown(names[-1])}</{kind}>')

    def start(self, path, settings, scanned=()):
        """What the tool writes at its start: the settings show_all, debug, log and encode_output, and what the scan
        gives."""
        values = {"path": path, **dict(zip(("show_all", "debug", "log", "encode_output"), settings))}
        return [VERSION, *[f"<{name}>{self.coded(value)}</{name}>" for name, value in values.items()],
                self.line("scan begin"), *scanned, self.line("scan complete")]

    def play(self, tool, *steps):
        """Each step: the commands, the records that tell what they do, and whether these may come in any order after
        the first."""
        tool.must_watch()
        for commands, records, *any_order in steps:
            tool.process.send_signal(signal.SIGSTOP)  # or a batch might be cut in the middle of the commands
            self.run(commands, odd=ODD)
            tool.process.send_signal(signal.SIGCONT)
            wanted = [self.line(record) for record in records]
            came = tool.take(len(wanted))
            if any_order:
                came[1:], wanted[1:] = sorted(came[1:]), sorted(wanted[1:])
            expect(f"after {commands!r}", came, wanted)


NOTHING_MORE = ("touch w/end", ["create file w/end"])


def answers(case):
    """Without a folder to watch, or asked for help."""
    usage = [VERSION, "Dirwarden usage:", "Dirwarden [WATCH_DIR] [SHOW_SNAPSHOT=true(default)|false] "
             "[LOGGING=true|false(default)] [LOG_FILE] [ENCODE_OUTPUT=true(default)|false]"]
    for arguments, wanted in (
            ([], [VERSION, "<error>Please pass path to watch or -h for help.</error>"]),
            (["-h"], usage),
            (["-h", case.root, "true"], usage)):
        with PipedTool(case, arguments) as tool:
            expect(arguments, tool.take(), wanted)
            expect("status", tool.status(), 0)


def settings_and_snapshot(case):
    case.run("mkdir w/d.tmp; touch w/d.tmp/{'a<b',i.tmp,.DS_Store}")
    for arguments, settings in (
            ([case.root], ["true", "false", "", "true"]),
            ([case.root + "/", "false", "TRUE", "/l.g", "no"], ["false", "false", "/l.g", "true"]),
            ([".", "False", "1", "/l.g", "false"], ["true", "false", "/l.g", "false"]),
            (["../w", "false", "true", "", "FALSE", "false"], ["false", "true", "", "true"]),
            (["../w/", "-h"], ["true", "false", "", "true"])):
        case.root = arguments[0].rstrip("/")
        case.encoded = settings[3] == "true"
        content = [case.line("sync folder w/d.tmp"), case.line("sync file w/d.tmp/a<b")]
        wanted = case.start(arguments[0], settings, content if settings[0] == "true" else ())
        with PipedTool(case, arguments) as tool:
            expect(arguments, tool.take(len(wanted)), wanted)
            case.play(tool, ("touch w/d.tmp/new", ["create file w/d.tmp/new"]),
                      ("rm w/d.tmp/new", ["delete file w/d.tmp/new"]))


def log(case):
    path = os.fsdecode(case.path("log"))
    case.run("echo '[2000-01-01 00:00:00] before' >log")
    with PipedTool(case, [case.root, "false", "true", path]) as tool:
        first = case.start(case.root, ["false", "true", path, "true"])
        expect("at the start", tool.take(8), first)
        first[0] = "before"  # the version is not logged
        case.play(tool, ("touch w/a", ["create file w/a"]), ("touch 'w/<b'", ["create file w/<b"]))
        case.encoded = False
        last = [f'CHANGED "{case.root}/" , EVENT ID N, FLAGS 0', f'* CREATED file "{case.root}/<b"',
                case.line("create file w/<b")]
        comes_true(lambda: case.read("log").endswith(last[-1].encode() + b"\n"))
        logged = [re.sub(r"EVENT ID \d+", "EVENT ID N", re.sub(r"^\[\d{4}(-\d\d){2} \d\d(:\d\d){2}\] ", "T ", line))
                  for line in case.read("log").decode().splitlines()]
        expect("the log's beginning", logged[:8], [f"T {line}" for line in first])
        expect("the log's end", logged[-3:], [f"T {line}" for line in last])
        expect(f"enough in the log, {logged},", len(logged) >= len(first) + 2 * len(last), True)
    case.run("mkfifo pipe")
    with PipedTool(case, [case.root, "false", "true", case.path("pipe")]) as tool:
        expect("lines without a log", len(tool.take(8)), 8)


def changes(case):
    """Each has its line."""
    case.run("mkdir -p w/A w/B/sub in/n; touch w/A/f in/n/m")
    for known in ("sync folder w/A", "sync folder w/B", "sync file w/A/f"):
        case.line(known)
    with PipedTool(case, [case.root, "false"]) as tool:
        expect("lines at the start", len(tool.take(8)), 8)
        case.play(
            tool,
            ("touch w/n", ["create file w/n"]),
            ("touch -cd @1000000000.25 w/n", ["change file w/n"]),
            ("echo longer >>w/n; touch -cd @1000000000.75 w/n; touch w/i.tmp w/A/.DS_Store", []),
            ("mv w/n w/m", ["rename file w/n -> w/m"]),
            ('mv w/m "$odd"', [f"rename file w/m -> {ODD}"]),
            ('touch -cd @-1 "$odd"', [f"change file {ODD}"]),
            # The new file gets the inode number of the old one, or another.
            ("rm w/A/f; touch w/A/g", ["delete file w/A/f", "create file w/A/g"]),
            ("touch w/A/h; rm w/A/g", ["delete file w/A/g", "create file w/A/h"]),
            ("mkdir -p w/new/a/b; touch w/new/a/b/c", ["create folder w/new", "create folder w/new/a",
                                                    "create folder w/new/a/b", "create file w/new/a/b/c"]),
            ("mkdir -p w/N/d; touch w/N/d/1 w/N/2 w/N/3",
             ["create folder w/N", "create folder w/N/d", "create file w/N/d/1", "create file w/N/2",
              "create file w/N/3"], True),
            ("mv w/new w/B/x", ["rename folder w/new -> w/B/x"]),
            ("mv w/B/x w/B/y", ["rename folder w/B/x -> w/B/y"]),
            ("touch -cd @5 w/B/y/a/b/c", ["change file w/B/y/a/b/c"]),
            ("rm w/B/y/a/b/c", ["delete file w/B/y/a/b/c"]),
            ("mv in w/in", ["create folder w/in", "create folder w/in/n", "create file w/in/n/m"]),
            ("mv w/in out", ["delete folder w/in"]),
            ("rm w/A/h; mkdir w/A/h", ["delete file w/A/h", "create folder w/A/h"]),
            ("rm -r w/A; touch w/a", ["delete folder w/A", "create file w/a"]),
            ("rm -r w/B", ["delete folder w/B"]),
            NOTHING_MORE)


def root_goes_and_comes(case):
    case.run("mkdir -p next/d last; touch next/d/f last/z")
    case.line("sync folder w")  # root records keep the values of the start
    back = ["rootcreate folder w", "scan begin", "sync folder w/d", "sync file w/d/f", "scan complete"]
    with PipedTool(case, [case.root]) as tool:
        expect("lines at the start", len(tool.take(8)), 8)
        case.play(
            tool,
            ("rm -r w", ["rootdelete folder w"]),
            ("mv next w", back),
            ("touch w/d/g", ["create file w/d/g"]),
            ("rm w/d/g", ["delete file w/d/g"]),
            ("mv w away", ["rootdelete folder w"]),
            ("mv away w", back),
            ("touch -cd @5 w/d/f", ["change file w/d/f"]),
            ("mv w away; mv last w", ["rootcreate folder w", "scan begin", "sync file w/z", "scan complete"]),
            ("touch away/unseen; touch -cd @5 w/z", ["change file w/z"]),
            NOTHING_MORE)


def root_missing(case):
    path = case.root + "/m"
    wanted = case.start(path, ["true", "false", "", "true"],
                        [f"<error>{path}</error>", "<error>No such file or directory</error>"])
    with PipedTool(case, [path]) as tool:
        expect("at the start", tool.take(len(wanted)), wanted)
        tool.must_watch()
        case.run("mkdir w/m")
        case.line("sync folder w/m")  # the values of a root record
        case.play(tool, ("", ["rootcreate folder w/m", "scan begin", "scan complete"]),
                  ("touch w/m/a", ["create file w/m/a"]))


def reader_stalls_and_ends(case):
    """Nothing is lost meanwhile, and the tool ends with its reader, although its parent ignores the signal."""
    with PipedTool(case, [case.root], ["sh", "-c", 'trap "" PIPE; exec "$@"', "sh"]) as tool:
        expect("lines at the start", len(tool.take(8)), 8)
        tool.must_watch()
        long = "x" * 200
        case.run(f"mkdir 0; touch 0/{long}{{100..499}}; mv 0 w/0")
        # More is to come than the pipe holds, so the tool comes to a stop.
        expect("a full pipe", comes_true(lambda: tool.unread() > 30000), True)
        case.run("mkdir w/d; touch w/d/f")
        case.play(tool, ("", ["create folder w/0", *(f"create file w/0/{long}{i}" for i in range(100, 500))], True),
                  ("", ["create folder w/d", "create file w/d/f"]), NOTHING_MORE)
        tool.process.stdout.close()  # and nothing changes any more
        expect("status", tool.status(), -signal.SIGPIPE)


def output_refuses(case):
    """A pipe that does not block, and a reader that comes late; an output that is closed."""
    case.run("cd w; touch $(seq -f 'a-long-name-of-which-a-pipe-does-not-hold-many-%g' 4000)")
    into, out_of = os.pipe()[::-1]
    os.set_blocking(into, False)
    with PipedTool(case, [case.root], stdout=into) as tool:
        tool.process.stdout = open(out_of, "rb", buffering=0)
        os.close(into)
        expect("a full pipe", comes_true(lambda: tool.unread() > 30000), True)
        lines = tool.take(4008)
        expect("lines", len(lines), 4008)
        expect("entries", len({line for line in lines if re.fullmatch(r'<file action="sync".*</file>', line)}), 4000)
    with PipedTool(case, [case.root], ["sh", "-c", 'exec "$@" >&-', "sh"]) as tool:
        expect("closed", (tool.take(), tool.status()), ([], -signal.SIGPIPE))


def refused_folder(case):
    """Below /var nothing is reported, but by a relative path."""
    case.base = case.enter_context(tempfile.TemporaryDirectory(prefix=b"dirwarden-", dir=b"/var/tmp"))
    case.run("mkdir w; touch w/file")
    folder = os.fsdecode(case.base)
    with PipedTool(case, [folder]) as tool:
        wanted = case.start(folder, ["true", "false", "", "true"])
        expect("at the start", tool.take(len(wanted)), wanted)
        tool.must_watch()
        case.run("mkdir w/new")
        # Nothing can be waited for; a change that is reported comes within a second and a half.
        expect("reported", tool.take(1, 2.5), [])
    case.root = "."
    with PipedTool(case, ["."]) as tool:
        expect("lines", len(tool.take(10)), 10)
        case.play(tool, ("touch w/new/it", ["create file w/new/it"]))


def little_memory(case):
    """Whatever there is room for: the tool runs, or ends in order."""
    ended = []
    limits = range(14000, 60000, 500)
    tools = [PipedTool(case, [case.root], ["sh", "-c", f'ulimit -v {limit}; exec "$@"', "sh"],
                       stderr=subprocess.DEVNULL) for limit in limits]
    for limit, tool in zip(limits, tools):
        with tool:
            select.select([tool.process.stdout], [], [], PATIENCE)
            if not comes_true(lambda t=tool: t.process.poll() is not None or watches(t.process.pid)):
                raise AssertionError(f"with {limit} KiB it neither ends nor watches")
            if tool.process.poll() is None:
                break  # more is enough too
            if tool.process.returncode != 127:  # or there was no room for its libraries
                expect(f"status with {limit} KiB", tool.process.returncode, 0)
                ended.append(os.fsdecode(tool.rest + tool.process.stdout.read()).endswith("watcher not started."))
    else:
        places.skip("no limit on memory leaves enough for it")  # with a sanitizer, say
    for tool in tools:
        tool.process.kill()
    expect("last words", any(ended), True)


def cannot_watch(case):
    """The kernel gives no inotify instance: an end in order, at any point of the start."""
    limited = ["unshare", "-U", "-r", "sh", "-c",
               f'echo 0 >{INSTANCES} && [ "$(cat {INSTANCES})" = 0 ] && exec "$@"', "sh"]
    if subprocess.run([*limited, "true"], check=False).returncode != 0:
        places.skip("no user namespace can be had")
    # The tool never gives its stream back.
    options = {"ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"}
    with PipedTool(case, [case.root], limited, env={**os.environ, **options}) as tool:
        came = tool.take()
        expect(f"status, after {came},", tool.status(), 0)
        wanted = case.start(case.root, ["true", "false", "", "true"])
        expect("the start", came, wanted[:max(len(came), 1)])


if __name__ == "__main__":
    run_case([answers, settings_and_snapshot, log, changes, root_goes_and_comes, root_missing, reader_stalls_and_ends,
              output_refuses, refused_folder, little_memory, cannot_watch], Case)
