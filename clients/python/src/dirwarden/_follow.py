"""What the tool's output means: bytes in, events out. No process, no waiting: those who read say what the time is.

Events come in order, and the picture is as it was when the last of them was made: a batch ends where the output pauses.
"""

from __future__ import annotations

import os
import re
import stat
import time
from collections import deque
from dataclasses import dataclass
from typing import AnyStr, Deque, Dict, Generic, List, Optional, Tuple, Union
from urllib.parse import unquote_to_bytes

from ._picture import Attributes, Change, Entry, Parts, Picture

RECORD = re.compile(rb'<(file|folder) action="([a-z]+)" inode="([0-9]+)"(?: oldValue="([^"\n]*)")?'
                    rb'(?: modified="([0-9]+)" created="([0-9]+)" size="([0-9]+)")?>([^<\n]*)</\1>\n')
ERROR, ERROR_END = b"<error>", b"</error>\n"
REASON = re.compile(rb"<error>([^<\n]*)</error>\n")
LONGEST_PATH = 4096
PAUSE = 0.1  # seconds; the tool writes up to 3,000 lines in one go and then waits for one second
MOST_IN_BATCH = 10000
CLOCK_LAG = 0.1  # seconds; the times of files come from a clock that may be late
CLOCK_LEAD = 2  # seconds; a file's time that is further ahead is no time of a write just made
STILL = 5  # seconds without a record; the moves that were made before have been reported by then


@dataclass(frozen=True)
class Ready(Generic[AnyStr]):
    """The listing is complete and the picture good for use: at the start, and again when the watched folder came back
    or was replaced, or after a restart. What is below the folders of `problems` is not known."""
    problems: "Tuple[Problem[AnyStr], ...]"


class Changes(List[Change[AnyStr]]):
    """Changes in the order in which they have to be applied."""


@dataclass(frozen=True)
class Settled:
    """Nothing has happened for the quiet time."""


@dataclass(frozen=True)
class Gone:
    """The watched folder is gone or was replaced, and the picture is empty. `Ready` follows when it is back."""


@dataclass(frozen=True)
class Problem(Generic[AnyStr]):
    """A folder that cannot be read, and the system's reason. What is in it follows when it can be read."""
    path: AnyStr
    reason: str


@dataclass(frozen=True)
class Burst(Generic[AnyStr]):
    """The changes from one quiet time to the next. With `fresh`, a listing was completed: compare with the whole
    picture then, since what happened before it has no changes. `problems` are those of that listing, and none
    otherwise: later ones come as `Problem` only."""
    changes: List[Change[AnyStr]]
    fresh: bool
    problems: Tuple[Problem[AnyStr], ...]


Event = Union[Ready[AnyStr], Changes[AnyStr], Settled, Gone, Problem[AnyStr]]


def signed(number: bytes) -> int:
    """Seconds before 1970 come as 2 to the 64 less their distance."""
    value = int(number)
    return value - (1 << 64) if value >> 63 else value


