#!/usr/bin/env python3
"""One of the example consumers. On the real tool, the picture that it shows must come to equal the disk after each
step. On a stream made up of what the tool says more rarely, it must come to be what is told.

usage: examples_test.py TOOL EXAMPLE

Exit status 77: there is no Node.js to run the example with.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from urllib.parse import quote, unquote_to_bytes

from picture import difference, disk, kinds

SKIPPED = 77
PATIENCE = 15  # seconds for one step

# Commands in the folder that holds the watched one, $w, and what has to be said besides, with /w for $w.
START = r"mkdir -p $w/docs/old/deep $w/docs-2; touch $w/docs/{a,b} $w/docs/old/deep/x $w/docs-2/y out $w/$'%41\xff\n'"
STEPS = [
    ("echo 1 > $w/new; mkdir -p $w/p/q; touch $w/p/q/r", ""),
    ("touch -d 2001-01-01 $w/docs/a", "change file /w/docs/a"),
    ("mv $w/docs/a $w/docs/c; rm $w/docs/b", "rename file /w/docs/c (it was /w/docs/a)"),
    ("mv $w/docs/c $w/new", ""),
    ("mv $w/docs $w/papers", "rename folder /w/papers (it was /w/docs)"),
    ("mv $w/papers $w/p/q", "rename folder /w/p/q/papers (it was /w/papers)"),
    ("mv $w/p/q/papers $w/t; rm -r $w/p; mv $w/t $w/p; touch $w/p/old/z", ""),
    (r"""cd $w; for name in $'a\nb' '"' "'" $'\xff\xfe' '%41' '<' '>&amp;' $'\xc3\xa9' $'\r' ' ' '+' '\' $'\xe2\x80\xa8'
         do mkdir $name; touch $name/$name; done""", ""),
    (r"mv $w/$'\xff\xfe'/$'\xff\xfe' $w/$'\xfe'; mv $w/'<' $w/%41/$'\n'; rm -r $w/$'a\nb'", ""),
    ("mv $w/p moved; mv out $w/in", "delete folder /w/p"),
    ("mv moved $w/back", ""),
    ("rm -r $w/back $w/new; touch $w/back; mkdir -p $w/new/d; touch $w/new/d/f", ""),
    ("mv $w/new t; mv $w/back $w/new; mv t $w/back", ""),
    ("mv $w/docs-2 $w/1; mv $w/back $w/docs-2; mv $w/1 $w/back; ln -s . $w/link; ln $w/in $w/out", ""),
    ("mv $w away", "rootdelete folder /w"),
    ("mv away $w; touch $w/seen", "rootcreate folder /w"),
    ("rm -r $w; touch $w", "<error>Not a directory</error>"),
    ("rm $w; mkdir -p $w/e; touch $w/e/f", ""),
    ("mv $w/e $w/g", "rename folder /w/g (it was /w/e)"),
]

RECORDS = """sync file gone||sync folder a|sync file a/f|create file a|sync folder b|sync folder c|sync file b/x|
sync file c/y|rename folder c b|sync folder d|sync file d/g|sync folder d/e|sync file d/e/f|rename folder d d/e|
<error>un||<file action="create" inode="1">no</file>|readable</error>|<error>Permission denied</error>|
create folder c|rename file h unknown""".replace("|\n", "|").split("|")
TOLD = {b"a": "file", b"c": "folder", b"c/x": "file", b"d": "folder", b"d/f": "file", b"h": "file"}


def as_line(record):
    if not record or "<" in record or ">" in record:
        return record
    action, kind, path, *old = (quote(word, safe="") for word in record.split())
    before = f' oldValue="{old[0]}"' if old else ""
    return f'<{kind} action="{action}" inode="1"{before} modified="1" created="1" size="1">{path}</{kind}>'


class Example:
    def __init__(self, interpreter, example, root, tool):
        self.said = []
        self.root = root
        self.process = subprocess.Popen([interpreter, example, root, tool], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def picture(self, last=False):
        """The picture shown. Everything said before it goes to `said`."""
        if last:
            self.process.stdin.close()
        else:
            self.process.stdin.write(b"\n")
            self.process.stdin.flush()
        shown = {}
        for line in self.process.stdout:
            if line.endswith(b" entries\n"):
                return shown
            if line.startswith(b"  "):
                kind, path = line.split()
                shown[unquote_to_bytes(path)] = kind.decode()
            else:
                self.said.append(unquote_to_bytes(line.rstrip(b"\n")).replace(self.root, b"/w"))
        sys.exit("the example ended")

    def follows(self, wanted, words=""):
        """Waits for the wanted picture and for the words; what is missing when they do not come."""
        deadline = time.monotonic() + PATIENCE
        while True:
            missing = difference(self.picture(), wanted)
            if words.encode() not in self.said and words:
                missing.append(words)
            if not missing or time.monotonic() > deadline:
                return missing
            time.sleep(0.1)


    def ends(self):
        """Ends the example's input. The tool has its standard error, which does not end before both are gone."""
        self.picture(last=True)
        errors = self.process.stderr.read()
        if self.process.wait() != 0 or errors:
            print("at the end:", self.process.returncode, errors)
        return self.process.returncode == 0 and not errors


def follows_steps(interpreter, path, tool, base):
    root = os.path.join(base, 'w\n\n\xe9 %41<&>"'.encode())
    os.mkdir(root)
    for i, (commands, words) in enumerate([(START, "")] + STEPS):
        subprocess.run([b"bash", b"-ec", b"IFS=; " + commands.encode()], cwd=base, check=True,
                       env={**os.environb, b"w": root})
        if i == 0:
            example = Example(interpreter, path, root, tool)
        if missing := example.follows(kinds(disk(root)), words):
            print(f"after {commands}: (path, picture, disk)", *missing, "said last:", *example.said[-20:], sep="\n  ")
            return False
        example.said.clear()
    return example.ends()


def follows_records(interpreter, path, base):
    tool = os.path.join(base, b"tool")
    text = "\n".join(map(as_line, RECORDS))
    with open(tool, "w", encoding="ascii") as script:  # the last line comes in two pieces
        script.write(f"#!/bin/sh\nprintf %s '{text[:-40]}'\nsleep 0.2\necho '{text[-40:]}'\nexec sleep 1000\n")
    os.chmod(tool, 0o700)
    example = Example(interpreter, path, b"/w", tool)
    if missing := example.follows(TOLD):
        print("of the records: (path, picture, told)", *missing, sep="\n  ")
        return False
    return example.ends()


def main(tool, path):
    interpreter = shutil.which("node") if path.endswith(".mjs") else sys.executable
    if interpreter is None:
        print("skipped: there is no Node.js")
        return SKIPPED
    signal.alarm(110)  # the example ends with its input
    with tempfile.TemporaryDirectory() as base:
        base = os.fsencode(base)
        return 0 if follows_records(interpreter, path, base) and follows_steps(interpreter, path, tool, base) else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
