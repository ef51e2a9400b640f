"""The tool's process, and the two ways to wait for what it says: blocking and asynchronous."""

from __future__ import annotations

import asyncio
import contextlib
import os
import re
import select
import shutil
import signal
import subprocess
import threading
import time
import weakref
from typing import Any, AnyStr, AsyncIterator, Generic, Iterator, List, Optional, Sequence, Tuple, Union

from ._follow import Burst, Changes, Event, Follower, Gathering
from ._picture import Change, Picture

# Standard input is a pipe that only this program holds open: when the program dies, however that happens, the shell in
# the background sees its end, and ends the group. The tool itself takes the place of the first shell.
GUARDED = 'exec 3<&0 </dev/null; { read -r line <&3; kill -KILL 0; } >/dev/null 2>&1 & exec 3<&- "$@"'
NOT_FOUND = (126, 127)  # the shell's status for a program that it cannot run
# What the tool stays out of, by the path as it is given.
REFUSED = re.compile(rb"/(Applications|Library|System|\.Trashes|var|private|Users/[^/]+/Library)/")

AnyPath = Union[str, bytes]
Tool = Union[str, "os.PathLike[str]", Sequence[str]]


class DirwardenError(Exception):
    """The tool does not watch. `Watcher.restart` tries again."""


class ToolMissing(DirwardenError):
    """There is no such program, or it cannot be run."""


class CannotWatch(DirwardenError):
    """The tool ended before its first listing was complete: it could not watch, or it was killed. Or the folder is one
    from which the tool reports nothing."""


class ToolEnded(DirwardenError):
    """The tool ended, and changes are missed from now on."""


def _kill(process: "subprocess.Popen[bytes]", owner: int) -> None:
    """The tool belongs to the process that started it, and not to one that was forked from that."""
    if os.getpid() == owner:
        with contextlib.suppress(ProcessLookupError, PermissionError):
            os.killpg(process.pid, signal.SIGKILL)


def _end(process: "subprocess.Popen[bytes]", owner: int) -> None:
    """Another user's tool cannot be killed; it ends when its output is closed, so that comes before the wait."""
    _kill(process, owner)
    for pipe in (process.stdin, process.stdout):
        if pipe is not None:
            pipe.close()
    if os.getpid() == owner:
        process.wait()


