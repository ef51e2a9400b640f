// The tool's process, and its events as an EventEmitter and an asynchronous iterator.

import { spawn } from 'node:child_process';
import { EventEmitter } from 'node:events';
import { accessSync, constants, statSync } from 'node:fs';
import { delimiter, join } from 'node:path';
import { Follower } from './follow.js';

export { Entry, Picture } from './picture.js';

// Standard input is a pipe that only this program holds open: when the program dies, however that happens, the shell in
// the background sees its end, and ends the group. The tool itself takes the place of the first shell. Arguments have to
// be valid text in Node.js, so the folder comes in octal digits.
const GUARDED = 'root=$(printf %b_ "$0"); root=${root%_}; log=$1 debug=$2; shift 2; exec 3<&0 </dev/null; '
  + '{ read -r line <&3; kill -KILL 0; } >/dev/null 2>&1 & exec 3<&- "$@" "$root" true "$debug" "$log" true';
const NOT_FOUND = [126, 127]; // the shell's status for a program that it cannot run

export class DirwardenError extends Error {
  get name() { return this.constructor.name; }
}

/** There is no such program, or it cannot be run. */
export class ToolMissing extends DirwardenError {}

/** The tool ended before its first listing was complete, or it reports nothing from the folder. */
export class CannotWatch extends DirwardenError {}

/** The tool ended, and changes are missed from now on. */
export class ToolEnded extends DirwardenError {}

// What the tool stays out of, by the path as it is given.
const REFUSED = /^\/(Applications|Library|System|\.Trashes|var|private|Users\/[^/]+\/Library)\//;
const NOT_READ = ['error', 'end']; // events that do not come from the tool's output

const running = new Set(); // process numbers

const endGroup = (pid) => {
  try {
    process.kill(-pid, 'SIGKILL');
  } catch { /* it has ended */ }
};

process.on('exit', () => running.forEach(endGroup));

function isProgram(path) {
  try {
    accessSync(path, constants.X_OK);
    return statSync(path).isFile();
  } catch {
    return false;
  }
}

const findProgram = (name) => (name.includes('/') ? [name]
  : (process.env.PATH ?? '').split(delimiter).map((folder) => join(folder || '.', name))).find(isProgram);

const now = () => performance.now() / 1000;

export class Watcher extends EventEmitter {
  #folder;
  #options;
  #child = null;
  #follower;
  #timer = null;
  #isClosed = false;
  #error = null;
  #isHeard = false; // somebody has begun to take events
  #queues = new Set(); // of the iterators

