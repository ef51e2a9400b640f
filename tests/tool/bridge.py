#!/usr/bin/env python3
"""Writes what the Python client's asynchronous iterator gives, for clients_test.py: a line of JSON for each event, with
the picture. Paths come as text with one character for each byte. usage: bridge.py FOLDER TOOL"""

import asyncio
import json
import os
import sys

from tool import dirwarden, flat


def show(name, picture, said):
    shown = {path.decode("latin1"): entry for path, entry in flat(picture).items()}
    print(json.dumps([name, shown, said], default=lambda raw: raw.decode("latin1")), flush=True)


async def main(folder, *tool):
    watcher = None
    try:
        async with dirwarden.watch_async(os.fsencode(folder), tool=tool, quiet=1.2) as watcher:
            print(watcher.pid, flush=True)
            async for event in watcher:
                if isinstance(event, dirwarden.Changes):
                    said = [[change.action, change.kind, change.path, change.old_path] for change in event]
                else:
                    said = [["problem", event.path, event.reason]] if isinstance(event, dirwarden.Problem) else []
                show(type(event).__name__.lower(), watcher.picture, said)
                if ("problem", "restart") in [(entry[0], entry[-1]) for entry in said]:
                    asyncio.get_running_loop().call_later(2, watcher.restart)  # while nothing comes
    except dirwarden.DirwardenError as error:
        show(type(error).__name__, watcher.picture if watcher else {}, [str(error)])


asyncio.run(main(*sys.argv[1:]))