class _Base(Generic[AnyStr]):
    """What both kinds of watcher share: one run of the tool after the other, and the events that it gives."""

    def __init__(self, folder: "AnyStr | os.PathLike[AnyStr]", *, tool: Tool = "Dirwarden", quiet: float = 2.0,
                 log: "Optional[str]" = None) -> None:
        self.folder: AnyStr = os.fspath(folder)
        self.quiet = quiet
        self._tool = [os.fspath(tool)] if isinstance(tool, (str, os.PathLike)) else list(tool)
        self._log = log
        self._is_closed = True
        self._reading = threading.Lock()
        self._start()

    def _start(self) -> None:
        self._follower: Follower[AnyStr] = Follower(self.folder, self.quiet)
        program = shutil.which(self._tool[0])
        if program is None:
            raise ToolMissing(f"there is no program {self._tool[0]!r}")
        if REFUSED.match(os.fsencode(self.folder) + b"/"):
            path = os.fsdecode(self.folder)
            raise CannotWatch(f"the tool reports nothing from {path}; see docs/when-nothing-comes.md: "
                              f"watch '{path[1:]}' with the working folder /")
        arguments: List[AnyPath] = [*self._tool[1:], self.folder, "true", "true" if self._log else "false", self._log or "", "true"]
        self._process = subprocess.Popen(["/bin/sh", "-c", GUARDED, "sh", program, *arguments], bufsize=0,
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        assert self._process.stdout is not None
        self._output = self._process.stdout.fileno()
        self._owner = os.getpid()
        self._finalizer = weakref.finalize(self, _end, self._process, self._owner)
        self._is_closed = self._is_at_end = False

    @property
    def picture(self) -> Picture[AnyStr]:
        """The entries by path, as of the last event."""
        return self._follower.picture

    @property
    def is_ready(self) -> bool:
        """Whether the picture is good for use: from `Ready` on, until `Gone` or a restart."""
        return self._follower.is_ready

    @property
    def records(self) -> int:
        """How many records of files and folders have been read."""
        return self._follower.records

    @property
    def pid(self) -> int:
        return self._process.pid

    def _close(self) -> None:
        self._is_closed = True
        self._finalizer()

    def restart(self) -> None:
        """Ends the tool and starts it anew, with an empty picture that the listing fills; `Ready` follows."""
        self._close()
        self._start()

    def _poll(self, wait: Optional[float]) -> bool:
        """Whether something can be read within so many seconds."""
        poll = select.poll()
        poll.register(self._output, select.POLLIN)
        return bool(poll.poll(None if wait is None else max(wait, 0) * 1000))

    def _advance(self) -> "Optional[Event[AnyStr]]":
        """The next event if there is one now."""
        follower = self._follower
        if not follower.events:
            if not self._is_at_end and self._poll(0):
                self._read()
            follower.pass_time(time.monotonic())
        if follower.events:
            return follower.events.popleft()
        if self._is_at_end:
            raise self._ended()
        return None

    def _read(self) -> None:
        data = os.read(self._output, 1 << 16)
        if data:
            self._follower.feed(data, time.monotonic())
        elif not self._is_at_end:
            self._is_at_end = True
            self._follower.end()

    def _ended(self) -> DirwardenError:
        with contextlib.suppress(subprocess.TimeoutExpired):
            self._process.wait(5)
        status = self._process.poll()
        self._close()
        words = self._follower.rest.decode(errors="replace").strip() or (self._guess() if status == 0 else "")
        if status in NOT_FOUND and not self._follower.records:
            return ToolMissing(f"{' '.join(self._tool)!r} cannot be run")
        how = "with its output closed" if status is None else f"with status {status}" if status >= 0 else (
            f"by signal {-status}")
        what = ToolEnded if self._follower.was_ready else CannotWatch
        return what(f"the tool ended {how}" + (f": {words}" if words else ""))

    def _guess(self) -> str:
        """What status 0 means where the tool says nothing."""
        if os.fsencode(self.folder) == b"-h":
            return "'-h' asks it for help; watch './-h'"
        return "perhaps no inotify instance, thread or memory could be had; see docs/when-nothing-comes.md"


class Watcher(_Base[AnyStr]):
    """Follows a folder. Iteration gives events; see the README. To be used by one thread, but for `close`."""

    def __enter__(self) -> "Watcher[AnyStr]":
        return self

    def __exit__(self, *_: Any) -> None:
        self.close()

    def close(self) -> None:
        """Ends the tool; iteration ends. May be called by any thread."""
        self._is_closed = True
        if self._reading.acquire(blocking=False):
            self._close()
            self._reading.release()
        elif self._process.returncode is None:  # `next` sees the end of the output
            _kill(self._process, self._owner)

    def fileno(self) -> int:
        """For `select`: when there is something to read, and ten times a second otherwise, call `next(0)`."""
        return self._output

    def next(self, timeout: Optional[float] = None) -> Optional[Event[AnyStr]]:
        """The next event; None when there is none for so many seconds or the watcher is closed."""
        with self._reading:
            event = self._next(None if timeout is None else time.monotonic() + timeout)
            if self._is_closed:
                self._close()
            return event

    def _next(self, deadline: Optional[float]) -> Optional[Event[AnyStr]]:
        while not self._is_closed:
            event = self._advance()
            if event is not None:
                return event
            now = time.monotonic()
            wait = self._follower.wait(now)
            if deadline is not None:
                if now >= deadline:
                    return None
                wait = deadline - now if wait is None else min(wait, deadline - now)
            self._poll(wait)
        return None

    def __iter__(self) -> Iterator[Event[AnyStr]]:
        while True:
            event = self.next()
            if event is None:
                return
            yield event

    def changes(self) -> Iterator[Change[AnyStr]]:
        """The changes one by one."""
        for event in self:
            if isinstance(event, Changes):
                yield from event

    def bursts(self) -> Iterator[Burst[AnyStr]]:
        """What happened between quiet times, once it is over. The first is the listing."""
        gather: Gathering[AnyStr] = Gathering()
        for event in self:
            burst = gather.add(event)
            if burst is not None:
                yield burst


class AsyncWatcher(_Base[AnyStr]):
    """As Watcher, for `async with` and `async for`."""

    _waiting: "Optional[asyncio.Future[None]]" = None

    async def __aenter__(self) -> "AsyncWatcher[AnyStr]":
        return self

    async def __aexit__(self, *_: Any) -> None:
        self.close()

    def close(self) -> None:
        """Ends the tool; iteration ends."""
        self._close()

    def _close(self) -> None:
        """The loop has to forget the output while it is open: the next output can get its number."""
        if self._waiting is not None:
            self._waiting.get_loop().remove_reader(self._output)
            self._wake()
            self._waiting = None
        super()._close()

    def _wake(self) -> None:
        if self._waiting is not None and not self._waiting.done():
            self._waiting.set_result(None)

    async def _readable(self, wait: Optional[float]) -> None:
        loop = asyncio.get_running_loop()
        waiting = self._waiting = loop.create_future()
        loop.add_reader(self._output, self._wake)
        try:
            await asyncio.wait_for(waiting, wait)
        except asyncio.TimeoutError:
            pass
        finally:
            if self._waiting is waiting:
                self._waiting = None
                loop.remove_reader(self._output)

    async def next(self) -> Optional[Event[AnyStr]]:
        """The next event; None when the watcher is closed."""
        while not self._is_closed:
            event = self._advance()
            if event is not None:
                return event
            await self._readable(self._follower.wait(time.monotonic()))
        return None

    async def __aiter__(self) -> AsyncIterator[Event[AnyStr]]:
        while True:
            event = await self.next()
            if event is None:
                return
            yield event

    async def changes(self) -> AsyncIterator[Change[AnyStr]]:
        """The changes one by one."""
        async for event in self:
            if isinstance(event, Changes):
                for change in event:
                    yield change

    async def bursts(self) -> AsyncIterator[Burst[AnyStr]]:
        """What happened between quiet times, once it is over. The first is the listing."""
        gather: Gathering[AnyStr] = Gathering()
        async for event in self:
            burst = gather.add(event)
            if burst is not None:
                yield burst


def watch(folder: "AnyStr | os.PathLike[AnyStr]", *, tool: Tool = "Dirwarden", quiet: float = 2.0,
          log: Optional[str] = None) -> Watcher[AnyStr]:
    """Starts to follow the folder. Paths are text or bytes as the folder is (os.fsdecode makes the text). `tool` is
    the program's name or path, or a command with arguments that ends in one; `quiet` how many seconds without a change
    make Settled; `log` the tool's debug log."""
    return Watcher(folder, tool=tool, quiet=quiet, log=log)


def watch_async(folder: "AnyStr | os.PathLike[AnyStr]", *, tool: Tool = "Dirwarden", quiet: float = 2.0,
                log: Optional[str] = None) -> AsyncWatcher[AnyStr]:
    """As `watch`, with an asynchronous iterator."""
    return AsyncWatcher(folder, tool=tool, quiet=quiet, log=log)
