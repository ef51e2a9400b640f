"""The disk as a reader's picture of it should be, and the comparison of the two. Written with os.walk and lstat alone:
the picture that is checked comes from the client. Paths are bytes throughout: names need not be valid UTF-8.
"""

import os
import stat

FOLDER = "folder"
ANY = None  # a second or a size that the records do not promise
IGNORED = tuple(
    (".tmp .temp .log .sys .--- .### .$$$ .cache .cache-2 .cache-3 .db .sqlite .sqlite3 .db3 .db-shm .db-wal "
     ".db$ .db3-journal .download .downloaddownload .indexArrays .indexCompactDirectory .indexDirectory "
     ".indexPositions .indexPositionTable .sqlite3-journal .TemporaryItems .tmt").encode().split())


def disk(root, linked=()):
    """By path FOLDER or, of a file, its second of modification and its size; the root and ignored names left out. Of
    files with several names, and of those whose (device, inode) is among `linked`, both are ANY: a write through
    another name has no record. So is the size of what is no regular file."""
    entries = {}
    for folder, folders, files in os.walk(root):
        for name in folders + files:
            path = os.path.join(folder, name)
            try:
                status = os.lstat(path)
            except OSError:  # gone meanwhile, or too far down to have a path
                continue
            is_folder = stat.S_ISDIR(status.st_mode)
            if name == b".DS_Store" or (not is_folder and name[max(name.rfind(b"."), 0):] in IGNORED):
                continue
            if is_folder:
                entries[path] = FOLDER
            elif status.st_nlink > 1 or (status.st_dev, status.st_ino) in linked:
                entries[path] = ANY, ANY
            else:
                entries[path] = (status.st_mtime_ns // 10**9,
                                 status.st_size if stat.S_ISREG(status.st_mode) else ANY)
    return entries


def is_equal(entry, wanted):
    if wanted in (None, FOLDER) or entry in (None, FOLDER):
        return entry == wanted
    return all(is_wanted in (value, ANY) for value, is_wanted in zip(entry, wanted))


def difference(picture, now):
    """The paths on which the two disagree, sorted, each with what the picture and what the disk holds."""
    return [(path, picture.get(path), now.get(path))
            for path in sorted(picture.keys() | now.keys()) if not is_equal(picture.get(path), now.get(path))]
