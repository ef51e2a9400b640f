"""The picture of a tree that the records give. Names are bytes inside, as they are on the disk."""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import AnyStr, Callable, Generic, Iterator, Mapping, NamedTuple, Optional, Tuple


class Attributes(NamedTuple):
    """Times in whole seconds since 1970, the size in bytes. `created` is the last change of status."""
    inode: int
    modified: int
    created: int
    size: int


@dataclass(frozen=True)
class Change(Generic[AnyStr]):
    """What happened to one entry. `action` is create, delete, rename or change; `kind` is file or folder. `old_path`
    is set for a rename only. The delete and the rename of a folder hold for everything below it."""
    action: str
    kind: str
    path: AnyStr
    old_path: Optional[AnyStr]
    inode: int
    modified: int
    created: int
    size: int


UNREPORTED = Attributes(-1, 0, 0, 0)


class Entry:
    """A file or a folder of the picture."""

    __slots__ = ("name", "parent", "below", "inode", "modified", "created", "size")

    def __init__(self, name: bytes, parent: "Optional[Entry]", is_folder: bool, attributes: Attributes) -> None:
        self.name = name
        self.parent = parent
        self.below: "Optional[dict[bytes, Entry]]" = {} if is_folder else None
        self.inode, self.modified, self.created, self.size = attributes

    @property
    def kind(self) -> str:
        return "file" if self.below is None else "folder"

    @property
    def is_folder(self) -> bool:
        return self.below is not None

    def take_over(self, attributes: Attributes) -> None:
        self.inode, self.modified, self.created, self.size = attributes

    @property
    def is_reported(self) -> bool:
        """False of a folder that is known only because something in it was reported."""
        return self.inode >= 0

    def __repr__(self) -> str:
        return f"<{self.kind} {self.name!r}, modified {self.modified}, {self.size} bytes>"


Parts = Tuple[bytes, ...]


class Picture(Mapping[AnyStr, Entry]):
    """The entries by path, the watched folder itself left out. It changes with the events that the watcher returns;
    take a copy (`dict(picture)`) where it has to stay as it is."""

    def __init__(self, root: AnyStr) -> None:
        self._is_text = isinstance(root, str)
        self.from_bytes: Callable[[bytes], AnyStr] = os.fsdecode if self._is_text else bytes  # type: ignore
        self.root = os.fsencode(root).rstrip(b"/")
        self.top = Entry(self.root, None, True, UNREPORTED)

    def parts(self, path: "str | bytes") -> Optional[Parts]:
        """The names below the watched folder; None for a path that is not below it."""
        raw = os.fsencode(path)
        at = len(self.root)
        return tuple(raw[at + 1:].split(b"/")) if raw.startswith(self.root) and raw[at:at + 1] == b"/" else None

    def find(self, parts: Optional[Parts]) -> Optional[Entry]:
        at: Optional[Entry] = self.top
        for name in parts or ():
            if at is None or at.below is None:
                return None
            at = at.below.get(name)
        return at if parts else None

    def has_folder(self, path: bytes) -> bool:
        """Whether this is the watched folder, or a folder below it that has been reported."""
        entry = self.find(self.parts(path))
        return path.rstrip(b"/") == self.root or (entry is not None and entry.is_folder and entry.is_reported)

    def may_begin_folder(self, start: bytes) -> bool:
        """Whether the path of some folder begins so."""
        if len(start) <= len(self.root):
            return self.root.startswith(start)
        parts = self.parts(start)
        if parts is None:
            return False
        folder = self.find(parts[:-1]) if parts[1:] else self.top
        below = folder.below if folder is not None else None
        return any(name.startswith(parts[-1]) and entry.is_folder for name, entry in (below or {}).items())

    def path_from(self, parts: Parts) -> AnyStr:
        return self.from_bytes(b"/".join((self.root, *parts)))

    def path_of(self, entry: Entry) -> Optional[bytes]:
        """None when the entry has been taken out."""
        names = []
        at: Optional[Entry] = entry
        while at is not None and at is not self.top:
            names.append(at.name)
            at = at.parent
        names.append(self.root)
        return b"/".join(reversed(names)) if at is self.top else None

    # What the records ask for.

    def clear(self) -> None:
        self.top = Entry(self.root, None, True, UNREPORTED)

    def folder(self, parts: Parts) -> "dict[bytes, Entry]":
        """What is below the folder; one that was not reported yet is made, and what else has its name goes."""
        at = self.top
        for name in parts:
            below = at.below
            assert below is not None
            entry = below.get(name)
            if entry is None or entry.below is None:
                if entry is not None:
                    entry.parent = None
                entry = below[name] = Entry(name, at, True, UNREPORTED)
            at = entry
        self._last = at
        assert at.below is not None
        return at.below

    def put(self, parts: Parts, is_folder: bool, attributes: Attributes) -> Entry:
        below = self.folder(parts[:-1])
        entry = below.get(parts[-1])
        if entry is not None and entry.is_folder == is_folder:
            entry.take_over(attributes)
            return entry
        if entry is not None:
            entry.parent = None
        entry = below[parts[-1]] = Entry(parts[-1], self._last, is_folder, attributes)
        return entry

    def take(self, parts: Parts) -> Optional[Entry]:
        """With the entry go the folders above it that were never reported, if they are empty then."""
        entry = at = self.find(parts)
        while at is not None and at.parent is not None and at.parent.below is not None:
            above = at.parent
            del at.parent.below[at.name]
            at.parent = None
            at = None if above.below or above.is_reported else above
        return entry

    def move(self, old: Parts, parts: Parts, is_folder: bool, attributes: Attributes) -> Entry:
        entry = self.take(old)
        self.take(parts)
        if entry is None or entry.is_folder != is_folder:
            return self.put(parts, is_folder, attributes)
        self.folder(parts[:-1])[parts[-1]] = entry
        entry.name, entry.parent = parts[-1], self._last
        entry.take_over(attributes)
        return entry

    # What programs ask for.

    def __getitem__(self, path: AnyStr) -> Entry:
        entry = self.find(self.parts(path))
        if entry is None or not entry.is_reported:
            raise KeyError(path)
        return entry

    def __iter__(self) -> Iterator[AnyStr]:
        return (path for path, _ in self._walk())

    def __len__(self) -> int:
        return sum(1 for _ in self._walk())

    def items(self) -> "Iterator[Tuple[AnyStr, Entry]]":  # type: ignore[override] # a view would look up each path
        return self._walk()

    def _walk(self) -> "Iterator[Tuple[AnyStr, Entry]]":
        folders = [(self.root, self.top)]
        while folders:
            path, folder = folders.pop()
            for name, entry in (folder.below or {}).items():
                whole = path + b"/" + name
                if entry.is_reported:
                    yield self.from_bytes(whole), entry
                if entry.below:
                    folders.append((whole, entry))
