#!/usr/bin/env node
// Keeps a picture of a folder from Dirwarden's records and prints each change in words.
//
// usage: picture.mjs FOLDER [TOOL]
// TOOL is Dirwarden's path; else the environment variable DIRWARDEN names it, else it is looked for
// in the search path. The Return key shows the picture, what FOLDER holds as far as the records
// told. The end of the input shows it once more and ends both programs. Names are shown as in a
// URL. (Node.js takes arguments in UTF-8 only; for a FOLDER of another name give ".".)

import { spawn } from 'node:child_process';

// Names need not be valid in any encoding, so strings hold one character for each byte ("latin1").
const decode = (text) =>
  text.replace(/%(..)/g, (_, digits) => String.fromCharCode(parseInt(digits, 16)));
const shown = (path) =>
  path.replace(/[^\w/.~-]/g, (c) => '%' + c.charCodeAt(0).toString(16).padStart(2, '0').toUpperCase());

const form = /^<(file|folder) action="(\w+)" inode="\d+"(?: oldValue="([^"]*)")?[^>]*>([^<]*)</;
const picture = new Map(); // kind ("file" or "folder") by path
let inError = false; // the path in an error line is not encoded: it may break the line

// Takes the entry out, with all below it if it is a folder. Gives the kinds by what follows the path.
function take(path) {
  const taken = new Map();
  const isFolder = picture.get(path) === 'folder';
  const below = isFolder ? [...picture.keys()].filter((name) => name.startsWith(path + '/')) : [];
  for (const name of picture.has(path) ? [path, ...below] : []) {
    taken.set(name.slice(path.length), picture.get(name));
    picture.delete(name);
  }
  return taken;
}

// Applies one line, given without its end. Returns what it says, in words.
function apply(line) {
  if (inError || line.startsWith('<error>')) {
    inError = !line.endsWith('</error>');
    return Buffer.from(line, 'latin1').toString();
  }
  const record = form.exec(line);
  if (record === null) { // the version, a setting or the mark of a scan
    if (line === '') picture.clear(); // or a root record, where the watched path is a link
    return line;
  }
  const [, kind, action] = record;
  const [old, path] = [decode(record[3] ?? ''), decode(record[4])];
  if (action === 'sync' || action === 'create') {
    if (picture.has(path) && picture.get(path) !== kind) take(path);
    picture.set(path, kind);
  } else if (action === 'delete') {
    take(path);
  } else if (action === 'rename') {
    const moved = take(old);
    take(path);
    if (moved.size === 0) moved.set('', kind);
    for (const [rest, what] of moved) picture.set(path + rest, what);
  } else if (action === 'rootdelete' || action === 'rootcreate') {
    picture.clear();
  }
  return `${action} ${kind} ${shown(path)}` + (old ? ` (it was ${shown(old)})` : '');
}

function show() {
  for (const path of [...picture.keys()].sort()) console.log(`  ${picture.get(path)} ${shown(path)}`);
  console.log(`${picture.size} entries`);
}

const [folder, tool = process.env.DIRWARDEN ?? 'Dirwarden'] = process.argv.slice(2);
if (!folder) throw new Error('usage: picture.mjs FOLDER [TOOL]');
// true: list what is there
const child = spawn(tool, [folder, 'true'], { stdio: ['ignore', 'pipe', 'inherit'] });
process.on('exit', () => child.kill());
let rest = '';
child.stdout.setEncoding('latin1').on('end', process.exit).on('data', (data) => {
  const lines = (rest + data).split('\n');
  rest = lines.pop();
  for (const line of lines) console.log(apply(line));
});
process.stdin.on('data', show).on('end', () => { show(); process.exit(); });
