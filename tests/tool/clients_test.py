#!/usr/bin/env python3
"""Both clients, driven alike through bridge.py and bridge.mjs: on the real tool, their pictures have to come to equal
the disk after each step; on streams made up of what the tool says more rarely, to be what was reported.

usage: clients_test.py TOOL CASE py|mjs

Exit status 77: there is no Node.js.
"""

import json
import os
import re
import signal
import subprocess
import sys
import time
from urllib.parse import quote

import places
from picture import FOLDER, difference, disk
from tool import PATIENCE, Piped, Place, comes_true, dirwarden, run_case, watches

from dirwarden._follow import Follower

HERE = os.path.dirname(os.path.abspath(__file__))

# Commands in the folder that holds the watched one, $w, and a change that has to come, with /w for $w.
START = r"mkdir -p $w/docs/old/deep $w/docs-2; touch $w/docs/{a,b} $w/docs/old/deep/x $w/docs-2/y out $w/$'%41\xff\n'"
STEPS = [
    ("echo 1 > $w/new; mkdir -p $w/p/q; touch $w/p/q/r", ""),
    ("touch -d 2001-01-01 $w/docs/a", "change file /w/docs/a"),
    ("touch -d 1969-12-31T23:59:59Z $w/docs/a", "change file /w/docs/a"),
    ("mv $w/docs/a $w/docs/c; rm $w/docs/b", "rename file /w/docs/c /w/docs/a"),
    ("mv $w/docs/c $w/new", ""),
    ("mv $w/docs $w/papers", "rename folder /w/papers /w/docs"),
    ("mv $w/papers $w/p/q", "rename folder /w/p/q/papers /w/papers"),
    ("mv $w/p/q/papers $w/t; rm -r $w/p; mv $w/t $w/p; touch $w/p/old/z", ""),
    (r"""cd $w; for name in $'a\nb' '"' "'" $'\xff\xfe' '%41' '<' '>&amp;' $'\xc3\xa9' $'\r' ' ' '+' '\' $'\xe2\x80\xa8'
         do mkdir $name; touch $name/$name; done""", ""),
    (r"mv $w/$'\xff\xfe'/$'\xff\xfe' $w/$'\xfe'; mv $w/'<' $w/%41/$'\n'; rm -r $w/$'a\nb'", ""),
    ("mv $w/p moved; mv out $w/in", "delete folder /w/p"),
    ("mv moved $w/back", ""),
    ("rm -r $w/back $w/new; touch $w/back; mkdir -p $w/new/d; touch $w/new/d/f", ""),
    ("mv $w/new t; mv $w/back $w/new; mv t $w/back", ""),
    ("mv $w/docs-2 $w/1; mv $w/back $w/docs-2; mv $w/1 $w/back; ln -s . $w/link; ln $w/in $w/out", ""),
    # Longer, and in the same second: no record says it. First in a folder that has no record of its new number, while
    # the tool goes on to report.
    ("rm -r $w/back; mkdir hold $w/back; touch $w/back/f; touch -cd @$soon $w/back/f", "create file /w/back/f"),
    ("""echo longer >>$w/back/f; touch -cd @$soon $w/back/f
        for i in {1..8}; do sleep 3; [ -e $w/twice ] && break; touch $w/busy$i; done &""", "change file /w/back/f"),
    ("touch $w/twice; touch -cd @$soon $w/twice", "create file /w/twice"),
    ("echo longer >>$w/twice; touch -cd @$soon $w/twice", "change file /w/twice"),
    # The time has come to look again, but another file is at the path, and the tool has not reported the moves.
    ("mkdir $w/1 $w/2; touch -d @5 $w/2/f; touch $w/1/f; touch -cd @$soon $w/1/f", "create file /w/1/f"),
    ("""kill -STOP $pid; mv $w/1 $w/3; mv $w/2 $w/1; until [ $(date +%s) -gt $((soon + 1)) ]; do sleep .1; done
        kill -CONT $pid""", "rename folder /w/3 /w/1"),
    ("mv $w away", "gone"),
    ("mv away $w; touch $w/seen", "ready"),
    ("rm -r $w; touch $w", "problem /w Not a directory"),
    ("rm $w; mkdir -p $w/e; touch $w/e/f", "ready"),
    ("mv $w/e $w/g", "rename folder /w/g /w/e"),
]

