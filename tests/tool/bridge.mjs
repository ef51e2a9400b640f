// As bridge.py, for the client for Node.js. The folder comes in hexadecimal digits: arguments have to be UTF-8 here.
// Where it is there, the iterator begins late: it has to give the listing all the same.

import { existsSync } from 'node:fs';
import { setTimeout } from 'node:timers/promises';
import { watch } from '../../clients/node/lib/watch.js';

const raw = (bytes) => bytes && bytes.toString('latin1');

function show(name, picture, said) {
  const entries = Array.from(picture ?? [], ([path, entry]) =>
    [raw(path), entry.isFolder ? 'folder' : [entry.modified, entry.size]]);
  console.log(JSON.stringify([name, Object.fromEntries(entries), said]));
}

const [folder, ...tool] = process.argv.slice(2);
const watcher = watch(Buffer.from(folder, 'hex'), { tool, quiet: 1.2 });
console.log(watcher.pid ?? 0);
if (existsSync(Buffer.from(folder, 'hex'))) await setTimeout(300);
try {
  for await (const event of watcher) {
    const said = (event.changes ?? []).map((change) =>
      [change.action, change.kind, raw(change.path), raw(change.oldPath)]);
    if (event.type === 'problem') said.push(['problem', raw(event.path), event.reason]);
    show(event.type, watcher.picture, said);
    if (event.reason === 'restart') watcher.restart();
  }
} catch (error) {
  show(error.name, watcher.picture, [error.message]);
}
