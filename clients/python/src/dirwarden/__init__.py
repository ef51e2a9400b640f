"""Follow the changes in a folder tree: starts Dirwarden, reads its records and keeps a picture of the tree.

with dirwarden.watch("folder") as watcher:
    for change in watcher.changes():
        print(change.action, change.kind, change.path)
"""

from ._follow import Burst, Changes, Event, Gone, Problem, Ready, Settled
from ._picture import Change, Entry, Picture
from ._watch import (AsyncWatcher, CannotWatch, DirwardenError, ToolEnded, ToolMissing, Watcher, watch, watch_async)

__all__ = ["AsyncWatcher", "Burst", "CannotWatch", "Change", "Changes", "DirwardenError", "Entry", "Event", "Gone",
           "Picture", "Problem", "Ready", "Settled", "ToolEnded", "ToolMissing", "Watcher", "watch", "watch_async"]