# What the tool could write of /w, and what the picture is to be then. A line in <> is written as it is.
NO = "<error>Permission denied</error>"
STREAMS = [
    (["sync folder a", "sync file a/f", "create file a", "sync folder b", "sync folder c", "sync file b/x",
      "sync file c/y", "rename folder c b", "sync folder d", "sync file d/g", "sync folder d/e", "sync file d/e/f",
      "rename folder d d/e", "create folder c", "rename file h unknown"],
     {"a": "file", "c": FOLDER, "c/x": "file", "d": FOLDER, "d/f": "file", "h": "file"}, []),
    (["sync file gone", "", "sync file a"], {"a": "file"}, []),
    (["create file a/b/f", "create file a/b/g", "create folder a/b", f"create file {'x/' * 1500}f",
      f"delete file {'x/' * 1500}f", "create file z", "create file z/f"],
     {"a/b": FOLDER, "a/b/f": "file", "a/b/g": "file", "z/f": "file"}, []),
    (["sync folder a", "<unknown></unknown>", "sync file b/%41 <>", "change file b/%41 <>"],
     {"a": FOLDER, "b/%41 <>": "file"}, []),
    # Names made to look like a problem's end and a record.
    (["sync folder a", "<error>/w/a</error>", NO, "<error>/w</error>", NO, "<error>/no\ncolon", "</error>", NO],
     {"a": FOLDER}, ["/w/a", "/w", "/no\ncolon\n"]),
    (["sync folder e", "sync folder e<", 'sync folder e</error>\n<file action="create" inode="1" modified="1" created="1"'
      ' size="1">%2fw%2fno<', "<error>/w/e</error>\n" '<file action="create" inode="1" modified="1" created="1" size="1">'
      "%2fw%2fno<</error>", NO, "<error>/w/e</error>", NO],
     {"e": FOLDER, "e<": FOLDER, 'e</error>\n<file action="create" inode="1" modified="1" created="1" size="1">%2fw%2fno<':
      FOLDER}, ['/w/e</error>\n<file action="create" inode="1" modified="1" created="1" size="1">%2fw%2fno<', "/w/e"]),
    (["sync folder n", f"sync folder n</error>\n{NO}\n<", "<error>/w/n</error>", NO, f"<error>/w/n</error>\n{NO}\n<</error>",
      NO], {"n": FOLDER, f"n</error>\n{NO}\n<": FOLDER}, ["/w/n", f"/w/n</error>\n{NO}\n<"]),
]


def as_line(record):
    if not record or record.startswith("<"):
        return record
    action, kind, *names = record.split(" ", 3 if record.startswith("rename") else 2)
    path, *old = [re.sub("%..", lambda code: code[0].lower(), quote("/w/" + name, safe="")) for name in names]
    before = "".join(f' oldValue="{name}"' for name in old)
    return f'<{kind} action="{action}" inode="1"{before} modified="1" created="1" size="1">{path}</{kind}>'


class Client(Piped):
    """One client on one tool, in a process of its own: what it said, and its last picture."""

    def __init__(self, language, root, *tool, **process):
        bridge = [sys.executable, HERE + "/bridge.py", root] if language == "py" else [
            "node", HERE + "/bridge.mjs", root.hex()]
        super().__init__([*bridge, *tool], **process)
        self.root, self.entries, self.pid = root, {}, None
        self.names, self.said, self.words = [], [], []

    def listen(self, patience=PATIENCE):
        """Takes in the next line, if it comes in time."""
        for line in map(json.loads, map(os.fsencode, self.take(1, patience))):
            if isinstance(line, int):
                self.pid = line
                continue
            name, entries, said = line
            self.entries = {path.encode("latin1"): entry for path, entry in entries.items()}
            self.names.append(name)
            self.said += said
            self.words += [name] + [" ".join(word for word in change if word).replace(self.root.decode("latin1"), "/w")
                                    for change in said]

    def says(self, name):
        """Waits for an event of the name."""
        assert comes_true(lambda: name in self.names or self.listen(0.1)), (name, self.words)

    def follows(self, root, word):
        """Waits until the picture equals the disk and the word, if any, has come."""
        def left():
            self.listen(0.1)
            return difference(self.entries, disk(root)) + [word] * (bool(word) and word not in self.words)

        assert comes_true(lambda: not left()), f"(path, picture, disk): {left()}; said: {self.words[-20:]}"
        self.words.clear()


class Language(Place):
    """A folder for the case, and the language of the client."""

    def __init__(self, tool, base, language):
        super().__init__(tool, base)
        self.language = language
        if language == "mjs":
            places.need("node")