  constructor(folder, { tool = 'Dirwarden', quiet = 2, log = '', encoding } = {}) {
    super();
    const isBuffer = Buffer.isBuffer(folder);
    this.#folder = (isBuffer ? folder : Buffer.from(folder)).toString('latin1');
    if (this.#folder.includes('\0')) throw new TypeError('the path of the folder has a NUL character');
    this.#options = { tool: [tool].flat(), quiet, log, encoding: encoding ?? (isBuffer ? 'buffer' : 'utf8') };
    this.on('newListener', (name) => {
      if (this.#isHeard || NOT_READ.includes(name)) return;
      this.#listen();
      if (this.#error) setImmediate(() => this.#tell());
    });
    this.#start();
  }

  get picture() { return this.#follower.picture; }

  get isReady() { return this.#follower.isReady; }

  get records() { return this.#follower.records; }

  get pid() { return this.#child?.pid; }

  #start() {
    const { tool, quiet, log, encoding } = this.#options;
    this.#follower = new Follower(this.#folder, encoding, quiet);
    this.#isClosed = false;
    this.#error = null;
    const follower = this.#follower;
    const fail = (error) => { if (follower === this.#follower) this.#fail(error); };
    const program = findProgram(tool[0]);
    const obstacle = this.#obstacle(program);
    if (obstacle) {
      setImmediate(fail, obstacle);
      return;
    }
    const octal = Array.from(this.#folder, (c) => `\\0${c.charCodeAt(0).toString(8)}`).join('');
    const child = spawn('/bin/sh', ['-c', GUARDED, octal, log, String(log !== ''), program, ...tool.slice(1)],
      { stdio: ['pipe', 'pipe', 'inherit'], detached: true });
    child.on('error', (error) => fail(new ToolMissing(`'${tool.join(' ')}' cannot be run: ${error.message}`)));
    if (child.pid === undefined) return; // then it may have no pipes either
    this.#child = child;
    running.add(child.pid);
    child.stdin.on('error', () => {});
    child.stdout.setEncoding('latin1').on('data', (data) => {
      if (child !== this.#child) return;
      this.#follower.feed(data, now());
      this.#turn();
    });
    if (!this.#isHeard) child.stdout.pause();
    child.on('exit', () => running.delete(child.pid));
    child.on('close', (status, signal) => { if (child === this.#child) this.#ended(status, signal); });
  }

  // Why there is no use in starting the tool.
  #obstacle(program) {
    if (program === undefined) return new ToolMissing(`there is no program '${this.#options.tool[0]}'`);
    if (!REFUSED.test(`${this.#folder}/`)) return null;
    const path = Buffer.from(this.#folder, 'latin1').toString();
    return new CannotWatch(`the tool reports nothing from ${path}; see docs/when-nothing-comes.md: `
      + `watch '${path.slice(1)}' with the working folder /`);
  }

  // Reads the output from now on: before, nobody would have got the events.
  #listen() {
    if (this.#isHeard) return;
    this.#isHeard = true;
    this.#child?.stdout.resume();
  }

  // Hands the events on, and comes back when there may be more.
  #turn() {
    if (this.#isClosed || this.#child?.stdout.isPaused()) return;
    clearTimeout(this.#timer);
    const follower = this.#follower;
    follower.passTime(now());
    this.#handOn(follower);
    if (follower !== this.#follower || this.#isClosed) return;
    const wait = follower.wait(now());
    // What came while the program was busy is read before the time is looked at.
    if (wait !== null) this.#timer = setTimeout(() => setImmediate(() => this.#turn()), wait * 1000 + 1);
  }

  #handOn(follower) {
    while (follower.events.length > 0 && follower === this.#follower && !this.#isClosed) {
      const event = follower.events.shift();
      for (const queue of this.#queues) queue.add(event);
      if (event.type === 'changes') for (const change of event.changes) this.emit('change', change);
      this.emit(event.type, event);
    }
    if ([...this.#queues].some((queue) => queue.events.length > 0)) this.#child?.stdout.pause();
  }

  #ended(status, signal) {
    const follower = this.#follower;
    follower.end();
    this.#handOn(follower);
    if (this.#isClosed || follower !== this.#follower) return;
    if (NOT_FOUND.includes(status) && follower.records === 0) {
      this.#fail(new ToolMissing(`'${this.#options.tool.join(' ')}' cannot be run`));
      return;
    }
    const words = Buffer.from(follower.rest, 'latin1').toString().trim() || (status === 0 ? this.#guess() : '');
    const message = `the tool ended ${signal ? `by ${signal}` : `with status ${status}`}${words && `: ${words}`}`;
    this.#fail(follower.wasReady ? new ToolEnded(message) : new CannotWatch(message));
  }

  // What status 0 means where the tool says nothing.
  #guess() {
    return this.#folder === '-h' ? "'-h' asks it for help; watch './-h'"
      : 'perhaps no inotify instance, thread or memory could be had; see docs/when-nothing-comes.md';
  }

  #fail(error) {
    if (this.#isClosed) return;
    this.#stop();
    this.#error = error;
    for (const queue of this.#queues) queue.wake();
    if (this.#isHeard || this.listenerCount('error') > 0) this.#tell();
  }

  // Iterators throw the error by themselves.
  #tell() {
    if (this.#error && (this.#queues.size === 0 || this.listenerCount('error') > 0)) this.emit('error', this.#error);
  }

  #stop() {
    this.#isClosed = true;
    clearTimeout(this.#timer);
    const child = this.#child;
    this.#child = null;
    if (child === null) return;
    if (running.has(child.pid)) endGroup(child.pid);
    child.stdin.destroy();
    child.stdout.destroy();
  }

  /** Ends the tool. Iterators end, and `end` is emitted. */
  close() {
    if (this.#isClosed) return;
    this.#stop();
    for (const queue of this.#queues) queue.wake();
    this.emit('end');
  }

  /** Ends the tool and starts it anew, with an empty picture that the listing fills; `ready` follows. */
  restart() {
    if (!this.#isClosed) this.#stop();
    this.#start();
  }

  /** The events. While some wait to be taken, the tool's output is not read. */
  async *[Symbol.asyncIterator]() {
    const queue = { events: [], wake() {}, add(event) { this.events.push(event); this.wake(); } };
    this.#queues.add(queue);
    this.#listen();
    try {
      for (;;) {
        while (queue.events.length > 0) yield queue.events.shift();
        if (this.#error) throw this.#error;
        if (this.#isClosed) return;
        if (this.#child?.stdout.isPaused()) {
          this.#child.stdout.resume();
          this.#follower.resume(now());
          this.#turn();
        }
        if (queue.events.length > 0) continue;
        await new Promise((resolve) => { queue.wake = resolve; });
      }
    } finally {
      this.#queues.delete(queue);
      if (this.#queues.size === 0) this.close();
    }
  }

  /** The changes one by one. */
  async *changes() {
    for await (const event of this) if (event.type === 'changes') yield* event.changes;
  }

  /** What happened between quiet times, once it is over. The first is the listing. */
  async *bursts() {
    let changes = [], fresh = false, problems = [], isGone = false;
    for await (const event of this) {
      if (event.type === 'changes') {
        changes = changes.concat(event.changes);
      } else if (event.type === 'gone' || event.type === 'ready') {
        isGone = event.type === 'gone';
        [changes, fresh, problems] = [[], !isGone, event.problems ?? []];
      } else if (event.type === 'settled' && !isGone) {
        yield { changes, fresh, problems };
        [changes, fresh, problems] = [[], false, []];
      }
    }
  }
}

/** Starts to follow the folder. */
export const watch = (folder, options) => new Watcher(folder, options);