class Follower(Generic[AnyStr]):
    def __init__(self, root: AnyStr, quiet: float) -> None:
        self.picture: Picture[AnyStr] = Picture(root)
        self.quiet = quiet
        self.events: Deque[Event[AnyStr]] = deque()
        self.records = 0
        self.is_ready = self.was_ready = False
        self.rest = b""  # what has no end yet; the last words, when the tool has ended
        # The program may change its working folder; it may also be gone, which an absolute path does not mind.
        self._base = b"" if os.path.isabs(root) else os.fsencode(os.getcwd())
        self._started = int(time.time()) - 1
        self._batch: Changes[AnyStr] = Changes()
        self._problems: List[Problem[AnyStr]] = []
        self._heard = 0.0
        self._is_over = False  # no more comes
        self._is_moving = False  # something happened since the last Settled
        self._looks: Dict[int, List[Entry]] = {}  # by the second that has to be over
        self._moving: List[Tuple[Entry, int]] = []  # with that second; their folders may have moved
        self._next_try = 0.0  # at these
        self._folder: Tuple[Optional[bytes], Optional[Entry]] = (None, None)  # of the sync record before

    # When something is to be done although nothing comes, as seconds from now.

    def wait(self, now: float) -> Optional[float]:
        waits = []
        if self._batch:
            waits.append(self._heard + PAUSE - now)
        if self._looks:
            waits.append(min(self._looks) + 1 + CLOCK_LAG - time.time())
        if self._moving:
            waits.append(self._next_try - now)
        if self._is_moving and not self._batch and not self._looks:  # as pass_time has it
            waits.append(self._heard + self.quiet - now)
        return max(min(waits), 0) if waits else None

    def pass_time(self, now: float) -> None:
        """To be called when nothing waits to be read: time that the program took for itself is no pause."""
        if now - self._heard >= PAUSE:
            self._end_batch()
        clock = time.time()
        due = clock - 1 - CLOCK_LAG
        # Those too far ahead go unlooked at: the clock was set back.
        for second in [second for second in self._looks if second <= due or second > clock + CLOCK_LEAD]:
            for entry in self._looks.pop(second):
                if second <= due:
                    self._look_again(entry, second, now)
        if self._moving and now >= self._next_try:
            again, self._moving = self._moving, []
            for entry, second in again:
                self._look_again(entry, second, now)
        if self._is_moving and not self._batch and not self._looks and now - self._heard >= self.quiet:
            self._is_moving = False
            self.events.append(Settled())

    def feed(self, data: bytes, now: float) -> None:
        self._heard = now
        self._read(self.rest + data if self.rest else data)

    def end(self) -> None:
        """No more comes."""
        self._is_over = True
        self._read(self.rest)
        self._end_batch()

    # The lines.

    def _read(self, data: bytes) -> None:
        at, match = 0, RECORD.match
        while True:
            found = match(data, at)
            if found is not None:
                at = found.end()
                self.records += 1
                self._record(*found.groups())
                continue
            if data.startswith(ERROR, at):
                end = self._problem(data, at)
            else:
                end = data.find(b"\n", at) + 1
                if end:
                    self._mark(data[at:end - 1])
            if not end:
                break
            at = end
        self.rest = data[at:]

    def _mark(self, line: bytes) -> None:
        if line == b"":
            self._root_went()
        elif line.startswith(b'<scan action="begin"'):
            self._end_batch()
            self._problems = []
        elif line.startswith(b'<scan action="complete"'):
            self._end_batch()
            self.is_ready = self.was_ready = self._is_moving = True
            self._folder = (None, None)
            self.events.append(Ready(tuple(self._problems)))

    def _problem(self, data: bytes, at: int) -> int:
        """The path is not encoded and may hold line feeds and "</error>": it is the longest one of a known folder that
        fits. Returns where the problem ends, 0 when that cannot be known yet: the tool may pause for a second between
        the path and the reason."""
        begin, end, path = at + len(ERROR), -1, b""
        text = data[begin:begin + LONGEST_PATH + len(ERROR_END)]
        if len(text) < LONGEST_PATH and (self.picture.may_begin_folder(text)
                                         or not (data.endswith(b"\n") or self._is_over)):
            return 0
        found = first = text.find(ERROR_END)
        while found >= 0:
            after = begin + found + len(ERROR_END)
            if self.picture.has_folder(text[:found]):
                if REASON.match(data, after):
                    path, end = text[:found], after
                elif not self._is_over and data.find(b"\n", after) < 0:
                    return 0
            found = text.find(ERROR_END, found + 1)
        if end < 0:
            if first < 0 or not (self._is_over or REASON.match(data, begin + first + len(ERROR_END))):
                # The second line has not come, or this is none of the pairs.
                is_short = len(data) - begin < LONGEST_PATH + 100 and not self._is_over
                return 0 if is_short else data.find(b"\n", at) + 1
            path, end = text[:first], begin + first + len(ERROR_END)
        reason = REASON.match(data, end)
        problem = Problem(self.picture.from_bytes(path), reason[1].decode(errors="replace") if reason else "")
        self._end_batch()
        self._problems.append(problem)
        self.events.append(problem)
        return reason.end() if reason else end

    def _record(self, kind: bytes, name: bytes, inode: bytes, old: Optional[bytes], modified: Optional[bytes],
                created: bytes, size: bytes, path: bytes) -> None:
        if modified is None:
            if name.startswith(b"root"):
                self._root_went()
            return
        is_folder = kind == b"folder"
        attributes = Attributes(int(inode), signed(modified), signed(created), int(size))
        if name == b"sync":
            entry = self._sync(path, is_folder, attributes)
            if entry is not None and entry.modified >= self._started:
                self._look_later(entry)
            return
        self._folder = (None, None)
        parts = self.picture.parts(unquote_to_bytes(path))
        old_parts = None if old is None else self.picture.parts(unquote_to_bytes(old))
        if parts is not None and (old is None) == (old_parts is None):
            self._change(name.decode(), is_folder, parts, old_parts, attributes)

    def _sync(self, path: bytes, is_folder: bool, attributes: Attributes) -> Optional[Entry]:
        """As Picture.put; the entries of one folder come one after the other."""
        before, slash, name = path.rpartition(b"%2f")
        if before != self._folder[0] or not slash:
            parts = self.picture.parts(unquote_to_bytes(path))
            if parts is None:
                return None
            entry = self.picture.put(parts, is_folder, attributes)
            self._folder = (before, entry.parent)
            return entry
        folder = self._folder[1]
        name = unquote_to_bytes(name) if b"%" in name else name
        assert folder is not None and folder.below is not None
        if name in folder.below:
            self._folder = (None, None)
            return self._sync(path, is_folder, attributes)
        entry = folder.below[name] = Entry(name, folder, is_folder, attributes)
        return entry

    def _change(self, action: str, is_folder: bool, parts: Parts, old: Optional[Parts], attributes: Attributes) -> None:
        picture = self.picture
        entry: Optional[Entry] = None
        if action == "create":
            entry = picture.put(parts, is_folder, attributes)
        elif action == "delete":
            picture.take(parts)
        elif action == "rename" and old is not None:
            entry = picture.move(old, parts, is_folder, attributes)
        elif action == "change":
            entry = picture.put(parts, is_folder, attributes)
        else:
            return
        before = None if old is None else picture.path_from(old)
        self._batch.append(Change(action, "folder" if is_folder else "file", picture.path_from(parts), before,
                                  *attributes))
        self._is_moving = True
        if entry is not None:
            self._look_later(entry)
        if len(self._batch) >= MOST_IN_BATCH:
            self._end_batch()

    def _end_batch(self) -> None:
        if self._batch:
            self.events.append(self._batch)
            self._batch = Changes()

    def _root_went(self) -> None:
        self._end_batch()
        self.picture.clear()
        self._looks.clear()
        self._moving.clear()
        self._folder = (None, None)
        if self.is_ready:
            self.is_ready, self._is_moving = False, True
            self.events.append(Gone())

    # The second write within a second, which has no record.

    def _look_later(self, entry: Entry) -> None:
        """Where the status was changed after that second, the tool has looked at the file after it too."""
        second = entry.modified
        if entry.below is None and entry.created <= second and self._started <= second <= time.time() + CLOCK_LEAD:
            self._looks.setdefault(second, []).append(entry)

    def _look_again(self, entry: Entry, second: int, now: float) -> None:
        path = self.picture.path_of(entry)
        if path is None or entry.modified != second:
            return
        path_now = os.path.join(self._base, path)
        try:
            above, status = os.lstat(os.path.dirname(path_now)), os.lstat(path_now)
        except OSError:
            above = status = None
        # A folder that was replaced at once has no record of its new number: then that of the file has to do.
        is_there = above is not None and status is not None and (
            above.st_ino == _inode_above(entry, above) or status.st_ino == entry.inode)
        if not is_there and now - self._heard < STILL:
            self._moving.append((entry, second))
            self._next_try = now + 1
            return
        if status is None:
            return
        seen = Attributes(status.st_ino, status.st_mtime_ns // 10**9, status.st_ctime_ns // 10**9, status.st_size)
        if stat.S_ISDIR(status.st_mode) or (seen.inode, seen.modified, seen.size) == (
                entry.inode, entry.modified, entry.size):
            return
        parts = self.picture.parts(path)
        assert parts is not None
        self._heard = now
        self._change("change", False, parts, None, seen)


def _inode_above(entry: Entry, seen: os.stat_result) -> int:
    """Of the folder that has the entry; where it has not been reported, what has been seen."""
    parent = entry.parent
    return parent.inode if parent is not None and parent.is_reported else seen.st_ino


class Gathering(Generic[AnyStr]):
    """Makes bursts of events."""

    def __init__(self) -> None:
        self.clear()

    def clear(self, is_gone: bool = False) -> None:
        self.is_gone, self.is_fresh = is_gone, False
        self.changes: List[Change[AnyStr]] = []
        self.problems: Tuple[Problem[AnyStr], ...] = ()

    def add(self, event: Event[AnyStr]) -> Optional[Burst[AnyStr]]:
        if isinstance(event, Changes):
            self.changes += event
        elif isinstance(event, Gone):
            self.clear(is_gone=True)
        elif isinstance(event, Ready):
            self.clear()
            self.is_fresh, self.problems = True, event.problems
        elif isinstance(event, Settled) and not self.is_gone:
            burst = Burst(self.changes, self.is_fresh, self.problems)
            self.clear()
            return burst
        return None