def follows(place):
    root = place.path(b'w\n\n\xc3\xa9 %41<&>"\xff')
    os.mkdir(root)
    os.symlink(root, place.path("w"))
    environment = {"w": os.fsdecode(root), "soon": ""}
    place.run("IFS=; " + START, **environment)
    with Client(place.language, root, place.tool) as client:
        client.follows(root, "")
        for commands, word in STEPS:
            if "create file" in word:
                environment.update(soon=str(int(time.time() + 2)), pid=str(client.pid))
            place.run("IFS=; " + commands, **environment)
            client.follows(root, word)
        client.names.clear()
        client.says("settled")


def waits():
    """How often the Python client asks for the time until it has looked again at a file of the next second."""
    follower, count, soon = Follower("/w", 0.1), 0, int(time.time()) + 1
    follower.feed(as_line("create file f").replace('="1"', f'="{soon}"').encode() + b"\n", time.monotonic())
    while dirwarden.Settled not in map(type, follower.events):
        count += 1
        time.sleep(follower.wait(time.monotonic()))
        follower.pass_time(time.monotonic())
    return count


def streams(place):
    assert place.language != "py" or waits() < 20
    for records, wanted, problems in STREAMS:
        text = "\n".join(map(as_line, records + ["create file last"]))
        # What comes in two pieces, between which nothing has to happen; the third time between a problem's lines.
        for cut in (40, len(text) // 2, text.rfind(NO) % len(text)):
            place.write("text", text + "\n<scan action=\"complete\"></scan>\n")
            script = f'head -c {cut} "$0"; sleep .2; tail -c +{cut + 1} "$0"; exec sleep 1000'
            with Client(place.language, b"/w", "sh", "-c", script, place.path("text")) as client:
                client.says("ready")
                assert client.words.count("create file /w/last") == 1, client.words
                came = {path.decode()[3:]: entry if entry == FOLDER else "file"
                        for path, entry in client.entries.items()}
                assert came == {**wanted, "last": "file"}, (records, came)
                paths = [said[1] for said in client.said if said[0] == "problem"]
                assert paths == problems, (records, paths)


def ends(place):
    """Missing, unable, ended, killed, begun again; a client that dies, and one without a standard input."""
    def program(name, text):
        place.write(name, text)
        os.chmod(place.path(name), 0o700)
        return place.path(name)

    scan = '<scan action="complete"></scan>'
    for command, wanted, words, *root in (
            ([place.path("none")], "ToolMissing", "no program"),
            (["nice", program("broken", "#!/nowhere/at/all\n")], "ToolMissing", "broken' cannot be run"),
            (["sh", "-c", "echo '<version>1</version>'; printf 'watcher not started.'"], "CannotWatch", "not started"),
            (["sh", "-c", "kill -TERM $$"], "CannotWatch", "15" if place.language == "py" else "SIGTERM"),
            (["sh", "-c", f"echo '{scan}\n'; exit 3"], "ToolEnded", "status 3"),  # and the folder had gone
            ([place.tool], "CannotWatch", "./-h", b"-h"),
            ([place.tool], "CannotWatch", "watch 'Users/x/Library' with the", b"/Users/x/Library")):
        with Client(place.language, *root or [b"/w"], *command) as client:
            client.says(wanted)
            assert words in client.said[-1], client.said
    root = place.path("w")
    os.mkdir(root)
    again = program("again", f'#!/bin/sh\n[ -e "$0-1" ] && exec {place.tool} "$@"\ntouch "$0-1"\n'
                             f"echo '{scan}\n<error>/w</error>\n<error>restart</error>'; exec sleep 1000\n")
    for standard_input in (subprocess.DEVNULL, "closed"):
        before = {"preexec_fn": lambda: os.close(0)} if standard_input == "closed" else {"stdin": standard_input}
        with Client(place.language, root, again, **before) as client:
            client.says("ready")
            client.names.clear()
            if standard_input == subprocess.DEVNULL:
                client.says("ready")  # after the restart
            pid = client.pid if standard_input == "closed" else int(subprocess.check_output(
                ["pgrep", "-f", "-x", f".*Dirwarden {os.fsdecode(root)} true .*"]))
            assert comes_true(lambda p=pid: watches(p) > 0)
            with open(root + b"/" + str(pid).encode(), "w", encoding="ascii"):
                client.says("changes")
        assert comes_true(lambda p=pid: not os.path.exists(f"/proc/{p}/fd/1")), "the tool lives on"


if __name__ == "__main__":
    signal.alarm(110)
    run_case([follows, streams, ends], Language)
